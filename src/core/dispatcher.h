// Hands each request to its one handler. Main thread.
#pragma once

#include "fota/request.h"

// Answers one request in place. While a side-load or a full-image installation is under way everything but
// FOTA_MSG_GET_UPGRADE_STATUS is dropped with a code of its own; an unknown event keeps the client's
// `result`. Always FOTA_RC_SUCCESS.
fota_rc fota_handle_event_message(fota_event_msg* msg);
