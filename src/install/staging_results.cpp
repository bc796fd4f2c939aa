#include "install/staging_results.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "common/file_helpers.h"
#include "common/state_files.h"
#include "common/text.h"
#include "core/log.h"
#include "fota/history_record.h"
#include "fota/request.h"
#include "install/engine_errors.h"

namespace {

struct result_files {
    const char* success;
    const char* failure;
    const char* revert;  // null: the component has none
};

constexpr result_files MAIN_FILES = {FOTA_STAGING_UPDATE_SUCCESS, FOTA_STAGING_UPDATE_FAILURE,
                                     FOTA_REVERT_MARKER};
constexpr result_files MODEM_FILES = {FOTA_STAGING_PRI_MODEM_SUCCESS, FOTA_STAGING_PRI_MODEM_FAILURE,
                                      nullptr};
constexpr result_files LINUX_FILES = {FOTA_STAGING_PRI_LINUX_SUCCESS, FOTA_STAGING_PRI_LINUX_FAILURE,
                                      nullptr};

constexpr long FUMO_LOWEST = 200;
constexpr long FUMO_HIGHEST = 610;
constexpr int CODE_LINE_SIZE = 15;

// The signed decimal number that `line` begins with, held within 32 bits; 0 when there is none.
int32_t leading_code(char* line) {
    line[strspn(line, "+-0123456789")] = '\0';
    return static_cast<int32_t>(std::clamp<long long>(strtoll(line, nullptr, 10), INT32_MIN, INT32_MAX));
}

}  // namespace

fota_staging_result get_result_from_staging(const char* label, int main_update, int modem_pri,
                                            int linux_pri) {
    const result_files* files = main_update != 0 ? &MAIN_FILES
                                : modem_pri != 0 ? &MODEM_FILES
                                : linux_pri != 0 ? &LINUX_FILES
                                                 : nullptr;
    if (files != nullptr && can_open_for_reading(files->success)) {
        LOG_NOTICE("[%s] - [STAGING_UPDATE_SUCCESS]\n", label);
        return STAGING_UPDATE_SUCCESS;
    }
    if (files != nullptr && can_open_for_reading(files->failure)) {
        LOG_NOTICE("[%s] - [STAGING_UPDATE_FAILURE]\n", label);
        return STAGING_UPDATE_FAILURE;
    }
    if (files != nullptr && files->revert != nullptr && can_open_for_reading(files->revert)) {
        LOG_NOTICE("[%s] - [REVERTED_STATUS]\n", label);
        return REVERTED_STATUS;
    }
    LOG_NOTICE("[%s] - [STAGING_UPDATE_NORESULT]\n", label);
    return STAGING_UPDATE_NORESULT;
}

long get_failure_fumo_error_code(char* text) {
    LOG_INFO("Called \n");
    char unwanted[FOTA_TEXT_SIZE] = {};
    if (text == nullptr) text = unwanted;

    file_ptr stream = open_for_reading(FOTA_STAGING_UPDATE_FAILURE);
    if (!stream) {
        LOG_ERROR("FOTA_STAGING_UPDATE_FAILURE not found, returning 409\n");
        text_format(text, FOTA_TEXT_SIZE, "FOTA_STAGING_UPDATE_FAILURE not found");
        return FOTA_STATUS_UNDEFINED_ERROR;
    }
    char line[CODE_LINE_SIZE] = {};
    if (fgets(line, sizeof line, stream.get()) == nullptr) line[0] = '\0';
    stream.reset();

    const int32_t code = leading_code(line);
    const bool has_reason = fota_is_regular_file(FOTA_STAGING_UPDATE_FAILURE_REASON) == FOTA_RC_SUCCESS;
    long fumo = map_engine_error_code(static_cast<uint32_t>(code), text, FOTA_TEXT_SIZE);
    if (fumo == -1) {
        fumo = code;
        if (!has_reason) text_format(text, FOTA_TEXT_SIZE, "cannot map error - (%ld)", fumo);
    }
    if (fumo < FUMO_LOWEST || fumo > FUMO_HIGHEST) {
        LOG_NOTICE_BOTH("fumo_erro out of range: %ld\n", fumo);
        text_format(text, FOTA_TEXT_SIZE, "Out of range error(%ld)", fumo);
        fumo = FOTA_STATUS_UPDATE_FAILED;
    }
    char reason[FOTA_TEXT_SIZE];
    if (has_reason &&
        fota_read_str_from_file(FOTA_STAGING_UPDATE_FAILURE_REASON, reason) == FOTA_RC_SUCCESS) {
        text_append(text, FOTA_TEXT_SIZE, reason, sizeof reason);
    }
    LOG_INFO("Found FUMO error: %ld (%s)\n", fumo, text);
    return fumo;
}

fota_rc set_staging_update_failure(int code) {
    char text[FOTA_TEXT_SIZE];
    text_format(text, sizeof text, "%d", code);
    return fota_create_a_file(FOTA_STAGING_UPDATE_FAILURE, text, strlen(text));
}
