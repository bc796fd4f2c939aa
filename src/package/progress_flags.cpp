#include "package/progress_flags.h"

#include "common/file_helpers.h"
#include "common/state_files.h"
#include "core/log.h"

fota_rc set_progress_files(int stage) {
    switch (stage) {
        case FOTA_STAGE_PKG_VERIFIED:
            if (fota_create_a_file(FOTA_STAGING_UPDATE_DLPKG_VERIFIED, nullptr, 0) != FOTA_RC_SUCCESS) break;
            LOG_NOTICE_BOTH("Set FOTA_STAGING_UPDATE_DLPKG_VERIFIED flag\n");
            return FOTA_RC_SUCCESS;
        case FOTA_STAGE_PRE_INSTALL:
            if (path_exists(FOTA_STAGING_FULL_FOTA)) {
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

fota_rc withdraw_progress_files() {
    return fota_remove_a_file(FOTA_STAGING_UPDATE_DLPKG_VERIFIED) |
           fota_remove_a_file(FOTA_STAGING_UPDATE_PRE_INSTALL) |
           fota_remove_a_file(FOTA_STAGING_UPDATE_PRE_FULL_FOTA_INSTALL);
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
