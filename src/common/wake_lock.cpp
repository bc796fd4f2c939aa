#include "common/wake_lock.h"

#include "core/config.h"
#include "core/log.h"
#include "powersave.h"

namespace {

constexpr char WAKE_LOCK_NAME[] = "fota";

// `function` is the caller's name for the log.
fota_rc ask_service(const char* function, const char* call_name, int (*call)(const char* lock_name)) {
    LOG_NOTICE_AS(function, "+++\n");
    if (fota_features.power_saving == 0) {
        LOG_NOTICE_AS(function, "powersave feature not supported\n");
        return FOTA_RC_SUCCESS;
    }
    const int rc = call(WAKE_LOCK_NAME);
    if (rc == POWERSAVE_SUCCESS) return FOTA_RC_SUCCESS;
    LOG_ERROR_AS(function, "%s() failed, rc=%d\n", call_name, rc & 0xFFFF);
    return FOTA_RC_FAILURE;
}

}  // namespace

fota_rc fota_wakelock_acquire() {
    return ask_service(__func__, "powersave_wakelock_acquire", powersave_wakelock_acquire);
}

fota_rc fota_wakelock_release() {
    return ask_service(__func__, "powersave_wakelock_release", powersave_wakelock_release);
}
