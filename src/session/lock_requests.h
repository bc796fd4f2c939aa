// The requests that take and release the update session. Main thread.
#pragma once

#include "fota/request.h"

// FOTA_MSG_CREATE_SESSION_LOCK: FOTA_RC_SUCCESS, also for the agent that holds it already;
// FOTA_RC_LOCK_NOT_AVAILABLE; FOTA_RC_FAILURE when the lock cannot be written, as on a full flash: there is
// then none. FOTA_MSG_CLEAR_SESSION_LOCK: results of fota_clear_session_lock; FOTA_RC_SUCCESS without a lock.
// Clearing throws the session's package away, and a start that waits is given up.
void handle_session_event(fota_event_msg* msg);
