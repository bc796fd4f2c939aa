#include "package/validation.h"

#include <sys/stat.h>

#include <cerrno>

#include "common/file_helpers.h"
#include "common/state_files.h"
#include "common/waiting_start.h"
#include "common/wake_lock.h"
#include "core/log.h"
#include "package/checksum_list.h"
#include "package/crypto.h"
#include "package/progress_flags.h"
#include "package/staging_tools.h"

namespace {

// Held over every way out of the pipeline.
struct scoped_wake_lock {
    scoped_wake_lock() { (void)fota_wakelock_acquire(); }
    ~scoped_wake_lock() { (void)fota_wakelock_release(); }
    scoped_wake_lock(const scoped_wake_lock&) = delete;
    scoped_wake_lock& operator=(const scoped_wake_lock&) = delete;
};

}  // namespace

fota_rc unpack_and_validate_pkg(const char* pkg_path) {
    LOG_NOTICE("Called, dlpkg_name:%s\n", pkg_path);
    give_up_waiting_start();  // what it was to install is about to be replaced
    const scoped_wake_lock wake_lock;

    struct stat info = {};
    if (stat(pkg_path, &info) != 0) {
        LOG_ERROR("stat failed on DlPkg, errno:%d\n", errno);
        return FOTA_RC_PKG_NOT_FOUND;
    }
    if (!S_ISREG(info.st_mode)) {
        LOG_ERROR("DlPkg is not a regular file\n");
        return FOTA_RC_PKG_NOT_REGULAR;
    }

    // Anyone may write to the work folder: what lies there under our names is never reused or followed.
    remove_planted(FOTA_PKG_DETAILS_ENCRYPTED);
    if (unzip_a_specific_file(pkg_path, FOTA_PKG_DETAILS_MEMBER, FOTA_WORK_DIR) != FOTA_RC_SUCCESS) {
        LOG_ERROR("unzip_a_specific_file() failed\n");
        empty_a_file(FOTA_PKG_DETAILS_ENCRYPTED);
        return FOTA_RC_FAILURE;
    }

    remove_planted(FOTA_PKG_DETAILS);
    LOG_NOTICE_BOTH("Decrpting the PKG details\n");
    if (fota_decrypt_file(FOTA_DEVICE_KEY, FOTA_BUILD_CERT, FOTA_PKG_DETAILS_ENCRYPTED, FOTA_PKG_DETAILS,
                          FOTA_DECRYPT_TEMP, 1) != 0) {
        LOG_ERROR("fota_decrypt_file() failed for file:%s\n", FOTA_PKG_DETAILS_MEMBER);
        empty_a_file(FOTA_PKG_DETAILS_ENCRYPTED);
        return FOTA_RC_PKG_INVALID;
    }
    LOG_NOTICE_BOTH("Decrypted the PKG details\n");

    withdraw_progress_files();
    if (create_a_fresh_dir(FOTA_STAGING_DIR) != FOTA_RC_SUCCESS) {
        LOG_ERROR("create_a_fresh_dir() failed\n");
        return FOTA_RC_FAILURE;
    }
    if (unzip_a_file(FOTA_PKG_DETAILS, FOTA_STAGING_DIR) != FOTA_RC_SUCCESS) {
        LOG_ERROR("unzip_a_file() failed\n");
        return FOTA_RC_FAILURE;
    }
    withdraw_claims_of_package();
    if (verify_checksum(FOTA_STAGING_DIR, FOTA_STAGING_CHECKSUM_LIST) != 0) {
        LOG_ERROR("%%%%%%%%%%%%%%%%%% DlPkg checksum failed\n");
        return FOTA_RC_FAILURE;
    }
    if (dir_sync_up(FOTA_STAGING_DIR) != 0) LOG_ERROR("dir_sync_up failed[FOTA_STAGING_DIR], continue\n");
    // A flag that cannot be set shows at the start of the installation, which needs it.
    (void)set_progress_files(FOTA_STAGE_PKG_VERIFIED);
    LOG_NOTICE("DlPkg verification success\n");
    return FOTA_RC_SUCCESS;
}
