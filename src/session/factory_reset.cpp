#include "session/factory_reset.h"

#include "common/file_helpers.h"
#include "common/state_files.h"
#include "core/log.h"
#include "history/history_slots.h"
#include "package/progress_flags.h"
#include "results/cookies.h"
#include "results/session_cleanup.h"

void handle_fota_factory_reset(fota_event_msg* msg) {
    msg->result = FOTA_RC_SUCCESS;
    if (is_pre_install_flag_set() == FOTA_RC_SUCCESS) {
        LOG_NOTICE_BOTH("Ignore factory reset, installation has already started\n");
        msg->result = FOTA_RC_FAILURE;
        return;
    }
    uint32_t id = 0;
    if (fota_get_tracking_cookie(&id) == FOTA_RC_SUCCESS && id != 0) {
        LOG_NOTICE_BOTH("Pending update detected with rec:%u, updating history!!\n", id);
        (void)copy_result_into_db(FOTA_STATUS_UNDEFINED_ERROR, 0, 0, "Factory reset", id);
    }
    (void)clear_update_files(1);
    (void)fota_remove_a_file(FOTA_RESULT_PROCESSED);
    clear_sideload_files();
    LOG_NOTICE_BOTH("Factory reset processing complete\n");
}
