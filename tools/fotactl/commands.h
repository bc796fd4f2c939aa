// All commands.
#pragma once

#include <vector>

#include "command.h"

[[nodiscard]] std::vector<command_section> all_commands();
