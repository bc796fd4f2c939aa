#include "json.h"

#include <cstdio>

void print_json(const json& value) {
    puts(value.dump(-1, ' ', true, json::error_handler_t::replace).c_str());
}
