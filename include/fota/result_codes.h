/*
 * Result codes of the update daemon. Valid C99 and C++11: clients include it.
 *
 * Every request is answered with one of these in `result`, and most functions of the daemon return one. A
 * code is 0xA0000 plus a small number; values are part of the wire protocol and are never reused.
 */
#ifndef FOTA_RESULT_CODES_H
#define FOTA_RESULT_CODES_H

#include <stdint.h>

typedef uint32_t fota_rc;

/* clang-format off */

/* Each code once: X(name, value, meaning). The enumeration, and what names and explains codes, is made of it. */
#define FOTA_RESULT_CODES(X)                                                                                              \
    X(FOTA_RC_SUCCESS,               0xA0000, "done")                                                                     \
    X(FOTA_RC_FAILURE,               0xA0001, "the daemon failed to do it")                                               \
    X(FOTA_RC_INVALID_PARAM,         0xA0002, "not possible for this agent now, or an input is missing or wrong")         \
    X(FOTA_RC_NO_MEMORY,             0xA03E8, "the daemon is out of memory")                                              \
    X(FOTA_RC_LOCK_NOT_AVAILABLE,    0xA03EB, "the session lock belongs to another agent")                                \
    X(FOTA_RC_NO_SESSION,            0xA03EC, "there is no update session")                                               \
    X(FOTA_RC_PKG_NOT_FOUND,         0xA03ED, "the package file was not found")                                           \
    X(FOTA_RC_PKG_NOT_REGULAR,       0xA03EE, "the package path is not a regular file")                                   \
    X(FOTA_RC_PKG_TOO_BIG,           0xA03EF, "the package is larger than twice the limit")                               \
    X(FOTA_RC_NO_FLASH_SPACE,        0xA03F0, "there is not enough free flash space")                                     \
    X(FOTA_RC_PKG_INVALID,           0xA03F1, "the package cannot be decrypted, is not signed properly, or lacks a file") \
    X(FOTA_RC_PKG_VALIDATION_FAILED, 0xA03F2, "the side-loaded package is not valid")                                     \
    X(FOTA_RC_SRC_VERSION_MISMATCH,  0xA03F3, "the package is for another source version than the device has")            \
    X(FOTA_RC_INSTALL_START_FAILED,  0xA03F4, "the installation could not be started")                                    \
    X(FOTA_RC_RECORD_NOT_FOUND,      0xA03F5, "there is no such history record")                                          \
    X(FOTA_RC_SIDELOAD_IN_PROGRESS,  0xA03F6, "a side-load is in progress")                                               \
    X(FOTA_RC_FILE_NOT_FOUND,        0xA03F7, "a file could not be opened for reading")                                   \
    X(FOTA_RC_FILE_CREATE_FAILED,    0xA03F8, "a file could not be created")                                              \
    X(FOTA_RC_FILE_WRITE_FAILED,     0xA03F9, "a file could not be written, copied or renamed")                           \
    X(FOTA_RC_EMPTY_OR_SYNC_FAILED,  0xA03FA, "a folder could not be opened to be synced, or a source file was empty")    \
    X(FOTA_RC_FULL_FOTA_IN_PROGRESS, 0xA03FB, "a full-image installation is pending")

#define FOTA_RESULT_CODE(name, value, meaning) name = (value),
enum fota_result_code { FOTA_RESULT_CODES(FOTA_RESULT_CODE) };
#undef FOTA_RESULT_CODE
/* clang-format on */

#endif
