// What numbers and names mean. Asks nobody.
#pragma once

#include "command.h"

[[nodiscard]] std::span<const command> explain_commands();
