#include "install/installation.h"

#include <cstring>
#include <ctime>

#include "common/command.h"
#include "common/file_helpers.h"
#include "common/state_files.h"
#include "common/text.h"
#include "common/waiting_start.h"
#include "common/wake_lock.h"
#include "core/daemon_state.h"
#include "core/log.h"
#include "core/msgbus_client.h"
#include "core/runtime.h"
#include "dsm.h"
#include "fota/request.h"
#include "history/history_slots.h"
#include "install/full_fota.h"
#include "install/staging_results.h"
#include "package/progress_flags.h"
#include "results/cookies.h"
#include "results/result_processing.h"
#include "results/session_cleanup.h"

namespace {

constexpr int PROGRAMMING_RUN_LEVEL = 5;

struct boot_preference_row {
    uint32_t preference;
    const char* name;
    const char* removed[2];  // null: nothing (more) to remove
    const char* created;     // null: no marker
};

constexpr boot_preference_row BOOT_PREFERENCES[] = {
    {FOTA_BOOT_ONLINE, "online", {FOTA_STAGING_SHUTDOWN, FOTA_STAGING_LPM}, nullptr},
    {FOTA_BOOT_SHUTDOWN, "shutdown", {FOTA_STAGING_LPM, nullptr}, FOTA_STAGING_SHUTDOWN},
    {FOTA_BOOT_LPM, "lpm", {FOTA_STAGING_SHUTDOWN, nullptr}, FOTA_STAGING_LPM},
};

// `function` is the caller's name for the log.
void enter_programming_run_level(const char* function) {
    const int rc = dsm_set_persistent_mode(PROGRAMMING_RUN_LEVEL);
    if (rc == DSM_SUCCESS) return;
    LOG_ERROR_AS(function, "dsm_set_persistent_mode(5) failed rc=%d, trying alternate method\n", rc);
    (void)run_command("telinit 5");
}

// There is nothing to be installed, by a start that waits neither.
fota_rc refuse_start(const char* function, const char* reason) {
    LOG_ERROR_AS(function, "%s\n", reason);
    give_up_waiting_start();
    (void)fota_wakelock_release();
    return FOTA_RC_FAILURE;
}

// A worker thread could not be started: the update is over, and recorded at once.
fota_rc start_failed() {
    (void)set_staging_update_failure(FOTA_STATUS_UNDEFINED_ERROR);
    check_and_update_fota_results();
    clear_sideload_files();
    (void)fota_remove_a_file(FOTA_RESULT_PROCESSED);
    (void)fota_wakelock_release();
    return FOTA_RC_FAILURE;
}

}  // namespace

fota_rc start_installation(uint32_t boot_preference, uint32_t wait_secs) {
    LOG_NOTICE("boot pref:%d\n", static_cast<int>(boot_preference));
    (void)create_boot_preference_cookie(boot_preference);
    (void)fota_wakelock_acquire();
    if (!path_exists(FOTA_STAGING_DIR)) return refuse_start(__func__, "Staging directory not present");
    if (!is_dlpkg_verified()) return refuse_start(__func__, "Package not validated");
    const uint32_t start = begin_start();
    fota_broadcast_upgrade_status(FOTA_UPGRADE_STARTED);
    fota_ops_verify_installation_date();
    (void)set_progress_files(FOTA_STAGE_PRE_INSTALL);
    LOG_NOTICE_BOTH("Enter programming run level(5)\n");

    if (path_exists(FOTA_STAGING_UPDATE_PRE_FULL_FOTA_INSTALL)) {
        if (!take_start(start, __func__)) return FOTA_RC_FAILURE;
        // A caller that is itself a worker thread installs on its own.
        if (*fota_worker_thread() != 0) {
            start_full_fota_installation();
            return FOTA_RC_SUCCESS;
        }
        LOG_NOTICE_BOTH("Startin FULL FOTA thread\n");
        const int error = start_thread(fota_worker_thread(), full_fota_start);
        if (error != 0) {
            LOG_ERROR("pthread_create() failed errno:%d\n", error);
            return start_failed();
        }
        return FOTA_RC_SUCCESS;
    }

    if (path_exists(FOTA_STAGING_PRE_INSTALL_SCRIPT)) (void)run_script(FOTA_STAGING_PRE_INSTALL_SCRIPT);
    if (wait_secs == 0) {
        const auto until_switched = lock_starts();
        if (!take_start(start, __func__)) return FOTA_RC_FAILURE;
        enter_programming_run_level(__func__);
        return FOTA_RC_SUCCESS;
    }
    LOG_NOTICE_BOTH("Starting FOTA install wait thread\n");
    fota_set_install_wait_secs(wait_secs);
    const int error = start_thread(fota_install_wait_thread(), install_wait);
    if (error != 0) {
        LOG_ERROR("pthread_create() failed for wait errno:%d\n", error);
        (void)take_start(start, __func__);
        return start_failed();
    }
    return FOTA_RC_SUCCESS;
}

fota_rc create_boot_preference_cookie(uint32_t boot_preference) {
    for (const boot_preference_row& row : BOOT_PREFERENCES) {
        if (row.preference != boot_preference) continue;
        LOG_NOTICE_BOTH("fota boot pref: %s\n", row.name);
        for (const char* path : row.removed) {
            if (path != nullptr && fota_remove_a_file(path) != FOTA_RC_SUCCESS) {
                LOG_ERROR("File delete failed: %s\n", path);
                return FOTA_RC_FAILURE;
            }
        }
        if (row.created != nullptr && fota_create_a_file(row.created, nullptr, 0) != FOTA_RC_SUCCESS) {
            LOG_ERROR("File create failed: %s\n", row.created);
            return FOTA_RC_FAILURE;
        }
        return FOTA_RC_SUCCESS;
    }
    LOG_ERROR("Invalid boot-up preference:%d\n", static_cast<int>(boot_preference));
    return FOTA_RC_INVALID_PARAM;
}

void* install_wait(void*) {
    const uint32_t start = waiting_start();
    uint32_t left = fota_get_install_wait_secs();
    LOG_NOTICE("Started wait: %d secs\n", static_cast<int>(left));
    fota_broadcast_backup_before_update(static_cast<int32_t>(left));
    while (left > 0 && fota_is_running() != 0 && waiting_start() == start) {
        wait_seconds(1);
        --left;
    }
    LOG_NOTICE("time elapsed:%d\n", static_cast<int>(left));
    const auto until_switched = lock_starts();
    if (take_start(start, __func__)) {
        enter_programming_run_level(__func__);
        LOG_NOTICE_BOTH("Installation started\n");
    }
    LOG_NOTICE("Exit\n");
    return nullptr;
}

void fota_ops_verify_installation_date() {
    uint32_t id = 0;
    if (fota_get_tracking_cookie(&id) != FOTA_RC_SUCCESS) {
        LOG_ERROR("No active update session found!!\n");
        return;
    }
    if (id == 0) {
        LOG_ERROR("Invalid record ID inside tracking cookie (%d)\n", static_cast<int>(id));
        return;
    }
    const auto lock = lock_history();
    history_buffer slots;
    fota_history_rec record = {};
    if (find_record_by_id(id, &record, &slots) != FOTA_RC_SUCCESS) {
        LOG_ERROR("No record found with ID: %d\n", static_cast<int>(id));
        return;
    }
    char stored[FOTA_TEXT_SIZE];
    char valid[FOTA_TEXT_SIZE];
    text_copy(stored, record.update_date);
    if (cmp_date_str(stored, valid) == FOTA_RC_SUCCESS) {
        LOG_NOTICE("update_date is latest\n");
        return;
    }
    text_copy(record.update_date, valid);
    if (update_existing_record_in_db(&record, &slots) == FOTA_RC_SUCCESS) {
        LOG_NOTICE("update_date set to=[%s]\n", valid);
    } else {
        LOG_ERROR("update_existing_record_in_db(), failed for record ID: %d\n",
                  static_cast<int>(record.rec_id));
    }
}

fota_rc cmp_date_str(const char (&date)[FOTA_TEXT_SIZE], char (&out)[FOTA_TEXT_SIZE]) {
    memset(out, 0, FOTA_TEXT_SIZE);
    tm given = {};
    strptime(date, FOTA_DATE_FORMAT, &given);
    tm now = {};
    if (!local_time_now(&now)) {
        text_copy(out, date);
        return FOTA_RC_SUCCESS;
    }
    const time_t given_epoch = local_time_to_epoch(&given);
    const time_t now_epoch = local_time_to_epoch(&now);
    LOG_DEBUG("inEpoch[%lu] outEpoch[%lu]\n", static_cast<unsigned long>(given_epoch),
              static_cast<unsigned long>(now_epoch));
    if (given_epoch < now_epoch) {
        strftime(out, FOTA_TEXT_SIZE, FOTA_DATE_FORMAT, &now);
        return FOTA_RC_FAILURE;
    }
    text_copy(out, date);
    return FOTA_RC_SUCCESS;
}
