// From an uploaded bundle of signed pieces to the update package. Main thread; the watchdog is kept alive
// between pieces.
#pragma once

#include "fota/result_codes.h"

// Unpacks the bundle at `bundle_path` into the side-load folder, deletes it, checks every piece that its list
// names and joins them into the update package. FOTA_RC_SUCCESS, and the folder is gone; the failing tool's
// code; or that of sideload_decrypt_files_in_list. A failure leaves its files: the caller clears up.
[[nodiscard]] fota_rc sideload_prepare_package(const char* bundle_path);

// Checks the pieces in `dir` against their signatures, in the order of the list there, and appends each to
// the update package. FOTA_RC_SUCCESS, or FOTA_RC_PKG_INVALID: no list, an empty one, or a piece that is
// missing, not signed by the build, or not appended. An older update package goes once there is a list.
[[nodiscard]] fota_rc sideload_decrypt_files_in_list(const char* dir);
