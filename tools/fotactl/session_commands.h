// An agent's update over the air, from the session's lock to the outcome.
#pragma once

#include "command.h"

[[nodiscard]] std::span<const command> session_commands();
