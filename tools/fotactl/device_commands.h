// What does not belong to one update.
#pragma once

#include "command.h"

std::span<const command> device_commands();
