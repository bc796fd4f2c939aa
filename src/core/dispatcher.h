// Hands each request to its one handler. Main thread.
#pragma once

#include "fota/request.h"

// Answers one request in place. While a side-load or a full-image installation is under way everything but
// FOTA_MSG_GET_UPGRADE_STATUS is dropped with a code of its own, unknown events too; the side-load's when
// both are. Else an unknown event keeps the client's `result`. FOTA_MSG_GET_UPGRADE_STATUS answers the last
// status announced, but 1 instead of 0 while a full image's flag is set, as it is from before its wait
// begins. FOTA_MSG_STOP_IN_RECOVERY answers FOTA_RC_SUCCESS also when its flag cannot be made or removed.
// Always FOTA_RC_SUCCESS.
fota_rc fota_handle_event_message(fota_event_msg* msg);
