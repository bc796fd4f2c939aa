#include "core/dispatcher.h"

#include "common/file_helpers.h"
#include "common/file_ops_request.h"
#include "common/flash_space.h"
#include "common/state_files.h"
#include "core/daemon_state.h"
#include "core/log.h"
#include "core/msgbus_client.h"
#include "history/history_requests.h"
#include "results/status_requests.h"
#include "session/factory_reset.h"
#include "session/lock_requests.h"
#include "session/session_requests.h"
#include "session/sideload_requests.h"
#include "session/sua_requests.h"
#include "session/validation_request.h"
#include "session/version_requests.h"
#include "vexa_dbg.h"

namespace {

enum log_line { NO_LINE, DEBUG_LINE, BOTH_LINE };

struct event_row {
    int32_t event;
    const char* name;
    log_line log;
    void (*handler)(fota_event_msg* msg);
};

void handle_stop_in_recovery(fota_event_msg* msg) {
    if (msg->payload.value != 0) {
        (void)fota_create_a_file(FOTA_RECOVERY_DEBUG_MODE, nullptr, 0);
    } else {
        (void)fota_remove_a_file(FOTA_RECOVERY_DEBUG_MODE);
    }
    msg->result = FOTA_RC_SUCCESS;
}

// Kept for clients that still send it: packages are decrypted by their validation.
void handle_decrypt_pkg(fota_event_msg* msg) {
    msg->result = FOTA_RC_SUCCESS;
}

// clang-format off
#define EVENT(event) event, #event
constexpr event_row EVENTS[] = {
    {EVENT(FOTA_MSG_GET_MAX_PKG_SIZE),            BOTH_LINE,  handle_get_max_pkg_size},
    {EVENT(FOTA_MSG_CREATE_SESSION_LOCK),         NO_LINE,    handle_session_event},
    {EVENT(FOTA_MSG_CLEAR_SESSION_LOCK),          NO_LINE,    handle_session_event},
    {EVENT(FOTA_MSG_GET_UPDATE_STATUS),           BOTH_LINE,  handle_update_status_req},
    {EVENT(FOTA_MSG_GET_LAST_SUCCESS_REC),        BOTH_LINE,  handle_get_last_success_rec},
    {EVENT(FOTA_MSG_GET_UPDATE_CHECK_TIME),       BOTH_LINE,  handle_get_update_check_time},
    {EVENT(FOTA_MSG_SET_UPDATE_CHECK_TIME),       BOTH_LINE,  handle_set_update_check_time},
    {EVENT(FOTA_MSG_GET_NO_OF_RECORDS),           DEBUG_LINE, handle_get_record_count},
    {EVENT(FOTA_MSG_GET_RECORD_BY_INDEX),         DEBUG_LINE, handle_get_record_by_index},
    {EVENT(FOTA_MSG_GET_RECORD_BY_ID),            DEBUG_LINE, handle_get_record_by_id},
    {EVENT(FOTA_MSG_GET_SRC_PKG_VERSION),         NO_LINE,    handle_read_version_from_package},
    {EVENT(FOTA_MSG_GET_TGT_PKG_VERSION),         NO_LINE,    handle_read_version_from_package},
    {EVENT(FOTA_MSG_ABORT_CURRENT_SESS),          BOTH_LINE,  handle_abort_current_session},
    {EVENT(FOTA_MSG_GET_CURRENT_SESS_RECORD),     BOTH_LINE,  handle_get_current_sess_record},
    {EVENT(FOTA_MSG_CFG_GET_CURRENT_RECORD),      BOTH_LINE,  handle_cfg_get_current_record},
    {EVENT(FOTA_MSG_CFG_SAVE_NEW_RECORD),         BOTH_LINE,  handle_cfg_save_new_record},
    {EVENT(FOTA_MSG_INCR_INSTALL_DEFER_COUNT),    BOTH_LINE,  handle_incr_install_defer_count},
    {EVENT(FOTA_MSG_MODIFY_RECORD_BY_ID),         BOTH_LINE,  handle_modify_record_by_id},
    {EVENT(FOTA_MSG_VALIDATE_UPDATE_PKG),         BOTH_LINE,  handle_pkg_verfication},
    {EVENT(FOTA_MSG_START_INSTALLATION),          BOTH_LINE,  handle_installation_kickoff},
    {EVENT(FOTA_MSG_SIDELOAD_START_INSTALLATION), BOTH_LINE,  handle_sideload_start_installation},
    {EVENT(FOTA_MSG_SUA_UPATE_START),             BOTH_LINE,  handle_sua_update_start},
    {EVENT(FOTA_MSG_GET_REVERT_STATUS),           BOTH_LINE,  handle_revert_status_req},
    {EVENT(FOTA_MSG_SIDELOAD_PREPARE_PACKAGE),    BOTH_LINE,  handle_sideload_prepare_package},
    {EVENT(FOTA_MSG_FACTORY_RESET),               BOTH_LINE,  handle_fota_factory_reset},
    {EVENT(FOTA_MSG_STOP_IN_RECOVERY),            BOTH_LINE,  handle_stop_in_recovery},
    {EVENT(FOTA_MSG_DECRYPT_PKG),                 BOTH_LINE,  handle_decrypt_pkg},
    {EVENT(FOTA_MSG_FILE_OPS),                    BOTH_LINE,  handle_fota_file_ops},
    {EVENT(FOTA_MSG_GET_SIDELOAD_MAX_PKG_SIZE),   BOTH_LINE,  handle_get_sideload_max_pkg_size},
    {EVENT(FOTA_MSG_GET_KERNEL_VERSION),          BOTH_LINE,  handle_get_kernel_version},
};
#undef EVENT
// clang-format on

constexpr bool events_rise() {
    for (size_t i = 1; i < sizeof EVENTS / sizeof EVENTS[0]; ++i) {
        if (EVENTS[i].event <= EVENTS[i - 1].event) return false;
    }
    return true;
}
static_assert(events_rise(), "sorted, each event once");

const event_row* find_event(int32_t event) {
    for (const event_row& row : EVENTS) {
        if (row.event == event) return &row;
    }
    return nullptr;
}

}  // namespace

fota_rc fota_handle_event_message(fota_event_msg* msg) {
    const bool full_fota = fota_is_regular_file(FOTA_STAGING_UPDATE_PRE_FULL_FOTA_INSTALL) == FOTA_RC_SUCCESS;

    if (msg->event == FOTA_MSG_GET_UPGRADE_STATUS) {
        int32_t status = fota_get_last_upgrade_status();
        if (status == FOTA_UPGRADE_IDLE && full_fota) status = FOTA_UPGRADE_STARTED;
        msg->payload.value = static_cast<uint32_t>(status);
        msg->result = FOTA_RC_SUCCESS;
        return FOTA_RC_SUCCESS;
    }
    if (fota_is_regular_file(FOTA_SIDELOAD_COOKIE) == FOTA_RC_SUCCESS) {
        LOG_ERROR("Sideload in progress, drop event(%d):\n", msg->event);
        msg->result = FOTA_RC_SIDELOAD_IN_PROGRESS;
        return FOTA_RC_SUCCESS;
    }
    if (full_fota) {
        LOG_ERROR("Full FOTA in progress, drop event(%d):\n", msg->event);
        msg->result = FOTA_RC_FULL_FOTA_IN_PROGRESS;
        return FOTA_RC_SUCCESS;
    }

    const event_row* row = find_event(msg->event);
    if (row == nullptr) {
        LOG_ERROR("Unknown event:%d\n", msg->event);
        return FOTA_RC_SUCCESS;
    }
    vexa_dbg_context(row->name, nullptr, 0);
    if (row->log == DEBUG_LINE) LOG_NOTICE("Handle %s\n", row->name);
    if (row->log == BOTH_LINE) LOG_NOTICE_BOTH("Handle %s\n", row->name);
    row->handler(msg);
    vexa_dbg_context("", nullptr, 0);
    return FOTA_RC_SUCCESS;
}
