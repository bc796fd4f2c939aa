// The requests by which the web interface installs a package that a user uploaded.
#pragma once

#include "fota/request.h"

// FOTA_MSG_SIDELOAD_PREPARE_PACKAGE: joins the bundle at `text` into the update package. FOTA_RC_SUCCESS;
// FOTA_RC_PKG_NOT_FOUND; else the code of sideload_prepare_package, whose files then stay for the next bundle
// to replace: the pieces joined so far, in the place of an older package, and the rest in the side-load
// folder. Needs no session. Main thread.
void handle_sideload_prepare_package(fota_event_msg* msg);

// FOTA_MSG_SIDELOAD_START_INSTALLATION: takes the session, validates the package, checks its source version
// and starts sideload_preinstall_wait; until the update is over every other request is dropped.
// FOTA_RC_SUCCESS with the estimated time; FOTA_RC_INVALID_PARAM: input missing, or another agent's session;
// after the other codes the side-load is over, and with it a session that the agent had, its package and
// staging directory included: FOTA_RC_FAILURE (but when there is no room for the side-load's cookie, for then
// nothing was touched), FOTA_RC_PKG_NOT_FOUND, FOTA_RC_PKG_TOO_BIG, FOTA_RC_NO_FLASH_SPACE,
// FOTA_RC_PKG_VALIDATION_FAILED, FOTA_RC_SRC_VERSION_MISMATCH (recorded as a failed update, 403, and
// announced; the package's script for failures runs), FOTA_RC_INSTALL_START_FAILED. Main thread.
void handle_sideload_start_installation(fota_event_msg* msg);

// Thread: announces the update, waits the configured time, then starts the installation for the session's
// owner. A terminating signal ends the wait: nothing is started or cleared, and the next start of the daemon
// finds the cookie and ends the side-load. Returns null.
void* sideload_preinstall_wait(void*);
