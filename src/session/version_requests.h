// The requests that return a version text. Main thread.
#pragma once

#include "fota/request.h"

// FOTA_MSG_GET_SRC_PKG_VERSION and FOTA_MSG_GET_TGT_PKG_VERSION, for the session's owner: the staged
// package's version. FOTA_RC_SUCCESS; FOTA_RC_INVALID_PARAM: not the owner; FOTA_RC_FILE_NOT_FOUND: no
// package is staged.
void handle_read_version_from_package(fota_event_msg* msg);

// FOTA_MSG_GET_KERNEL_VERSION, for anyone. FOTA_RC_SUCCESS, or the code of get_kernel_version.
void handle_get_kernel_version(fota_event_msg* msg);
