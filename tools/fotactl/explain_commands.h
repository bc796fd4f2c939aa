// What numbers and names mean. Asks nobody.
#pragma once

#include "command.h"

std::span<const command> explain_commands();
