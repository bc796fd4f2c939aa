// The request that starts a script-driven update: an external tool prepares the staging directory, the daemon
// does not validate it.
#pragma once

#include "fota/request.h"

// FOTA_MSG_SUA_UPATE_START: takes the session for "SUA" from whoever holds it, prepares a fresh staging
// directory with what the tool needs to know of the device, and starts sua_preinstall_wait. FOTA_RC_SUCCESS;
// FOTA_RC_INSTALL_START_FAILED, also without a thread: nobody has the session then, its package is gone, and
// the history has not changed; but where the lock could not be taken its owner has all that there was. Main
// thread.
void handle_sua_update_start(fota_event_msg* msg);

// Prepares the staging directory. FOTA_RC_SUCCESS, or FOTA_RC_INSTALL_START_FAILED with the session cleared
// and the wake lock released. Main thread.
[[nodiscard]] fota_rc sua_create_cookies(const fota_device_info* device);

// Thread: waits the configured time, marks the update as a script-driven one and starts its installation.
// A terminating signal ends the wait, and the session with it: no record is made. Returns null.
void* sua_preinstall_wait(void*);
