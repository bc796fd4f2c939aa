// The requests by which an agent learns how its update ended, and anyone whether the device fell back to its
// previous firmware. Each outcome is handed out once: the cookie that names it goes when
// its record is handed out to its owner (a fall-back's to anyone), or when there is no such record; an abort,
// a factory reset and a side-load that fails to start take it away too. Main thread.
#pragma once

#include "fota/request.h"

// FOTA_MSG_GET_UPDATE_STATUS and FOTA_MSG_GET_REVERT_STATUS: always FOTA_RC_SUCCESS, with the record, or with
// an empty one whose reason is "FOTA_RESULT_NO_UPGRADE".
void handle_update_status_req(fota_event_msg* msg);
void handle_revert_status_req(fota_event_msg* msg);
