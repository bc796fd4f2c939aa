// The device's debug log.
#pragma once

#include "command.h"

[[nodiscard]] std::span<const command> log_commands();
