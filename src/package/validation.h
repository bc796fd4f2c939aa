// From a downloaded package to a validated staging directory.
#pragma once

#include "fota/result_codes.h"

// Takes the encrypted package details out of the zip at `pkg_path`, decrypts them, checks their signature,
// unpacks them into a fresh staging directory, checks the MD5 list and sets the validated flag. A start that
// waits is given up; the wake lock is held meanwhile. FOTA_RC_SUCCESS; FOTA_RC_PKG_NOT_FOUND: the path cannot
// be queried; FOTA_RC_PKG_NOT_REGULAR; FOTA_RC_PKG_INVALID: decryption or signature; FOTA_RC_FAILURE:
// anything else. A failure leaves what the failed step left: the caller clears up. Main thread; takes as long
// as the package is large.
[[nodiscard]] fota_rc unpack_and_validate_pkg(const char* pkg_path);
