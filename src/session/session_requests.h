// The requests by which an agent that owns the session installs, aborts, reads or defers its validated
// update. Main thread.
#pragma once

#include "fota/request.h"

// FOTA_MSG_START_INSTALLATION: FOTA_RC_SUCCESS; FOTA_RC_LOCK_NOT_AVAILABLE or FOTA_RC_NO_SESSION for another
// agent; FOTA_RC_INSTALL_START_FAILED, see start_installation for what it leaves. Also called by the
// pre-install wait threads with a request of their own.
void handle_installation_kickoff(fota_event_msg* msg);

// FOTA_MSG_ABORT_CURRENT_SESS: records the agent's outcome and ends the session. FOTA_RC_SUCCESS;
// FOTA_RC_FAILURE when the record could not be written, the session is over all the same;
// FOTA_RC_INVALID_PARAM, nothing done: not the owner, or the owner while nothing is tracked, before a
// validation.
void handle_abort_current_session(fota_event_msg* msg);

// FOTA_MSG_GET_CURRENT_SESS_RECORD and FOTA_MSG_INCR_INSTALL_DEFER_COUNT: FOTA_RC_SUCCESS;
// FOTA_RC_INVALID_PARAM: not the owner, nothing tracked, or no such record; FOTA_RC_FAILURE: the record could
// not be written.
void handle_get_current_sess_record(fota_event_msg* msg);
void handle_incr_install_defer_count(fota_event_msg* msg);
