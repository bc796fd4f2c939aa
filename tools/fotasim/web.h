// The page for side-loading on the running simulated device.
#pragma once

#include <string>

#include "tools/play/programs.h"

struct web_play {
    std::string listen = "127.0.0.1:8080";
    installer_outcome installer = {.modem_pri = configuration::UPDATED, .linux_pri = configuration::UPDATED};
    unsigned downtime_secs = 5;  // that a browser sees of a restart
};

// Serves the page of `fotaweb`, which lies beside the tools in `program_folder`, until a signal ends this
// process: each update that is ordered is installed, and the device restarted. Call it inside the sandbox,
// from its process 1, with the device booted. Throws std::exception when something does not start.
[[noreturn]] void web_run(const web_play& options, const std::string& program_folder);
