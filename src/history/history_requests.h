// The requests that read and change the update history. Main thread.
#pragma once

#include "fota/request.h"

// FOTA_MSG_GET_NO_OF_RECORDS: always FOTA_RC_SUCCESS; no history counts as an empty one.
void handle_get_record_count(fota_event_msg* msg);

// FOTA_MSG_GET_RECORD_BY_INDEX: `value` is the position; codes of get_record_by_index.
void handle_get_record_by_index(fota_event_msg* msg);

// FOTA_MSG_GET_RECORD_BY_ID: FOTA_RC_SUCCESS; FOTA_RC_INVALID_PARAM for id 0; FOTA_RC_RECORD_NOT_FOUND.
void handle_get_record_by_id(fota_event_msg* msg);

// FOTA_MSG_MODIFY_RECORD_BY_ID: replaces the record of this id, but for the daemon's own outcome: `status`
// and `reason` stay, and so does the stored estimate when the client gives none. FOTA_RC_SUCCESS, with the
// record as stored; FOTA_RC_INVALID_PARAM: id 0 or not stored; FOTA_RC_FAILURE: not written.
void handle_modify_record_by_id(fota_event_msg* msg);

// FOTA_MSG_GET_LAST_SUCCESS_REC: always FOTA_RC_SUCCESS; without such a record only `status` is set, to 0.
void handle_get_last_success_rec(fota_event_msg* msg);

// FOTA_MSG_CFG_GET_CURRENT_RECORD: the newest configuration record, or FOTA_RC_RECORD_NOT_FOUND.
void handle_cfg_get_current_record(fota_event_msg* msg);

// FOTA_MSG_CFG_SAVE_NEW_RECORD: the first one ever saved is the factory configuration. FOTA_RC_SUCCESS;
// FOTA_RC_INVALID_PARAM: a text is missing; FOTA_RC_FAILURE: not stored, or stored but for the note that it
// is the factory's.
void handle_cfg_save_new_record(fota_event_msg* msg);

// FOTA_MSG_GET_UPDATE_CHECK_TIME: always FOTA_RC_SUCCESS, with an empty text when there is none yet.
// FOTA_MSG_SET_UPDATE_CHECK_TIME: codes of save_update_check_time.
void handle_get_update_check_time(fota_event_msg* msg);
void handle_set_update_check_time(fota_event_msg* msg);
