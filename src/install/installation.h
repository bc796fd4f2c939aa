// Hands a validated package over to the installer.
#pragma once

#include <cstdint>

#include "fota/request.h"

// Writes the boot preference (fota_boot_preference), announces the start, sets the pre-install flag, runs the
// package's pre-install script and switches the device into the installer's run level: at once with
// `wait_secs` 0, else from a thread after that many seconds. A full-image package is installed from a thread
// of its own instead, or from the caller's when it, or an earlier one of this daemon, has the worker thread's
// handle: on the main thread no request is served, and no keep-alive sent, until the package's script ends. A
// start that waits is replaced. The wake lock stays taken after a success. FOTA_RC_FAILURE: no validated
// package is staged; the start was given up meanwhile; or a thread could not be started: the update is then
// recorded with status 409, its session is over, and no status request will hand the outcome out. The exit
// status of the package's script is not looked at; a state manager that refuses the switch is replaced by
// `telinit 5`. Main thread, or a pre-install wait thread.
[[nodiscard]] fota_rc start_installation(uint32_t boot_preference, uint32_t wait_secs);

// Writes the marker files of a boot preference. FOTA_RC_INVALID_PARAM for an unknown one, no file is touched
// then; FOTA_RC_FAILURE when a file cannot be made or removed; a start goes on without the
// preference.
[[nodiscard]] fota_rc create_boot_preference_cookie(uint32_t boot_preference);

// Thread: announces the installation, counts fota_get_install_wait_secs() down, then switches the run level,
// unless the start that waits (waiting_start) was given up or replaced. A terminating signal cuts the
// countdown short, if the process lives until the thread has seen it: its end does not wait. Returns null.
void* install_wait(void*);

// Gives the pending record the current date when its own lies in the past.
void fota_ops_verify_installation_date();

// Copies `date` into `out` and returns FOTA_RC_SUCCESS when it is not in the past; otherwise,
// also when it is no date, writes the current local date and returns FOTA_RC_FAILURE.
[[nodiscard]] fota_rc cmp_date_str(const char (&date)[FOTA_TEXT_SIZE], char (&out)[FOTA_TEXT_SIZE]);
