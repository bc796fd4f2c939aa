// The update session: a lock file that holds its owner's agent id. One agent at a time drives an update. The
// lock is a file, so it survives a reboot. Agent ids are at most 254 characters; longer ones are cut by
// whoever reads the request.
#pragma once

#include "fota/request.h"

// Copies the owner's id into `out`. FOTA_RC_NO_SESSION when there is no lock, or an
// empty one; `out` is then untouched. Any thread.
[[nodiscard]] fota_rc fota_get_session_agent(char (&out)[FOTA_TEXT_SIZE]);

// FOTA_RC_SUCCESS when `agent` owns the session, FOTA_RC_LOCK_NOT_AVAILABLE when another does or the lock
// cannot be read for a moment, FOTA_RC_NO_SESSION when there is none. A lock that is empty is one: it belongs
// to the empty id alone. Any thread.
[[nodiscard]] fota_rc fota_check_session_owner(const char* agent);

// The same, and says in the name of the handler `function` why another agent is refused. Any thread.
[[nodiscard]] fota_rc fota_require_session_owner(const char* agent, const char* function);

// Writes the lock file for `agent`, over any lock there is: callers check first. FOTA_RC_SUCCESS or
// FOTA_RC_FAILURE. Main thread.
[[nodiscard]] fota_rc create_session_lock(const char* agent);
