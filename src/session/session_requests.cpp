#include "session/session_requests.h"

#include "common/file_helpers.h"
#include "common/session_lock.h"
#include "common/state_files.h"
#include "common/text.h"
#include "core/log.h"
#include "history/history_slots.h"
#include "install/installation.h"
#include "results/cookies.h"
#include "results/session_cleanup.h"

namespace {

// The id of the session's record, for its owner alone; 0 otherwise. `function` is the caller's name for the
// log.
uint32_t session_record_id(const char* agent, const char* function) {
    if (fota_check_session_owner(agent) != FOTA_RC_SUCCESS) {
        LOG_ERROR_AS(function, "Invalid agent ID: %s\n", agent);
        return 0;
    }
    uint32_t id = 0;
    if (fota_get_tracking_cookie(&id) != FOTA_RC_SUCCESS) {
        LOG_ERROR_AS(function, "No active update session found!!\n");
        return 0;
    }
    if (id == 0)
        LOG_ERROR_AS(function, "Invalid record ID inside tracking cookie (%d)\n", static_cast<int>(id));
    return id;
}

// The session's record, for its owner alone; false otherwise. `known` as in history_slots.h.
bool session_record(const char* agent, fota_history_rec* record, const char* function,
                    history_buffer* known = nullptr) {
    const uint32_t id = session_record_id(agent, function);
    if (id == 0) return false;
    if (find_record_by_id(id, record, known) == FOTA_RC_SUCCESS) return true;
    LOG_ERROR_AS(function, "No record found with ID: %d\n", static_cast<int>(id));
    return false;
}

}  // namespace

void handle_installation_kickoff(fota_event_msg* msg) {
    const fota_install_request* request = &msg->payload.install;
    char agent[FOTA_TEXT_SIZE];
    text_copy(agent, request->agent_id);

    msg->result = fota_require_session_owner(agent, __func__);
    if (msg->result != FOTA_RC_SUCCESS) return;
    if (start_installation(request->boot_preference, request->wait_secs) == FOTA_RC_SUCCESS) {
        msg->result = FOTA_RC_SUCCESS;
        LOG_NOTICE_BOTH("Started installation(%s)\n", agent);
    } else {
        LOG_ERROR("Installation failed to start(%s)\n", agent);
        msg->result = FOTA_RC_INSTALL_START_FAILED;
    }
}

void handle_abort_current_session(fota_event_msg* msg) {
    const fota_abort_request* request = &msg->payload.abort;
    char agent[FOTA_TEXT_SIZE];
    text_copy(agent, request->agent_id);

    msg->result = FOTA_RC_INVALID_PARAM;
    const uint32_t id = session_record_id(agent, __func__);
    if (id == 0) return;
    if (copy_result_into_db(request->status, 0, 0, request->reason, id) == FOTA_RC_SUCCESS) {
        LOG_NOTICE_BOTH("Successfully copied result:%d into DB\n", static_cast<int>(request->status));
        msg->result = FOTA_RC_SUCCESS;
    } else {
        LOG_ERROR("Failed to copy result into DB, rec_id=%d\n", static_cast<int>(id));
        msg->result = FOTA_RC_FAILURE;
    }
    (void)clear_update_files(1);
    (void)fota_remove_a_file(FOTA_RESULT_PROCESSED);
    clear_sideload_files();
}

void handle_get_current_sess_record(fota_event_msg* msg) {
    char agent[FOTA_TEXT_SIZE];
    text_copy(agent, msg->payload.record.pkg_info.agent_name);

    msg->result = FOTA_RC_INVALID_PARAM;
    fota_history_rec record = {};
    if (!session_record(agent, &record, __func__)) return;
    msg->payload.record = record;
    msg->result = FOTA_RC_SUCCESS;
}

void handle_incr_install_defer_count(fota_event_msg* msg) {
    char agent[FOTA_TEXT_SIZE];
    text_copy(agent, msg->payload.agent_id);

    msg->result = FOTA_RC_INVALID_PARAM;
    const auto lock = lock_history();
    history_buffer slots;
    fota_history_rec record = {};
    if (!session_record(agent, &record, __func__, &slots)) return;
    ++record.install_defer_count;
    if (update_existing_record_in_db(&record, &slots) == FOTA_RC_SUCCESS) {
        LOG_NOTICE_BOTH("Updated install defer count:%d\n", static_cast<int>(record.install_defer_count));
        msg->result = FOTA_RC_SUCCESS;
    } else {
        LOG_ERROR("update_existing_record_in_db(), failed for record ID: %d\n",
                  static_cast<int>(record.rec_id));
        msg->result = FOTA_RC_FAILURE;
    }
}
