#include "session/lock_requests.h"

#include "common/session_lock.h"
#include "common/text.h"
#include "core/log.h"
#include "results/session_cleanup.h"

namespace {

const char* outcome_word(fota_rc rc) {
    return rc == FOTA_RC_SUCCESS ? "success" : "failed";
}

}  // namespace

void handle_session_event(fota_event_msg* msg) {
    char agent[FOTA_TEXT_SIZE];
    text_copy(agent, msg->payload.agent_id);
    msg->result = FOTA_RC_INVALID_PARAM;

    if (msg->event == FOTA_MSG_CREATE_SESSION_LOCK) {
        LOG_NOTICE("FOTA_MSG_CREATE_SESSION_LOCK - id=%s\n", agent);
        msg->result = fota_check_session_owner(agent);
        if (msg->result == FOTA_RC_LOCK_NOT_AVAILABLE) {
            LOG_NOTICE("Lock not available\n");
        } else if (msg->result == FOTA_RC_NO_SESSION) {
            msg->result = create_session_lock(agent);
            LOG_NOTICE("Lock create %s\n", outcome_word(msg->result));
        } else {
            LOG_NOTICE("Lock with same ID exists\n");
        }
    } else if (msg->event == FOTA_MSG_CLEAR_SESSION_LOCK) {
        LOG_NOTICE("FOTA_MSG_CLEAR_SESSION_LOCK - id=%s\n", agent);
        msg->result = fota_clear_session_lock(agent);
        LOG_NOTICE("Lock clear %s (%d)\n", outcome_word(msg->result), static_cast<int>(msg->result));
    }
}
