// JSON for scripts.
#pragma once

#include <nlohmann/json.hpp>

// Fields in the order in which they were added.
using json = nlohmann::ordered_json;

// One line on standard output, in ASCII: nothing in it acts on a terminal. Bytes that are not UTF-8 become
// U+FFFD.
void print_json_line(const json& value);
