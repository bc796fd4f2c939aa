// What does not belong to one update.
#pragma once

#include "command.h"

[[nodiscard]] std::span<const command> device_commands();
