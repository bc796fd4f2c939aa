#include "session/version_requests.h"

#include "common/session_lock.h"
#include "common/text.h"
#include "core/log.h"
#include "results/cookies.h"
#include "results/version_strings.h"

void handle_read_version_from_package(fota_event_msg* msg) {
    char agent[FOTA_TEXT_SIZE];
    text_copy(agent, msg->payload.agent_id);
    if (fota_check_session_owner(agent) != FOTA_RC_SUCCESS) {
        LOG_ERROR("Invalid agent ID: %s\n", agent);
        msg->result = FOTA_RC_INVALID_PARAM;
        return;
    }
    char version[FOTA_TEXT_SIZE] = {};
    switch (msg->event) {
        case FOTA_MSG_GET_SRC_PKG_VERSION:
            if (fota_get_src_ver(version) != FOTA_RC_SUCCESS) {
                LOG_ERROR("src pkg version not found!\n");
                msg->result = FOTA_RC_FILE_NOT_FOUND;
                return;
            }
            LOG_NOTICE("source ver=[%s]\n", version);
            break;
        case FOTA_MSG_GET_TGT_PKG_VERSION:
            if (fota_get_target_ver(version) != FOTA_RC_SUCCESS) {
                LOG_ERROR("tgt pkg version not found!\n");
                msg->result = FOTA_RC_FILE_NOT_FOUND;
                return;
            }
            LOG_NOTICE("target ver=[%s]\n", version);
            break;
        default:
            LOG_ERROR("invalid version type=[%d]!\n", msg->event);
            msg->result = FOTA_RC_INVALID_PARAM;
            return;
    }
    text_copy(msg->payload.text, version);
    msg->result = FOTA_RC_SUCCESS;
}

void handle_get_kernel_version(fota_event_msg* msg) {
    LOG_NOTICE("+++\n");
    msg->result = get_kernel_version(msg->payload.text);
    LOG_NOTICE("+++++End\n");
}
