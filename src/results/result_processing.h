// Turns what an installation, or the boot fail-safe, left behind into history: once, but that a process which
// ends between recording and clearing up lets the next one record the same outcome again, and run the script
// again. A script-driven update then gets a second record.
#pragma once

#include <cstdint>

#include "fota/request.h"

// Reads the result files; writes the outcome into the record in progress, or makes a revert or script-driven
// record; announces it; runs the package's post-install script; ends the session. Without a result only
// upgrade status 0 is announced. An outcome that the history has no room for is lost: the steps after it are
// taken with the record as it is stored, pending. Called at start-up, and when an installation fails to
// start, by whichever thread tried to start it.
void check_and_update_fota_results();

// Makes and announces the record of a fall-back to the previous firmware, or announces once more the one that
// the tracking cookie names, which an interrupted start has made. FOTA_RC_SUCCESS, also when there
// was none; FOTA_RC_FAILURE when the record cannot be stored.
[[nodiscard]] fota_rc create_revert_record_in_history(uint32_t status, const char* reason);

// Makes the record of a script-driven update, whose outcome is then written like any other. FOTA_RC_SUCCESS,
// also when there was none; FOTA_RC_FAILURE when the record cannot be stored.
[[nodiscard]] fota_rc create_sua_record_in_history();

// The error code of a fall-back; `reason` gets its text.
[[nodiscard]] uint32_t get_failure_reverted_error_code(char (&reason)[FOTA_TEXT_SIZE]);

// A PRI result (fota_staging_result) as it stands in a record: 0, 200 or 410. `word` gets it in words. A
// failure's text, the first line of `failure_file`, is appended to `reason`.
[[nodiscard]] uint32_t map_pri_result(char (&reason)[FOTA_TEXT_SIZE], const char* failure_file, int result,
                                      char (&word)[FOTA_TEXT_SIZE]);

// Run the package's script, if it has one, and wait for it.
void run_post_install_script();
void run_post_install_failed_script();
