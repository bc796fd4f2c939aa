#include "install/full_fota.h"

#include "common/command.h"
#include "common/file_helpers.h"
#include "common/state_files.h"
#include "common/wake_lock.h"
#include "core/log.h"
#include "core/msgbus_client.h"
#include "dsm.h"
#include "fota/history_record.h"
#include "install/staging_results.h"
#include "package/progress_flags.h"
#include "results/result_processing.h"
#include "results/session_cleanup.h"

namespace {

// Turns what the staging directory says into the recorded outcome, and ends the session.
void record_failure() {
    (void)fota_remove_a_file(FOTA_STAGING_UPDATE_PRE_FULL_FOTA_INSTALL);
    check_and_update_fota_results();
    clear_sideload_files();
    (void)fota_wakelock_release();
}

}  // namespace

void* full_fota_start(void*) {
    LOG_NOTICE_BOTH("Full FOTA start thread started\n");
    start_full_fota_installation();
    return nullptr;
}

fota_rc start_full_fota_installation() {
    if (!path_exists(FOTA_STAGING_FULL_FOTA_SCRIPT)) {
        LOG_ERROR("full fota upgrade script is not found in the package. So clearing of it's data.\n");
        (void)set_staging_update_failure(FOTA_STATUS_UNDEFINED_ERROR);
        record_failure();
        return FOTA_RC_SUCCESS;
    }
    // A package without this script only makes the shell say so.
    (void)run_script(FOTA_STAGING_PRE_INSTALL_SCRIPT);
    LOG_NOTICE("started executing full fota script:%s\n", FOTA_STAGING_FULL_FOTA_SCRIPT);
    begin_full_fota();
    const int exit_code = run_script(FOTA_STAGING_FULL_FOTA_SCRIPT);
    if (exit_code == 0) {
        LOG_NOTICE_BOTH("full fota upgraded successfully, Going to reset for upgrading PRI configurations\n");
    } else {
        LOG_NOTICE("%s\n", FOTA_STAGING_FULL_FOTA_SCRIPT);
        LOG_ERROR("Failed to upgrade the device with full fota, error code:%d\n", exit_code);
        record_failure();
    }
    fota_broadcast_upgrade_status(FOTA_UPGRADE_RESETTING);
    const int rc = dsm_reset_device(1);
    if (rc != DSM_SUCCESS) {
        LOG_ERROR("dsm_reset_device(1) failed rc=%d, trying alternate method\n", rc);
        (void)run_command("telinit 6");
    }
    return FOTA_RC_SUCCESS;
}
