#include "common/session_lock.h"

#include <cstring>

#include "common/file_helpers.h"
#include "common/state_files.h"
#include "common/text.h"
#include "core/log.h"
#include "fota/request.h"
#include "vexa_dbg.h"

fota_rc fota_get_session_agent(char (&out)[FOTA_TEXT_SIZE]) {
    char owner[FOTA_TEXT_SIZE];
    if (!read_first_line(FOTA_SESSION_LOCK, owner) || owner[0] == '\0') return FOTA_RC_NO_SESSION;
    text_copy(out, owner);
    return FOTA_RC_SUCCESS;
}

fota_rc fota_check_session_owner(const char* agent) {
    vexa_dbg_context(nullptr, agent, 0);
    char owner[FOTA_TEXT_SIZE];
    if (!read_first_line(FOTA_SESSION_LOCK, owner)) {
        // One that cannot be read for a moment is somebody's all the same.
        return path_exists(FOTA_SESSION_LOCK) ? FOTA_RC_LOCK_NOT_AVAILABLE : FOTA_RC_NO_SESSION;
    }
    return strcmp(owner, agent) == 0 ? FOTA_RC_SUCCESS : FOTA_RC_LOCK_NOT_AVAILABLE;
}

fota_rc fota_require_session_owner(const char* agent, const char* function) {
    const fota_rc rc = fota_check_session_owner(agent);
    if (rc == FOTA_RC_LOCK_NOT_AVAILABLE) {
        LOG_ERROR_AS(function, "Invalid Agent ID (%s), session belongs to some other agent\n", agent);
    } else if (rc == FOTA_RC_NO_SESSION) {
        LOG_ERROR_AS(function, "Session doesn't exists with agent ID:%s\n", agent);
    }
    return rc;
}

fota_rc create_session_lock(const char* agent) {
    LOG_INFO("agent:%s\n", agent);
    if (fota_create_a_file(FOTA_SESSION_LOCK, agent, strlen(agent)) == FOTA_RC_SUCCESS)
        return FOTA_RC_SUCCESS;
    LOG_ERROR("Cannot create lock file for agent:%s\n", agent);
    return FOTA_RC_FAILURE;
}
