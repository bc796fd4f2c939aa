// What happens on the device, as it happens. Asks nobody: looks at files.
#pragma once

#include "command.h"

[[nodiscard]] std::span<const command> watch_commands();
