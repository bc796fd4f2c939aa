// Updates that come from the device itself: a package that a user uploaded, and the update script.
#pragma once

#include "command.h"

[[nodiscard]] std::span<const command> local_update_commands();
