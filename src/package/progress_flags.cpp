#include "package/progress_flags.h"

#include <sys/stat.h>

#include "common/file_helpers.h"
#include "common/state_files.h"
#include "core/log.h"
#include "package/staging_tools.h"

namespace {

constexpr const char* PROGRESS_FLAGS[] = {FOTA_STAGING_UPDATE_DLPKG_VERIFIED, FOTA_STAGING_UPDATE_PRE_INSTALL,
                                          FOTA_STAGING_UPDATE_PRE_FULL_FOTA_INSTALL};

constexpr const char* OTHER_CLAIMS[] = {
    FOTA_STAGING_UPDATE_SUCCESS,    FOTA_STAGING_UPDATE_FAILURE,    FOTA_STAGING_UPDATE_FAILURE_REASON,
    FOTA_STAGING_PRI_LINUX_SUCCESS, FOTA_STAGING_PRI_LINUX_FAILURE, FOTA_STAGING_PRI_MODEM_SUCCESS,
    FOTA_STAGING_PRI_MODEM_FAILURE, FOTA_STAGING_SUA_COOKIE,        FOTA_STAGING_LPM,
    FOTA_STAGING_SHUTDOWN};

// A folder of such a name would count too.
void withdraw_claim(const char* path) {
    struct stat info = {};
    if (lstat(path, &info) != 0) return;
    LOG_ERROR("The package brings along what is not its to say:%s\n", path);
    remove_planted(path);
}

}  // namespace

fota_rc set_progress_files(int stage) {
    switch (stage) {
        case FOTA_STAGE_PKG_VERIFIED:
            if (fota_create_a_file(FOTA_STAGING_UPDATE_DLPKG_VERIFIED, nullptr, 0) != FOTA_RC_SUCCESS) break;
            LOG_NOTICE_BOTH("Set FOTA_STAGING_UPDATE_DLPKG_VERIFIED flag\n");
            return FOTA_RC_SUCCESS;
        case FOTA_STAGE_PRE_INSTALL:
            if (path_exists(FOTA_STAGING_FULL_FOTA)) {
                (void)fota_create_a_file(FOTA_FULL_FOTA_WAIT, nullptr, 0);
                if (fota_create_a_file(FOTA_STAGING_UPDATE_PRE_FULL_FOTA_INSTALL, nullptr, 0) !=
                    FOTA_RC_SUCCESS) {
                    break;
                }
                LOG_NOTICE_BOTH("Set FOTA_STAGING_UPDATE_PRE_FULL_FOTA_INSTALL flag\n");
            } else {
                if (fota_create_a_file(FOTA_STAGING_UPDATE_PRE_INSTALL, nullptr, 0) != FOTA_RC_SUCCESS) break;
                LOG_NOTICE_BOTH("Set FOTA_STAGING_UPDATE_PRE_INSTALL flag\n");
            }
            return FOTA_RC_SUCCESS;
        default:
            LOG_ERROR("SHOULD NOT GET HERE\n");
            break;
    }
    return FOTA_RC_FAILURE;
}

void withdraw_progress_files() {
    if (!is_link(FOTA_STAGING_DIR)) {
        for (const char* flag : PROGRESS_FLAGS) (void)fota_remove_a_file(flag);
    }
    (void)fota_remove_a_file(FOTA_FULL_FOTA_WAIT);
}

void begin_full_fota() {
    (void)fota_remove_a_file(FOTA_FULL_FOTA_WAIT);
}

void take_back_full_fota() {
    if (fota_is_regular_file(FOTA_FULL_FOTA_WAIT) != FOTA_RC_SUCCESS) return;
    LOG_NOTICE_BOTH("A full image was not begun, and its start is taken back\n");
    (void)fota_remove_a_file(FOTA_STAGING_UPDATE_PRE_FULL_FOTA_INSTALL);
    (void)fota_remove_a_file(FOTA_FULL_FOTA_WAIT);
}

void withdraw_claims_of_package() {
    for (const char* flag : PROGRESS_FLAGS) withdraw_claim(flag);
    for (const char* claim : OTHER_CLAIMS) withdraw_claim(claim);
}

bool is_dlpkg_verified() {
    if (!can_open_for_reading(FOTA_STAGING_UPDATE_DLPKG_VERIFIED)) return false;
    LOG_INFO("DLKPG verified\n");
    return true;
}

fota_rc is_pre_install_flag_set() {
    return can_open_for_reading(FOTA_STAGING_UPDATE_PRE_INSTALL) ||
                   can_open_for_reading(FOTA_STAGING_UPDATE_PRE_FULL_FOTA_INSTALL)
               ? FOTA_RC_SUCCESS
               : FOTA_RC_FAILURE;
}
