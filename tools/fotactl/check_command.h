// What stands in the way of an update, all of it at once, before anything is changed.
#pragma once

#include "commands.h"

std::span<const command> check_commands();
