#include "common/wake_lock.h"

#include "core/config.h"
#include "core/log.h"
#include "powersave.h"

namespace {

constexpr char WAKE_LOCK_NAME[] = "fota";

}  // namespace

fota_rc fota_wakelock_acquire() {
    LOG_NOTICE("+++\n");
    if (fota_features.power_saving == 0) {
        LOG_NOTICE("powersave feature not supported\n");
        return FOTA_RC_SUCCESS;
    }
    const int rc = powersave_wakelock_acquire(WAKE_LOCK_NAME);
    if (rc == POWERSAVE_SUCCESS) return FOTA_RC_SUCCESS;
    LOG_ERROR("powersave_wakelock_acquire() failed, rc=%d\n", rc & 0xFFFF);
    return FOTA_RC_FAILURE;
}

fota_rc fota_wakelock_release() {
    LOG_NOTICE("+++\n");
    if (fota_features.power_saving == 0) {
        LOG_NOTICE("powersave feature not supported\n");
        return FOTA_RC_SUCCESS;
    }
    const int rc = powersave_wakelock_release(WAKE_LOCK_NAME);
    if (rc == POWERSAVE_SUCCESS) return FOTA_RC_SUCCESS;
    LOG_ERROR("powersave_wakelock_release() failed, rc=%d\n", rc & 0xFFFF);
    return FOTA_RC_FAILURE;
}
