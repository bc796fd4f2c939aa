// One screen about the device: what the daemon answers and what its state files tell.
#pragma once

#include "command.h"

[[nodiscard]] std::span<const command> status_commands();
