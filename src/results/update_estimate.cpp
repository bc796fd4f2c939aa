#include "results/update_estimate.h"

#include "common/session_lock.h"
#include "core/log.h"
#include "results/cookies.h"

fota_rc fota_ops_set_est_update_time(const char* agent_name, uint32_t record_id, uint32_t seconds) {
    LOG_NOTICE("agent_name:%s, record_id:%u, new_update_time:%u\n", agent_name, record_id, seconds);
    if (seconds == 0) return FOTA_RC_FAILURE;
    if (fota_check_session_owner(agent_name) != FOTA_RC_SUCCESS) return FOTA_RC_FAILURE;
    uint32_t tracked_id = 0;
    if (fota_get_tracking_cookie(&tracked_id) != FOTA_RC_SUCCESS || tracked_id == 0 ||
        tracked_id != record_id) {
        return FOTA_RC_FAILURE;
    }
    uint32_t staged = 0;
    if (fota_get_est_update_time(&staged) != FOTA_RC_SUCCESS) return FOTA_RC_FAILURE;
    if (staged == seconds) return FOTA_RC_SUCCESS;
    if (fota_set_est_update_time(seconds) != FOTA_RC_SUCCESS) return FOTA_RC_FAILURE;
    LOG_NOTICE("Estimated update time set [new=%u, old=%u]\n", seconds, staged);
    return FOTA_RC_SUCCESS;
}
