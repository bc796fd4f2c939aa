// What stands in the way of an update, all of it at once, before anything is changed.
#pragma once

#include "command.h"

[[nodiscard]] std::span<const command> check_commands();
