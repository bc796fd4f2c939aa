// The update history, the configuration, and what else the daemon keeps for others.
#pragma once

#include "command.h"

[[nodiscard]] std::span<const command> history_commands();
