// What numbers and names mean. Asks nobody.
#pragma once

#include "commands.h"

std::span<const command> explain_commands();
