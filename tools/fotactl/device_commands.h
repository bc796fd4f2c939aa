// What does not belong to one update.
#pragma once

#include "commands.h"

std::span<const command> device_commands();
