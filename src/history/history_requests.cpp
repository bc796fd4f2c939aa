#include "history/history_requests.h"

#include <cstring>

#include "common/file_helpers.h"
#include "common/state_files.h"
#include "common/text.h"
#include "core/log.h"
#include "history/history_slots.h"
#include "results/cookies.h"
#include "results/update_estimate.h"

void handle_get_record_count(fota_event_msg* msg) {
    (void)get_record_count(&msg->payload.record_count);
    msg->result = FOTA_RC_SUCCESS;
    LOG_NOTICE("Record count=[%u], list=[%s]\n", msg->payload.record_count.count,
               msg->payload.record_count.list);
}

void handle_get_record_by_index(fota_event_msg* msg) {
    uint32_t factory_cfg_id = 0;
    uint32_t pending_id = 0;
    (void)fota_read_str_conv_to_uint32(FOTA_FACTORY_CFG_REC, &factory_cfg_id);
    (void)fota_get_tracking_cookie(&pending_id);
    msg->result = get_record_by_index(&msg->payload.record, msg->payload.value, factory_cfg_id, pending_id);
}

void handle_get_record_by_id(fota_event_msg* msg) {
    msg->result = FOTA_RC_INVALID_PARAM;
    const uint32_t id = msg->payload.record.rec_id;
    if (id == 0) {
        LOG_ERROR("Invalid record ID specified (%d)\n", static_cast<int>(id));
        return;
    }
    fota_history_rec record = {};
    if (find_record_by_id(id, &record) != FOTA_RC_SUCCESS) {
        LOG_ERROR("No record found with ID: %d\n", static_cast<int>(id));
        msg->result = FOTA_RC_RECORD_NOT_FOUND;
        return;
    }
    msg->payload.record = record;
    msg->result = FOTA_RC_SUCCESS;
}

void handle_modify_record_by_id(fota_event_msg* msg) {
    msg->result = FOTA_RC_INVALID_PARAM;
    fota_history_rec* record = &msg->payload.record;
    if (record->rec_id == 0) {
        LOG_ERROR("Invalid record ID specified (%d)\n", static_cast<int>(record->rec_id));
        return;
    }
    const auto lock = lock_history();
    history_buffer slots;
    fota_history_rec stored = {};
    if (find_record_by_id(record->rec_id, &stored, &slots) != FOTA_RC_SUCCESS) {
        LOG_ERROR("No record found with ID: %d\n", static_cast<int>(record->rec_id));
        return;
    }
    record->status = stored.status;
    memcpy(record->reason, stored.reason, sizeof record->reason);
    if (record->pkg_info.est_update_time == 0) {
        record->pkg_info.est_update_time = stored.pkg_info.est_update_time;
    }
    if (update_existing_record_in_db(record, &slots) != FOTA_RC_SUCCESS) {
        LOG_ERROR("update_existing_record_in_db(), failed for record ID: %d\n",
                  static_cast<int>(record->rec_id));
        msg->result = FOTA_RC_FAILURE;
        return;
    }
    char agent[FOTA_TEXT_SIZE];
    text_copy(agent, record->pkg_info.agent_name);
    (void)fota_ops_set_est_update_time(agent, record->rec_id, record->pkg_info.est_update_time);
    msg->result = FOTA_RC_SUCCESS;
}

void handle_get_last_success_rec(fota_event_msg* msg) {
    msg->result = FOTA_RC_SUCCESS;
    if (get_last_success_record(&msg->payload.record) != FOTA_RC_SUCCESS) msg->payload.record.status = 0;
}

void handle_cfg_get_current_record(fota_event_msg* msg) {
    msg->result = get_latest_cfg_record(&msg->payload.record);
}

void handle_cfg_save_new_record(fota_event_msg* msg) {
    msg->result = FOTA_RC_INVALID_PARAM;
    const fota_history_rec* given = &msg->payload.record;
    if (given->update_date[0] == '\0') {
        LOG_ERROR("Invalid update_date \n");
        return;
    }
    if (given->pkg_info.pkg_ver[0] == '\0') {
        LOG_ERROR("Invalid pkg_ver\n");
        return;
    }
    if (given->pkg_info.pkg_description[0] == '\0') {
        LOG_ERROR("Invalid device firmware version\n");
        return;
    }

    msg->result = FOTA_RC_FAILURE;
    const auto lock = lock_history();
    history_buffer slots;
    fota_history_rec record = {};
    record.rec_type = FOTA_REC_FACTORY_CFG;
    record.rec_id = allocate_new_record_id(&slots);
    if (record.rec_id == 0) {
        LOG_ERROR("Cannot allocate new record in DB for history\n");
        return;
    }
    text_copy(record.update_date, given->update_date);
    text_copy(record.pkg_info.pkg_ver, given->pkg_info.pkg_ver);
    text_copy(record.pkg_info.pkg_description, given->pkg_info.pkg_description);
    if (add_record_to_db(&record, &slots) != FOTA_RC_SUCCESS) {
        LOG_ERROR("Failed to add rec ID:%d to DB\n", static_cast<int>(record.rec_id));
        return;
    }
    if (fota_is_regular_file(FOTA_FACTORY_CFG_REC) != FOTA_RC_SUCCESS) {
        if (fota_write_uint32(FOTA_FACTORY_CFG_REC, record.rec_id) != FOTA_RC_SUCCESS) {
            LOG_ERROR("Failed to save factory cfg record ID:%u\n", record.rec_id);
            return;
        }
        LOG_NOTICE("Saved factory default cfg record ID:%d\n", static_cast<int>(record.rec_id));
    }
    msg->result = FOTA_RC_SUCCESS;
}

void handle_get_update_check_time(fota_event_msg* msg) {
    (void)fota_read_str_from_file(FOTA_UPDATE_CHECK, msg->payload.text);
    msg->result = FOTA_RC_SUCCESS;
}

void handle_set_update_check_time(fota_event_msg* msg) {
    char text[FOTA_PAYLOAD_SIZE + 1];
    text_copy(text, sizeof text, reinterpret_cast<const char*>(msg->payload.bytes), FOTA_PAYLOAD_SIZE);
    msg->result = save_update_check_time(text);
}
