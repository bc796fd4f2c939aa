// What the other programs of the device do in a played update; steps, as in steps.h.
#pragma once

#include "steps.h"

// The download agent, and the web interface that a user uploads to.
std::string download(player& p);
std::string upload(player& p);

// The external update tool of the script-driven path: reads what the daemon says of the device, and leaves
// its package and its description.
std::string run_update_tool(player& p);

// Who has been asked to leave normal operation for that installation, and for what: "device state manager:
// run level 5", or "init: ..." when a command had to do. Empty: nobody yet.
std::string asked_to_install(bool full_image);

// Brings the first half of what is to come to the device.
void bring_half(player& p, const char* path);

// Waits until the device state manager, or a command that the daemon falls back on, has been asked to leave
// normal operation: for the installation's run level, or for the reset that a full image ends with.
std::string hand_over(player& p);

// The boot after a full image: the daemon runs while the configurations are still being upgraded.
std::string boot_full_image(player& p);

// The installer and the boot fail-safe: flags in, result files out. The daemon must not run.
std::string install(player& p);
std::string reboot(player& p);
