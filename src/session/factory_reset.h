// The request that says that the device goes back to its factory settings. Main thread.
#pragma once

#include "fota/request.h"

// FOTA_MSG_FACTORY_RESET: ends whatever session is open and marks a pending update as ended by it.
// FOTA_RC_SUCCESS; FOTA_RC_FAILURE: an installation has been started, nothing is changed.
void handle_fota_factory_reset(fota_event_msg* msg);
