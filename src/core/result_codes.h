/*
 * Result codes of the update daemon. Valid C11 and C++20: clients include it.
 *
 * Every request is answered with one of these in `result`, and most functions of the daemon return one. A
 * code is 0xA0000 plus a small number; values are part of the wire protocol and are never reused.
 */
#ifndef FOTA_CORE_RESULT_CODES_H
#define FOTA_CORE_RESULT_CODES_H

#include <stdint.h>

typedef uint32_t fota_rc;

/* clang-format off */
enum fota_result_code {
    FOTA_RC_SUCCESS               = 0xA0000,
    FOTA_RC_FAILURE               = 0xA0001, /* general failure */
    FOTA_RC_INVALID_PARAM         = 0xA0002, /* refused: foreign agent, missing input, unknown sub-code */
    FOTA_RC_NO_MEMORY             = 0xA03E8, /* memory allocation failed */
    FOTA_RC_LOCK_NOT_AVAILABLE    = 0xA03EB, /* the session lock belongs to another agent */
    FOTA_RC_NO_SESSION            = 0xA03EC, /* no session lock file exists */
    FOTA_RC_PKG_NOT_FOUND         = 0xA03ED, /* update package file not found */
    FOTA_RC_PKG_NOT_REGULAR       = 0xA03EE, /* update package path is not a regular file */
    FOTA_RC_PKG_TOO_BIG           = 0xA03EF, /* package larger than twice the limit */
    FOTA_RC_NO_FLASH_SPACE        = 0xA03F0, /* not enough free flash space */
    FOTA_RC_PKG_INVALID           = 0xA03F1, /* decryption or signature failed, or a listed file is missing */
    FOTA_RC_PKG_VALIDATION_FAILED = 0xA03F2, /* validation of a side-loaded package failed */
    FOTA_RC_SRC_VERSION_MISMATCH  = 0xA03F3, /* the package's source version does not match the device */
    FOTA_RC_INSTALL_START_FAILED  = 0xA03F4, /* the installation could not be started */
    FOTA_RC_RECORD_NOT_FOUND      = 0xA03F5, /* no history record matches */
    FOTA_RC_SIDELOAD_IN_PROGRESS  = 0xA03F6, /* request dropped: a side-load is in progress */
    FOTA_RC_FILE_NOT_FOUND        = 0xA03F7, /* a file could not be opened for reading */
    FOTA_RC_FILE_CREATE_FAILED    = 0xA03F8, /* a file could not be created */
    FOTA_RC_FILE_WRITE_FAILED     = 0xA03F9, /* a write, copy or rename came out short or failed */
    FOTA_RC_EMPTY_OR_SYNC_FAILED  = 0xA03FA, /* a folder could not be opened for its sync, or a source was empty */
    FOTA_RC_FULL_FOTA_IN_PROGRESS = 0xA03FB  /* request dropped: a full-image installation is pending */
};
/* clang-format on */

#endif
