#include "package/validation.h"

#include "common/file_helpers.h"
#include "common/state_files.h"
#include "common/waiting_start.h"
#include "common/wake_lock.h"
#include "core/log.h"
#include "package/progress_flags.h"
#include "package/staging_tools.h"
#include "package/validation_steps.h"

namespace {

// Held over every way out of the pipeline.
struct scoped_wake_lock {
    scoped_wake_lock() { (void)fota_wakelock_acquire(); }
    ~scoped_wake_lock() { (void)fota_wakelock_release(); }
    scoped_wake_lock(const scoped_wake_lock&) = delete;
    scoped_wake_lock& operator=(const scoped_wake_lock&) = delete;
};

fota_rc unpack_member(const validation_setup& setup, const char* pkg_path) {
    // Anyone may write to the work folder: what lies there under our names is never reused or followed.
    remove_planted(setup.encrypted);
    const fota_rc rc = unzip_a_specific_file(pkg_path, FOTA_PKG_DETAILS_MEMBER, FOTA_WORK_DIR);
    if (rc != FOTA_RC_SUCCESS) {
        LOG_ERROR_AS(VALIDATION_LOG_NAME, "unzip_a_specific_file() failed\n");
        empty_a_file(setup.encrypted);
        return FOTA_RC_FAILURE;
    }
    remove_planted(setup.details);
    return rc;
}

fota_rc unpack_details(const validation_setup& setup) {
    withdraw_progress_files();
    if (create_a_fresh_dir(setup.staging) != FOTA_RC_SUCCESS) {
        LOG_ERROR_AS(VALIDATION_LOG_NAME, "create_a_fresh_dir() failed\n");
        return FOTA_RC_FAILURE;
    }
    if (unzip_a_file(setup.details, setup.staging) != FOTA_RC_SUCCESS) {
        LOG_ERROR_AS(VALIDATION_LOG_NAME, "unzip_a_file() failed\n");
        return FOTA_RC_FAILURE;
    }
    withdraw_claims_of_package();
    return FOTA_RC_SUCCESS;
}

constexpr validation_setup ON_THE_DEVICE = {
    .device_key = FOTA_DEVICE_KEY,
    .build_cert = FOTA_BUILD_CERT,
    .encrypted = FOTA_PKG_DETAILS_ENCRYPTED,
    .decrypt_temp = FOTA_DECRYPT_TEMP,
    .details = FOTA_PKG_DETAILS,
    .staging = FOTA_STAGING_DIR,
    .checksum_list = FOTA_STAGING_CHECKSUM_LIST,
    .keeps_inputs = false,
    .unpack_member = unpack_member,
    .unpack_details = unpack_details,
    .after_step = nullptr,
    .context = nullptr,
};

}  // namespace

fota_rc unpack_and_validate_pkg(const char* pkg_path) {
    LOG_NOTICE("Called, dlpkg_name:%s\n", pkg_path);
    give_up_waiting_start();  // what it was to install is about to be replaced
    const scoped_wake_lock wake_lock;

    const fota_rc rc = validate_package(ON_THE_DEVICE, pkg_path);
    if (rc != FOTA_RC_SUCCESS) return rc;
    if (dir_sync_up(FOTA_STAGING_DIR) != 0) LOG_ERROR("dir_sync_up failed[FOTA_STAGING_DIR], continue\n");
    // A flag that cannot be set shows at the start of the installation, which needs it.
    (void)set_progress_files(FOTA_STAGE_PKG_VERIFIED);
    LOG_NOTICE("DlPkg verification success\n");
    return FOTA_RC_SUCCESS;
}
