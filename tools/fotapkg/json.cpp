#include "json.h"

#include <cstdio>

#include "fota_client.h"

json code_json(fota_rc code) {
    char number[16];
    snprintf(number, sizeof number, "0x%X", code);
    const char* name = fota_result_name(static_cast<int>(code));
    return {{"number", number}, {"name", name != nullptr ? name : ""}};
}

void print_json(const json& value) {
    puts(value.dump(2, ' ', true, json::error_handler_t::replace).c_str());
}
