#include "fota_client.h"

namespace {

struct result_text {
    const char* name;
    const char* meaning;
};

// The switches have no default: the compiler then names a code that has no text.
#define NAME(code) \
    case code:     \
        return #code
#define TEXT(code, meaning) \
    case code:              \
        return {            \
#code, meaning  \
        }

result_text text_of(fota_result_code code) {
    switch (code) {
        TEXT(FOTA_RC_SUCCESS, "done");
        TEXT(FOTA_RC_FAILURE, "the daemon failed to do it");
        TEXT(FOTA_RC_INVALID_PARAM, "not possible for this agent now, or an input is missing or wrong");
        TEXT(FOTA_RC_NO_MEMORY, "the daemon is out of memory");
        TEXT(FOTA_RC_LOCK_NOT_AVAILABLE, "the session lock belongs to another agent");
        TEXT(FOTA_RC_NO_SESSION, "there is no update session");
        TEXT(FOTA_RC_PKG_NOT_FOUND, "the package file was not found");
        TEXT(FOTA_RC_PKG_NOT_REGULAR, "the package path is not a regular file");
        TEXT(FOTA_RC_PKG_TOO_BIG, "the package is larger than twice the limit");
        TEXT(FOTA_RC_NO_FLASH_SPACE, "there is not enough free flash space");
        TEXT(FOTA_RC_PKG_INVALID, "the package cannot be decrypted, is not signed properly, or lacks a file");
        TEXT(FOTA_RC_PKG_VALIDATION_FAILED, "the side-loaded package is not valid");
        TEXT(FOTA_RC_SRC_VERSION_MISMATCH, "the package is for another source version than the device has");
        TEXT(FOTA_RC_INSTALL_START_FAILED, "the installation could not be started");
        TEXT(FOTA_RC_RECORD_NOT_FOUND, "there is no such history record");
        TEXT(FOTA_RC_SIDELOAD_IN_PROGRESS, "a side-load is in progress");
        TEXT(FOTA_RC_FILE_NOT_FOUND, "a file could not be opened for reading");
        TEXT(FOTA_RC_FILE_CREATE_FAILED, "a file could not be created");
        TEXT(FOTA_RC_FILE_WRITE_FAILED, "a file could not be written, copied or renamed");
        TEXT(FOTA_RC_EMPTY_OR_SYNC_FAILED,
             "a folder could not be opened to be synced, or a source file was empty");
        TEXT(FOTA_RC_FULL_FOTA_IN_PROGRESS, "a full-image installation is pending");
    }
    return {nullptr, nullptr};
}

result_text text_of(fota_client_error code) {
    switch (code) {
        TEXT(FOTA_CLIENT_NO_DAEMON, "the daemon is not running: its request queue does not exist");
        TEXT(FOTA_CLIENT_NO_PERMISSION, "this user may not write to the daemon's request queue");
        TEXT(FOTA_CLIENT_TIMEOUT, "the daemon did not answer in time");
        TEXT(FOTA_CLIENT_NO_RESOURCES, "the message queues of this system cannot be used");
        TEXT(FOTA_CLIENT_BAD_ARGUMENT, "an argument does not fit into the request");
        TEXT(FOTA_CLIENT_UNKNOWN_EVENT, "the daemon does not know this request");
    }
    return {nullptr, nullptr};
}

// A number outside the range of an enumeration must not be cast to it.
result_text text_of(int result) {
    if (result >= FOTA_RC_SUCCESS && result <= FOTA_RC_FULL_FOTA_IN_PROGRESS) {
        return text_of(static_cast<fota_result_code>(result));
    }
    if (result >= FOTA_CLIENT_UNKNOWN_EVENT && result < 0)
        return text_of(static_cast<fota_client_error>(result));
    return {nullptr, nullptr};
}

}  // namespace

const char* fota_event_name(int event) {
    if (event < FOTA_MSG_GET_MAX_PKG_SIZE || event > FOTA_MSG_GET_KERNEL_VERSION) return nullptr;
    switch (static_cast<fota_event>(event)) {
        NAME(FOTA_MSG_GET_MAX_PKG_SIZE);
        NAME(FOTA_MSG_CREATE_SESSION_LOCK);
        NAME(FOTA_MSG_CLEAR_SESSION_LOCK);
        NAME(FOTA_MSG_GET_UPDATE_STATUS);
        NAME(FOTA_MSG_GET_LAST_SUCCESS_REC);
        NAME(FOTA_MSG_GET_UPDATE_CHECK_TIME);
        NAME(FOTA_MSG_SET_UPDATE_CHECK_TIME);
        NAME(FOTA_MSG_GET_NO_OF_RECORDS);
        NAME(FOTA_MSG_GET_RECORD_BY_INDEX);
        NAME(FOTA_MSG_GET_RECORD_BY_ID);
        NAME(FOTA_MSG_GET_SRC_PKG_VERSION);
        NAME(FOTA_MSG_GET_TGT_PKG_VERSION);
        NAME(FOTA_MSG_ABORT_CURRENT_SESS);
        NAME(FOTA_MSG_GET_CURRENT_SESS_RECORD);
        NAME(FOTA_MSG_CFG_GET_CURRENT_RECORD);
        NAME(FOTA_MSG_CFG_SAVE_NEW_RECORD);
        NAME(FOTA_MSG_INCR_INSTALL_DEFER_COUNT);
        NAME(FOTA_MSG_MODIFY_RECORD_BY_ID);
        NAME(FOTA_MSG_VALIDATE_UPDATE_PKG);
        NAME(FOTA_MSG_START_INSTALLATION);
        NAME(FOTA_MSG_SIDELOAD_START_INSTALLATION);
        NAME(FOTA_MSG_SUA_UPATE_START);
        NAME(FOTA_MSG_GET_REVERT_STATUS);
        NAME(FOTA_MSG_SIDELOAD_PREPARE_PACKAGE);
        NAME(FOTA_MSG_FACTORY_RESET);
        NAME(FOTA_MSG_STOP_IN_RECOVERY);
        NAME(FOTA_MSG_DECRYPT_PKG);
        NAME(FOTA_MSG_FILE_OPS);
        NAME(FOTA_MSG_GET_SIDELOAD_MAX_PKG_SIZE);
        NAME(FOTA_MSG_GET_UPGRADE_STATUS);
        NAME(FOTA_MSG_GET_KERNEL_VERSION);
    }
    return nullptr;
}

const char* fota_result_name(int result) {
    return text_of(result).name;
}
const char* fota_result_meaning(int result) {
    return text_of(result).meaning;
}
