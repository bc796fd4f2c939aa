// What a command would throw away beside what it is for: one sentence without its full stop, or nothing.
#pragma once

#include <string>

#include "arguments.h"

[[nodiscard]] std::string lost_by_unlock(const options& options);
[[nodiscard]] std::string lost_by_abort(const options& options);
[[nodiscard]] std::string lost_by_sua(const options& options);
[[nodiscard]] std::string lost_by_removal(const options& options);

// Asks the person at the terminal; false when there is none.
[[nodiscard]] bool is_confirmed(const std::string& loss);
