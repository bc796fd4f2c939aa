#include "session/validation_request.h"

#include "common/file_helpers.h"
#include "common/session_lock.h"
#include "common/text.h"
#include "core/log.h"
#include "history/history_slots.h"
#include "package/validation.h"
#include "results/cookies.h"
#include "results/record_filling.h"
#include "results/session_cleanup.h"

void handle_pkg_verfication(fota_event_msg* msg) {
    msg->result = FOTA_RC_INVALID_PARAM;
    fota_pkg_info info = msg->payload.validate.pkg_info;
    char path[sizeof msg->payload.validate.pkg_path + 1];
    char agent[FOTA_TEXT_SIZE];
    text_copy(path, msg->payload.validate.pkg_path);
    text_copy(agent, info.agent_name);
    msg->payload.validate = {};

    if (path[0] == '\0' || agent[0] == '\0') {
        LOG_ERROR("Missing PKG path or agent ID for event:%d\n", msg->event);
        return;
    }
    msg->result = fota_require_session_owner(agent, __func__);
    if (msg->result != FOTA_RC_SUCCESS) return;
    fota_history_rec record = {};
    record.rec_id = allocate_new_record_id();
    if (record.rec_id == 0) {
        LOG_ERROR("Cannot allocate new record in DB for history\n");
        msg->result = FOTA_RC_FAILURE;
        return;
    }
    if (info.pkg_size == 0) info.pkg_size = static_cast<uint32_t>(fota_get_file_size(path));

    const uint32_t writes = history_writes();
    const fota_rc validated = unpack_and_validate_pkg(path);
    // From the id to its record, so that no worker thread takes the same one: one may have done so while the
    // package was validated.
    const auto lock = lock_history();
    history_buffer slots;
    if (history_writes() != writes) {
        if (const uint32_t id = allocate_new_record_id(&slots); id != 0) record.rec_id = id;
    }
    switch (validated) {
        case FOTA_RC_SUCCESS:
            LOG_NOTICE_BOTH("Package validation success(%s)\n", agent);
            msg->result = FOTA_RC_SUCCESS;
            record.status = FOTA_STATUS_PENDING;
            text_copy(record.reason, "Installation is pending");
            (void)fota_set_tracking_cookie(record.rec_id);
            (void)fill_record_from_pkg_info(&info, &record);
            break;
        case FOTA_RC_PKG_NOT_FOUND:
            LOG_ERROR("Update package file not found(%s - %s)\n", agent, path);
            msg->result = FOTA_RC_PKG_NOT_FOUND;
            (void)clear_update_files(1);
            return;
        case FOTA_RC_PKG_NOT_REGULAR:
            LOG_ERROR("Update package is not regular file type(%s - %s)\n", agent, path);
            msg->result = FOTA_RC_PKG_NOT_REGULAR;
            (void)clear_update_files(1);
            return;
        default:
            LOG_ERROR("Package validation failed(%s)\n", agent);
            msg->result = FOTA_RC_FAILURE;
            record.status = FOTA_STATUS_VALIDATION_FAILED;
            text_copy(record.reason, "Signature failed");
            // Before the clean-up: the record's defaults come from the staged files.
            (void)fill_record_from_pkg_info(&info, &record);
            (void)clear_update_files(1);
            break;
    }

    if (add_record_to_db(&record, &slots) == FOTA_RC_SUCCESS) {
        msg->payload.value = record.rec_id;
        LOG_NOTICE_BOTH("Added Rec ID:%d to DB\n", static_cast<int>(record.rec_id));
    } else {
        LOG_ERROR("Failed to add rec ID:%d to DB\n", static_cast<int>(record.rec_id));
    }
}
