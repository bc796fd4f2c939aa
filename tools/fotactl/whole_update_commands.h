// All requests of an update in a row, with a word on each.
#pragma once

#include "command.h"

[[nodiscard]] std::span<const command> update_commands();
[[nodiscard]] std::span<const command> whole_sideload_commands();
