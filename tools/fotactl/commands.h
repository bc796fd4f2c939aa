// All commands.
#pragma once

#include <vector>

#include "command.h"

std::vector<command_section> all_commands();
