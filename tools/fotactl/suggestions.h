// What the shell's completion offers for the arguments of commands.
#pragma once

#include <string>
#include <vector>

#include "tools/common/completion.h"

// The agents, records and codes there are, see value_suggestions. The daemon is not asked: it may be busy.
[[nodiscard]] std::vector<suggestion> suggest_values(const std::string& name, const std::string& begun);
