#include "results/session_cleanup.h"

#include <mutex>

#include "common/file_helpers.h"
#include "common/session_lock.h"
#include "common/state_files.h"
#include "common/waiting_start.h"
#include "core/log.h"
#include "package/progress_flags.h"
#include "package/staging_tools.h"
#include "results/cookies.h"

namespace {

// A worker thread may be in the middle of a clean-up when the process ends.
std::mutex clean_up;

}  // namespace

void hold_clean_ups() {
    clean_up.lock();
}

fota_rc clear_update_files(uint32_t remove_package) {
    const std::lock_guard<std::mutex> under_way(clean_up);
    give_up_waiting_start();
    LOG_NOTICE("Clear fota registry\n");
    if (path_exists(FOTA_STAGING_UPDATE_SUCCESS) || path_exists(FOTA_STAGING_UPDATE_FAILURE)) {
        remove_package = 1;
    }
    // Without the mark, as on a full flash, what an interruption leaves stays until somebody clears it.
    (void)fota_write_uint32(FOTA_CLEAN_UP, remove_package);
    withdraw_progress_files();
    fota_rc result = FOTA_RC_SUCCESS;
    if (remove_package != 0) result |= fota_remove_a_file(FOTA_UPGRADE_PKG);
    result |= fota_remove_a_file(FOTA_PKG_DETAILS);
    result |= fota_remove_a_file(FOTA_SESSION_LOCK);
    result |= fota_remove_a_file(FOTA_REVERT_MARKER);
    result |= fota_remove_a_file(FOTA_REVERT_REASON);
    result |= fota_remove_a_file(FOTA_REVERT_ERROR_CODE);
    result |= fota_remove_tracking_cookie();
    result |= static_cast<fota_rc>(dir_clean_up(FOTA_STAGING_DIR));
    // The folder is gone for good before the mark is: what comes back with it would be recorded once more.
    (void)sync_directory(FOTA_DATA_DIR);
    (void)fota_remove_a_file(FOTA_CLEAN_UP);
    return result;
}

void finish_clean_up() {
    if (fota_is_regular_file(FOTA_CLEAN_UP) != FOTA_RC_SUCCESS) return;
    LOG_NOTICE_BOTH("A clean-up was interrupted, and is finished now\n");
    uint32_t remove_package = 0;
    (void)fota_read_str_conv_to_uint32(FOTA_CLEAN_UP, &remove_package);
    (void)clear_update_files(remove_package);
}

void clear_work_files() {
    (void)fota_remove_a_file(FOTA_DECRYPT_TEMP);
    remove_planted(FOTA_PKG_DETAILS_ENCRYPTED);
    // Beside a validated package they are whole, and go with the session.
    if (!is_dlpkg_verified()) remove_planted(FOTA_PKG_DETAILS);
}

fota_rc clear_sideload_files() {
    if (fota_is_regular_file(FOTA_SIDELOAD_COOKIE) != FOTA_RC_SUCCESS) return FOTA_RC_SUCCESS;
    LOG_NOTICE("Deleting sideload temp files\n");
    (void)fota_remove_a_file(FOTA_DECRYPT_TEMP);
    (void)fota_remove_a_file(FOTA_SIDELOAD_DEC_OUT);
    (void)fota_remove_a_file(FOTA_UPGRADE_PKG);
    (void)clear_update_files(1);
    remove_planted(FOTA_SIDELOAD_TMP_DIR);
    // Last: while it exists no other request is served.
    (void)fota_remove_a_file(FOTA_SIDELOAD_COOKIE);
    return FOTA_RC_SUCCESS;
}

fota_rc clear_sua_files() {
    (void)fota_clear_session_lock("SUA");
    if (fota_is_regular_file(FOTA_STAGING_SUA_COOKIE) == FOTA_RC_SUCCESS) {
        LOG_NOTICE("Deleting SUA temp files\n");
        (void)clear_update_files(1);
        (void)fota_remove_a_file(FOTA_STAGING_SUA_COOKIE);
    }
    return FOTA_RC_SUCCESS;
}

fota_rc fota_clear_session_lock(const char* agent) {
    if (!path_exists(FOTA_SESSION_LOCK)) return FOTA_RC_SUCCESS;
    if (agent != nullptr && fota_check_session_owner(agent) != FOTA_RC_SUCCESS) {
        return FOTA_RC_LOCK_NOT_AVAILABLE;
    }
    return clear_update_files(1);
}
