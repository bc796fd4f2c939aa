// A full-image package installs itself: its own script runs while the system is up, then the device is reset.
#pragma once

#include "fota/result_codes.h"

// Runs the package's scripts and resets the device, by `telinit 6` when the state manager refuses to. The
// exit status of the pre-install script is not looked at. When the image's own script fails, whatever result
// it left is recorded first, none when it left none, and the flag goes, so that the update can be started
// again; the device is reset in either case. Without an upgrade script the update is recorded as
// failed and the device stays up. The outcome is in the files and the reset: always FOTA_RC_SUCCESS. Returns
// when the scripts have ended. A worker thread; or the main one, which then serves no request and sends no
// keep-alive meanwhile, when the worker thread's handle is taken by an earlier side-load or full image.
fota_rc start_full_fota_installation();

// Thread: start_full_fota_installation(). Returns null.
void* full_fota_start(void*);
