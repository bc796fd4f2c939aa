// A folder of the host that keeps the flash and the logs of a simulated device from one run to the next.
#pragma once

#include <string>

#include "tools/play/sandbox.h"

// Opens the folder for this process and those that it starts, until the last of them has ended; makes it when
// it does not exist. `options` then puts it in the place of the device's /opt and /var/log. Call it before
// the sandbox is entered. Throws std::exception with one sentence when the folder holds anything but a
// device, or when another process has it.
void device_folder_open(const std::string& folder, sandbox_options& options);

// Where the debug log of a device in that folder lies, for those outside.
[[nodiscard]] std::string device_folder_log(const std::string& folder);
