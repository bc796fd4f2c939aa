// Requests that take long: people see that they go on, and may leave.
#pragma once

#include <functional>
#include <string>

#include "tools/common/end_signals.h"

// Makes the request and returns its result, errno as it left it. What set_doing() was told is shown
// meanwhile. When a signal asks for an end, before or meanwhile, prints what `on_leave` says, to which it
// matters whether the request may have been sent, and ends the process.
[[nodiscard]] int wait_for(const std::function<int()>& request, const end_signals& signals,
                           const std::function<std::string(bool is_sent)>& on_leave);
