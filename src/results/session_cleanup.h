// What ends an update session. The lock and the files go in an order that a power cut may interrupt anywhere:
// what is left is cleared at the next start or by the lock's owner.
#pragma once

#include <cstdint>

#include "core/result_codes.h"

// Removes the session lock, the tracking cookie, the fail-safe's files, the decrypted details and the staging
// directory; the package too when there is an installation result or `remove_package` is not 0. Returns the
// OR of all removals' results: FOTA_RC_SUCCESS when all are gone. Any thread.
fota_rc clear_update_files(uint32_t remove_package);

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
