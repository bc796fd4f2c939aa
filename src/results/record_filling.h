// A new update record from what the client says about its package.
#pragma once

#include "fota/history_record.h"
#include "fota/result_codes.h"

inline constexpr char FOTA_DEFAULT_MANUFACTURER[] = "Velmora";

// Fills the caller's zeroed record, but for its id, status and reason; what the client left empty comes from
// the staged package. Stores a given estimate as the staged one, and the record's date as the update-check
// time. Returns the code of save_update_check_time. Main thread.
[[nodiscard]] fota_rc fill_record_from_pkg_info(const fota_pkg_info* info, fota_history_rec* record);
