// The requests that take and release the update session. Main thread.
#pragma once

#include "core/request.h"

// FOTA_MSG_CREATE_SESSION_LOCK: FOTA_RC_SUCCESS, also for the agent that holds it already;
// FOTA_RC_LOCK_NOT_AVAILABLE. FOTA_MSG_CLEAR_SESSION_LOCK: results of fota_clear_session_lock. Clearing
// throws the session's package away.
void handle_session_event(fota_event_msg* msg);
