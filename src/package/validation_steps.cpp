#include "package/validation_steps.h"

#include <sys/stat.h>

#include <cerrno>

#include "common/file_helpers.h"
#include "common/state_files.h"
#include "core/log.h"
#include "package/checksum_list.h"
#include "package/crypto.h"

namespace {

fota_rc check_package_file(const char* pkg_path) {
    struct stat info = {};
    if (stat(pkg_path, &info) != 0) {
        LOG_ERROR_AS(VALIDATION_LOG_NAME, "stat failed on DlPkg, errno:%d\n", errno);
        return FOTA_RC_PKG_NOT_FOUND;
    }
    if (!S_ISREG(info.st_mode)) {
        LOG_ERROR_AS(VALIDATION_LOG_NAME, "DlPkg is not a regular file\n");
        return FOTA_RC_PKG_NOT_REGULAR;
    }
    return FOTA_RC_SUCCESS;
}

fota_rc decrypt_and_verify(const validation_setup& setup) {
    LOG_NOTICE_BOTH_AS(VALIDATION_LOG_NAME, "Decrpting the PKG details\n");
    if (fota_decrypt_file(setup.device_key, setup.build_cert, setup.encrypted, setup.details,
                          setup.decrypt_temp, setup.keeps_inputs ? 0 : 1) != 0) {
        LOG_ERROR_AS(VALIDATION_LOG_NAME, "fota_decrypt_file() failed for file:%s\n",
                     FOTA_PKG_DETAILS_MEMBER);
        if (!setup.keeps_inputs) empty_a_file(setup.encrypted);  // of no use, and takes room
        return FOTA_RC_PKG_INVALID;
    }
    LOG_NOTICE_BOTH_AS(VALIDATION_LOG_NAME, "Decrypted the PKG details\n");
    return FOTA_RC_SUCCESS;
}

fota_rc check_files(const validation_setup& setup) {
    if (verify_checksum(setup.staging, setup.checksum_list) == 0) return FOTA_RC_SUCCESS;
    LOG_ERROR_AS(VALIDATION_LOG_NAME, "%%%%%%%%%%%%%%%%%% DlPkg checksum failed\n");
    return FOTA_RC_FAILURE;
}

}  // namespace

fota_rc validate_package(const validation_setup& setup, const char* pkg_path) {
    fota_rc rc = FOTA_RC_SUCCESS;
    const auto goes_on = [&](validation_step step, fota_rc result) {
        rc = result;
        return (setup.after_step == nullptr || setup.after_step(setup, step, rc)) && rc == FOTA_RC_SUCCESS;
    };
    (void)(goes_on(validation_step::package_file, check_package_file(pkg_path)) &&
           goes_on(validation_step::member, setup.unpack_member(setup, pkg_path)) &&
           goes_on(validation_step::decryption, decrypt_and_verify(setup)) &&
           goes_on(validation_step::unpacking, setup.unpack_details(setup)) &&
           goes_on(validation_step::checksum_list, check_files(setup)));
    return rc;
}
