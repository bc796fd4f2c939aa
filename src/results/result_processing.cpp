#include "results/result_processing.h"

#include "common/command.h"
#include "common/file_helpers.h"
#include "common/state_files.h"
#include "common/text.h"
#include "core/log.h"
#include "core/msgbus_client.h"
#include "fota/request.h"
#include "history/history_slots.h"
#include "install/staging_results.h"
#include "results/cookies.h"
#include "results/record_filling.h"
#include "results/session_cleanup.h"

namespace {

constexpr char SUCCESS_REASON[] = "FW Upgrade success";
constexpr char REVERTED[] = "REVERTED";
constexpr char SUA[] = "SUA";

// The first line of a file, its line end included; empty when there is none.
void copy_from_file(char (&dst)[255], const char* path) {
    char text[FOTA_TEXT_SIZE];
    (void)fota_read_str_from_file(path, text);
    text_copy(dst, text);
}

// A record that the daemon makes itself, as the agent `name`.
template <size_t N>
fota_history_rec own_record(uint32_t type, uint32_t id, const char (&name)[N]) {
    fota_history_rec record = {};
    record.rec_type = type;
    record.rec_id = id;
    text_copy(record.pkg_info.agent_name, name);
    text_copy(record.pkg_info.update_method, name);
    text_copy(record.pkg_info.manufacturer, FOTA_DEFAULT_MANUFACTURER);
    return record;
}

struct update_outcome {
    uint32_t status;
    uint32_t modem_pri_result;
    uint32_t linux_pri_result;
    char reason[FOTA_TEXT_SIZE];
};

// The record that an interrupted start has made of a fall-back; 0: none. It is the only one of its kind that
// the tracking cookie names.
uint32_t interrupted_revert_record() {
    uint32_t id = 0;
    fota_history_rec record = {};
    if (fota_get_tracking_cookie(&id) != FOTA_RC_SUCCESS || id == 0) return 0;
    if (find_record_by_id(id, &record) != FOTA_RC_SUCCESS) return 0;
    return record.rec_type == FOTA_REC_REVERT ? id : 0;
}

// Hands a fall-back out, and announces it.
void publish_revert(uint32_t id) {
    (void)fota_set_revert_processed(id);
    fota_history_rec record = {};
    if (find_record_by_id(id, &record) == FOTA_RC_SUCCESS) {
        fota_broadcast_revert_status(&record);
    } else {
        LOG_ERROR_AS("create_revert_record_in_history", "Result cookie record ID=[%d] not found in DB\n",
                     static_cast<int>(id));
    }
}

// Writes an outcome into the record in progress and announces it. `function` is the caller's name for the
// log.
void record_outcome(const update_outcome& outcome, const char* function) {
    if (create_sua_record_in_history() != FOTA_RC_SUCCESS) {
        LOG_ERROR_AS(function, "Error in create_sua_record_in_history\n");
        return;
    }
    uint32_t id = 0;
    if (fota_get_tracking_cookie(&id) != FOTA_RC_SUCCESS) {
        LOG_ERROR_AS(function, "No tracking cookie\n");
        return;
    }
    if (id == 0) {
        LOG_ERROR_AS(function, "Invalid record ID inside tracking cookie (%d)\n", static_cast<int>(id));
        return;
    }
    LOG_NOTICE_AS(function, "Reason=[%d][%s] record_id= [%d]\n", static_cast<int>(outcome.status),
                  outcome.reason, static_cast<int>(id));
    if (copy_result_into_db(outcome.status, outcome.modem_pri_result, outcome.linux_pri_result,
                            outcome.reason, id) == FOTA_RC_SUCCESS) {
        LOG_NOTICE_AS(function, "Successfully copied result into DB\n");
    } else {
        LOG_ERROR_AS(function, "Failed to copy result into DB\n");
    }
    (void)fota_set_result_processed(id);
    fota_history_rec record = {};
    if (find_record_by_id(id, &record) == FOTA_RC_SUCCESS) {
        fota_broadcast_update_status(&record);
    } else {
        LOG_ERROR_AS(function, "Result cookie record ID=[%d] not found in DB\n", static_cast<int>(id));
    }
}

void run_if_present(const char* script) {
    if (path_exists(script)) (void)run_script(script);
}

}  // namespace

void check_and_update_fota_results() {
    fota_broadcast_upgrade_status(FOTA_UPGRADE_IDLE);
    const fota_staging_result main_result = get_result_from_staging("FW-Update", 1, 0, 0);
    const fota_staging_result modem_result = get_result_from_staging("Modem-PRI", 0, 1, 0);
    const fota_staging_result linux_result = get_result_from_staging("Linux-PRI", 0, 0, 1);

    update_outcome outcome = {};
    char word[FOTA_TEXT_SIZE];
    switch (main_result) {
        case STAGING_UPDATE_NORESULT:
            LOG_NOTICE("FW-Update=[No update took place]\n");
            return;
        case STAGING_UPDATE_SUCCESS:
            outcome.status = FOTA_STATUS_SUCCESS;
            text_copy(outcome.reason, SUCCESS_REASON);
            LOG_NOTICE("FW-Update=[%s]\n", outcome.reason);
            outcome.modem_pri_result =
                map_pri_result(outcome.reason, FOTA_STAGING_PRI_MODEM_FAILURE, modem_result, word);
            LOG_NOTICE("Modem-PRI=[%s]\n", word);
            outcome.linux_pri_result =
                map_pri_result(outcome.reason, FOTA_STAGING_PRI_LINUX_FAILURE, linux_result, word);
            LOG_NOTICE("Linux-PRI=[%s]\n", word);
            LOG_NOTICE("Reason=[%s]\n", outcome.reason);
            record_outcome(outcome, __func__);
            break;
        case REVERTED_STATUS:
            LOG_NOTICE("FW-Update=[The device is reverted to previous Firmware ]\n");
            outcome.status = get_failure_reverted_error_code(outcome.reason);
            if (create_revert_record_in_history(outcome.status, outcome.reason) != FOTA_RC_SUCCESS) {
                LOG_ERROR("Error in create_revert_record_in_history\n");
            }
            break;
        case STAGING_UPDATE_FAILURE:
            outcome.status = static_cast<uint32_t>(get_failure_fumo_error_code(outcome.reason));
            LOG_NOTICE("FW-Update=[Failed] reason=[%d][%s]\n", static_cast<int>(outcome.status),
                       outcome.reason);
            record_outcome(outcome, __func__);
            break;
    }

    if (outcome.status == FOTA_STATUS_SUCCESS) {
        run_post_install_script();
    } else {
        run_post_install_failed_script();
    }
    (void)clear_update_files(0);
}

uint32_t map_pri_result(char (&reason)[FOTA_TEXT_SIZE], const char* failure_file, int result,
                        char (&word)[FOTA_TEXT_SIZE]) {
    if (result == STAGING_UPDATE_NORESULT) {
        text_format(word, FOTA_TEXT_SIZE, "No upgrade");
        return FOTA_STATUS_PENDING;
    }
    if (result == STAGING_UPDATE_SUCCESS) {
        text_format(word, FOTA_TEXT_SIZE, "Upgrade success");
        return FOTA_STATUS_SUCCESS;
    }
    text_format(word, FOTA_TEXT_SIZE, "Upgrade failed");
    char text[FOTA_TEXT_SIZE];
    if (fota_read_str_from_file(failure_file, text) == FOTA_RC_SUCCESS) {
        text_cut_line_end(text);
        if (text[0] != '\0') {
            text_append(reason, FOTA_TEXT_SIZE, ";", 1);
            text_append(reason, text);
        }
    }
    return FOTA_STATUS_UPDATE_FAILED;
}

uint32_t get_failure_reverted_error_code(char (&reason)[FOTA_TEXT_SIZE]) {
    if (fota_is_regular_file(FOTA_REVERT_REASON) == FOTA_RC_SUCCESS) {
        (void)fota_read_str_from_file(FOTA_REVERT_REASON, reason);
    } else {
        LOG_ERROR("FOTA_REVERT_REASON not found\n");
        text_format(reason, FOTA_TEXT_SIZE, "%s is not found", FOTA_REVERT_REASON);
    }
    if (fota_is_regular_file(FOTA_REVERT_ERROR_CODE) != FOTA_RC_SUCCESS) {
        LOG_ERROR("%s not found..returning error code as 409\n", FOTA_REVERT_ERROR_CODE);
        return FOTA_STATUS_UNDEFINED_ERROR;
    }
    uint32_t code = 0;
    (void)fota_read_str_conv_to_uint32(FOTA_REVERT_ERROR_CODE, &code);
    return code;
}

fota_rc create_revert_record_in_history(uint32_t status, const char* reason) {
    if (fota_is_regular_file(FOTA_REVERT_MARKER) != FOTA_RC_SUCCESS) return FOTA_RC_SUCCESS;
    const auto lock = lock_history();
    const uint32_t made = interrupted_revert_record();
    if (made != 0) {
        publish_revert(made);
        return FOTA_RC_SUCCESS;
    }
    const uint32_t id = allocate_new_record_id();
    if (id == 0) {
        LOG_ERROR("Cannot allocate new record in DB for history\n");
        return FOTA_RC_FAILURE;
    }
    (void)fota_set_tracking_cookie(id);

    fota_history_rec record = own_record(FOTA_REC_REVERT, id, REVERTED);
    fota_pkg_info* info = &record.pkg_info;
    char target_ver[FOTA_TEXT_SIZE];
    record.status = status;
    text_copy(record.reason, sizeof record.reason, reason, sizeof record.reason);
    copy_from_file(info->pkg_ver, FOTA_PREVIOUS_SRC_VER);
    copy_from_file(target_ver, FOTA_PREVIOUS_TARGET_VER);
    text_format(info->pkg_name, sizeof info->pkg_name, "%s-%s", info->pkg_ver, target_ver);
    text_copy(info->pkg_description, info->pkg_name);
    local_date_now(record.update_date, sizeof record.update_date);

    if (add_record_to_db(&record) != FOTA_RC_SUCCESS) {
        LOG_ERROR("Failed to add rec ID:%d to DB\n", static_cast<int>(id));
        return FOTA_RC_FAILURE;
    }
    publish_revert(id);
    return FOTA_RC_SUCCESS;
}

fota_rc create_sua_record_in_history() {
    if (fota_is_regular_file(FOTA_STAGING_SUA_COOKIE) != FOTA_RC_SUCCESS) return FOTA_RC_SUCCESS;
    const auto lock = lock_history();
    const uint32_t id = allocate_new_record_id();
    if (id == 0) {
        LOG_ERROR("Cannot allocate new record in DB for history\n");
        return FOTA_RC_FAILURE;
    }
    (void)fota_set_tracking_cookie(id);

    fota_history_rec record = own_record(FOTA_REC_UPDATE, id, SUA);
    fota_pkg_info* info = &record.pkg_info;
    copy_from_file(info->pkg_description, FOTA_STAGING_SUA_PKG_DESC);
    copy_from_file(info->pkg_name, FOTA_STAGING_SUA_PKG_NAME);
    copy_from_file(info->pkg_ver, FOTA_STAGING_SUA_PKG_VER);
    (void)fota_read_str_conv_to_uint32(FOTA_STAGING_SUA_PKG_SIZE, &info->pkg_size);
    if (fota_read_str_from_file(FOTA_STAGING_SUA_PKG_TS, record.update_date) != FOTA_RC_SUCCESS) {
        local_date_now(record.update_date, sizeof record.update_date);
    }
    (void)save_update_check_time(record.update_date);

    if (add_record_to_db(&record) != FOTA_RC_SUCCESS) {
        LOG_ERROR("Failed to add rec ID:%d to DB\n", static_cast<int>(id));
        return FOTA_RC_FAILURE;
    }
    return FOTA_RC_SUCCESS;
}

void run_post_install_script() {
    run_if_present(FOTA_STAGING_POST_INSTALL_SCRIPT);
}

void run_post_install_failed_script() {
    run_if_present(FOTA_STAGING_POST_INSTALL_FAILED_SCRIPT);
}
