// A client's change of a record's estimated installation time reaches the staged estimate of the update in
// progress.
#pragma once

#include <cstdint>

#include "fota/result_codes.h"

// Replaces the staged estimate by `seconds` when `agent_name` (a text that ends in NUL) owns the session,
// `record_id` is the record in progress and there is a staged estimate. FOTA_RC_SUCCESS, also when nothing
// had to be changed, or FOTA_RC_FAILURE, nothing changed. Main thread.
[[nodiscard]] fota_rc fota_ops_set_est_update_time(const char* agent_name, uint32_t record_id,
                                                   uint32_t seconds);
