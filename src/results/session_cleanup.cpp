#include "results/session_cleanup.h"

#include <cstring>
#include <mutex>

#include "common/file_helpers.h"
#include "common/state_files.h"
#include "core/log.h"
#include "core/request.h"
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
    LOG_NOTICE("Clear fota registry\n");
    fota_rc result = withdraw_progress_files();
    if (path_exists(FOTA_STAGING_UPDATE_SUCCESS) || path_exists(FOTA_STAGING_UPDATE_FAILURE) ||
        remove_package != 0) {
        result |= fota_remove_a_file(FOTA_UPGRADE_PKG);
    }
    result |= fota_remove_a_file(FOTA_PKG_DETAILS);
    result |= fota_remove_a_file(FOTA_SESSION_LOCK);
    result |= fota_remove_a_file(FOTA_REVERT_MARKER);
    result |= fota_remove_a_file(FOTA_REVERT_REASON);
    result |= fota_remove_a_file(FOTA_REVERT_ERROR_CODE);
    result |= fota_remove_tracking_cookie();
    result |= static_cast<fota_rc>(dir_clean_up(FOTA_STAGING_DIR));
    // What comes back with the folder would be recorded once more.
    (void)sync_directory(FOTA_DATA_DIR);
    return result;
}

fota_rc clear_sideload_files() {
    if (fota_is_regular_file(FOTA_SIDELOAD_COOKIE) != FOTA_RC_SUCCESS) return FOTA_RC_SUCCESS;
    LOG_NOTICE("Deleting sideload temp files\n");
    fota_remove_a_file(FOTA_DECRYPT_TEMP);
    fota_remove_a_file(FOTA_SIDELOAD_DEC_OUT);
    fota_remove_a_file(FOTA_UPGRADE_PKG);
    clear_update_files(1);
    remove_planted(FOTA_SIDELOAD_TMP_DIR);
    // Last: while it exists no other request is served.
    fota_remove_a_file(FOTA_SIDELOAD_COOKIE);
    return FOTA_RC_SUCCESS;
}

fota_rc clear_sua_files() {
    (void)fota_clear_session_lock("SUA");
    if (fota_is_regular_file(FOTA_STAGING_SUA_COOKIE) == FOTA_RC_SUCCESS) {
        LOG_NOTICE("Deleting SUA temp files\n");
        clear_update_files(1);
        fota_remove_a_file(FOTA_STAGING_SUA_COOKIE);
    }
    return FOTA_RC_SUCCESS;
}

fota_rc fota_clear_session_lock(const char* agent) {
    char owner[FOTA_TEXT_SIZE];
    if (!read_first_line(FOTA_SESSION_LOCK, owner)) return FOTA_RC_SUCCESS;
    if (agent != nullptr && strcmp(owner, agent) != 0) return FOTA_RC_LOCK_NOT_AVAILABLE;
    return clear_update_files(1);
}
