// JSON for scripts.
#pragma once

#include <nlohmann/json.hpp>

#include "core/result_codes.h"

// Fields in the order in which they were added.
using json = nlohmann::ordered_json;

// Such as {"number": "0xA0001", "name": "FOTA_RC_FAILURE"}.
[[nodiscard]] json code_json(fota_rc code);

// To standard output, in ASCII: nothing in it acts on a terminal. Bytes that are not UTF-8 become U+FFFD.
void print_json(const json& value);
