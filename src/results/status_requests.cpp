#include "results/status_requests.h"

#include <cstring>

#include "common/file_helpers.h"
#include "common/state_files.h"
#include "common/text.h"
#include "core/log.h"
#include "history/history_slots.h"

namespace {

// Answers the record that `cookie` names. `agent`, null for anyone, is the only one who gets it. The cookie
// goes once its record is handed out, or when there is no such record. `function` is the caller's name for
// the log.
void answer_once(fota_event_msg* msg, const char* cookie, const char* agent, const char* function) {
    fota_history_rec* answer = &msg->payload.record;
    *answer = {};
    text_copy(answer->reason, "FOTA_RESULT_NO_UPGRADE");
    msg->result = FOTA_RC_SUCCESS;

    uint32_t id = 0;
    if (fota_read_str_conv_to_uint32(cookie, &id) != FOTA_RC_SUCCESS) {
        LOG_NOTICE_AS(function, "No update happened\n");
        return;
    }
    fota_history_rec record = {};
    const fota_rc found = id != 0 ? find_record_by_id(id, &record) : fota_rc{FOTA_RC_RECORD_NOT_FOUND};
    if (id == 0) {
        LOG_ERROR_AS(function, "Record ID missing in result cookie\n");
    } else if (found == FOTA_RC_RECORD_NOT_FOUND || found == FOTA_RC_FILE_NOT_FOUND) {
        LOG_ERROR_AS(function, "Result cookie record ID not found in DB\n");
    } else if (found != FOTA_RC_SUCCESS) {
        LOG_ERROR_AS(function, "Result cookie record ID=[%u] cannot be looked up now\n", id);
        return;
    } else if (agent != nullptr &&
               strncmp(agent, record.pkg_info.agent_name, sizeof record.pkg_info.agent_name) != 0) {
        LOG_NOTICE_AS(function, "Update detected but agent doesn't match\n");
        return;
    } else {
        LOG_NOTICE_AS(function, "Found update status\n");
        *answer = record;
    }
    (void)fota_remove_a_file(cookie);
}

}  // namespace

void handle_update_status_req(fota_event_msg* msg) {
    char agent[FOTA_TEXT_SIZE];
    text_copy(agent, msg->payload.agent_id);
    answer_once(msg, FOTA_RESULT_PROCESSED, agent, __func__);
}

void handle_revert_status_req(fota_event_msg* msg) {
    answer_once(msg, FOTA_REVERT_PROCESSED, nullptr, __func__);
}
