// The log of the daemon's code that runs inside this tool: kept for the user instead of going to the system's
// log.
#pragma once

#include <string>
#include <vector>

// The newest lines of this thread since its last call, oldest first.
[[nodiscard]] std::vector<std::string> take_daemon_log();
