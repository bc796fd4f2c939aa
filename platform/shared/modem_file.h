// The modem's firmware version as whatever knows it leaves it in /run/vexa/modem/fw_version. Any thread.
#pragma once

#include "modem2.h"

namespace platform {

// Sets the version to the file's first line; to nothing without one.
void read_modem_file(modem2_info* info);

}  // namespace platform
