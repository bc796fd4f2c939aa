#include "fota/fota_client.h"

// clang-format off
#define NAME(code, ...) case code: return #code;
#define MEANING(code, value, meaning) case code: return meaning;
// clang-format on

const char* fota_event_name(int event) {
    switch (event) {
        FOTA_EVENTS(NAME)
        default:
            return nullptr;
    }
}

const char* fota_result_name(int result) {
    switch (result) {
        FOTA_RESULT_CODES(NAME)
        FOTA_CLIENT_ERRORS(NAME)
        default:
            return nullptr;
    }
}

const char* fota_result_meaning(int result) {
    switch (result) {
        FOTA_RESULT_CODES(MEANING)
        FOTA_CLIENT_ERRORS(MEANING)
        default:
            return nullptr;
    }
}
