// What happens on the device, as it happens. Asks nobody: looks at files.
#pragma once

#include "commands.h"

std::span<const command> watch_commands();
