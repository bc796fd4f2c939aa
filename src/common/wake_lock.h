// The wake lock that keeps the device from suspending while a package is processed or an installation starts.
// Not counted: callers pair acquire and release along their own paths. Any thread.
#pragma once

#include "fota/result_codes.h"

// FOTA_RC_SUCCESS, also on a device without the power-saving feature, where nothing is called;
// FOTA_RC_FAILURE when the power-saving service refuses: that is logged, and callers go on, with a device
// that may fall asleep.
[[nodiscard]] fota_rc fota_wakelock_acquire();
[[nodiscard]] fota_rc fota_wakelock_release();
