// What ends an update session. The lock and the files go in an order that a power cut may interrupt anywhere:
// a mark says that a clean-up is under way, and the next start finishes it.
#pragma once

#include <cstdint>

#include "fota/result_codes.h"

// Removes the session lock, the tracking cookie, the fail-safe's files, the decrypted details and the staging
// directory; the package too when there is an installation result or `remove_package` is not 0. A start that
// waits is given up, and the progress flags are withdrawn first. Returns the OR of all removals' results, the
// flags' left out: FOTA_RC_SUCCESS when all are gone. Who does not look at it ends the session all the same,
// and what stayed is logged. Any thread.
[[nodiscard]] fota_rc clear_update_files(uint32_t remove_package);

// Finishes a clean-up of an earlier process that was interrupted. For the start, before results are looked
// at: they may be what is left of one that is recorded. Main thread.
void finish_clean_up();

// Removes what a validation of an earlier process left in the work folder and on the flash. For the start,
// when nothing is under way that needs it. Main thread.
void clear_work_files();

// Ends a side-load, if one is under way. Always FOTA_RC_SUCCESS. Any thread.
fota_rc clear_sideload_files();

// Ends a script-driven update, if one is under way. Always FOTA_RC_SUCCESS. Any thread.
fota_rc clear_sua_files();

// Releases the session lock for its owner `agent`, or for whoever holds it when `agent` is null, and clears
// the session. FOTA_RC_SUCCESS when there is no lock; FOTA_RC_LOCK_NOT_AVAILABLE when another agent holds it;
// else the result of clear_update_files. Any thread.
[[nodiscard]] fota_rc fota_clear_session_lock(const char* agent);

// Lets a clean-up of a worker thread that is under way finish, and none begin any more. For the end of the
// process, which does not wait for its threads: half a clean-up would leave files that belong to no session.
// Main thread, once.
void hold_clean_ups();
