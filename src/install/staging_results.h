// What the installer left in the staging directory. Files are only read here; clearing them ends the session.
#pragma once

#include "fota/result_codes.h"

enum fota_staging_result {
    STAGING_UPDATE_NORESULT = 0,
    STAGING_UPDATE_SUCCESS = 1,
    REVERTED_STATUS = 2,  // the boot fail-safe went back to the previous firmware; main component only
    STAGING_UPDATE_FAILURE = 3
};

// The outcome of the first component selected, in the order main, modem PRI, Linux PRI. Of several files the
// first of success, failure and fall-back counts. `label` goes into the log.
[[nodiscard]] fota_staging_result get_result_from_staging(const char* label, int main_update, int modem_pri,
                                                          int linux_pri);

// The FUMO result (200 to 610) of a failed update, from the installer's failure file. `text`, null or
// FOTA_TEXT_SIZE bytes of zero, gets what is known about the failure.
[[nodiscard]] long get_failure_fumo_error_code(char* text);

// Makes the update count as failed with `code`, a FUMO result or an engine code, as the installer would.
// Results of fota_create_a_file; without the file the update counts as one without a result.
[[nodiscard]] fota_rc set_staging_update_failure(int code);
