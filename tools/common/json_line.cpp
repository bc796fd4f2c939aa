#include "tools/common/json_line.h"

#include <cstdio>

void print_json_line(const json& value) {
    puts(value.dump(-1, ' ', true, json::error_handler_t::replace).c_str());
}
