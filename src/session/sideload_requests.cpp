#include "session/sideload_requests.h"

#include <cstring>

#include "common/file_helpers.h"
#include "common/flash_space.h"
#include "common/session_lock.h"
#include "common/state_files.h"
#include "common/text.h"
#include "common/wake_lock.h"
#include "core/daemon_state.h"
#include "core/log.h"
#include "core/msgbus_client.h"
#include "core/runtime.h"
#include "install/engine_errors.h"
#include "install/staging_results.h"
#include "package/progress_flags.h"
#include "package/sideload_package.h"
#include "package/staging_tools.h"
#include "results/cookies.h"
#include "results/result_processing.h"
#include "results/session_cleanup.h"
#include "results/version_strings.h"
#include "session/session_requests.h"
#include "session/validation_request.h"

namespace {

// Ends a side-load whose package has been validated: `failure` becomes the outcome of its record.
void record_failure(int failure) {
    (void)set_staging_update_failure(failure);
    check_and_update_fota_results();
    clear_sideload_files();
}

// Brings the package to its place and tells its size, 0 when it was not measured. `function` is the caller's
// name for the log.
fota_rc bring_package(const char* path, uint32_t* size, const char* function) {
    if (is_same_file(path, FOTA_UPGRADE_PKG)) {
        LOG_DEBUG_AS(function, "Package is already present in[%s]\n", path);
        return FOTA_RC_SUCCESS;
    }
    // An upload lies on flash already.
    if (strcmp(path, FOTA_WEBUI_UPLOAD) != 0) {
        const fota_rc rc = fota_check_free_space(path, size);
        if (rc != FOTA_RC_SUCCESS) {
            LOG_ERROR_AS(function, "fota_check_free_space(), failed rc=%d\n", static_cast<int>(rc));
            return rc;
        }
    }
    const fota_rc rc = move_file(path, FOTA_UPGRADE_PKG);
    if (rc != FOTA_RC_SUCCESS) LOG_ERROR_AS(function, "Unable to move the file [%s]\n", path);
    return rc;
}

// Validates the package as if its agent had asked for it. Returns that request's result.
fota_rc validate_package(const char* agent, uint32_t size) {
    fota_event_msg request = {};
    fota_pkg_info* info = &request.payload.validate.pkg_info;
    text_copy(request.payload.validate.pkg_path, FOTA_UPGRADE_PKG);
    info->pkg_size = size;
    text_copy(info->update_method, "Sideload");
    text_copy(info->agent_name, sizeof info->agent_name, agent, FOTA_TEXT_SIZE);
    handle_pkg_verfication(&request);
    return request.result;
}

}  // namespace

void handle_sideload_prepare_package(fota_event_msg* msg) {
    LOG_NOTICE("+++\n");
    char path[FOTA_PAYLOAD_SIZE + 1];
    text_copy(path, sizeof path, reinterpret_cast<const char*>(msg->payload.bytes), FOTA_PAYLOAD_SIZE);
    if (fota_is_regular_file(path) != FOTA_RC_SUCCESS) {
        LOG_ERROR("pkg:%s not found\n", path);
        msg->result = FOTA_RC_PKG_NOT_FOUND;
        return;
    }
    msg->result = sideload_prepare_package(path);
    if (msg->result == FOTA_RC_SUCCESS) {
        (void)fota_wakelock_release();
        LOG_NOTICE_BOTH("Package preparation successful\n");
    } else {
        LOG_ERROR("sideload_prepare_package(), failed rc=%d\n", static_cast<int>(msg->result));
        clear_sideload_files();
        (void)fota_wakelock_release();
    }
}

void handle_sideload_start_installation(fota_event_msg* msg) {
    LOG_NOTICE("+++\n");
    msg->result = FOTA_RC_INVALID_PARAM;
    char agent[FOTA_TEXT_SIZE];
    char path[FOTA_TEXT_SIZE + 1];
    text_copy(agent, msg->payload.sideload.agent_id);
    text_copy(path, msg->payload.sideload.pkg_path);
    if (agent[0] == '\0' || path[0] == '\0') {
        LOG_ERROR("Missing PKG path or agent ID for event:%d\n", msg->event);
        return;
    }
    if (fota_check_session_owner(agent) == FOTA_RC_LOCK_NOT_AVAILABLE) {
        LOG_ERROR("FOTA session lock is already taken\n");
        return;
    }
    // From here on every other request is dropped.
    if (fota_create_a_file(FOTA_SIDELOAD_COOKIE, nullptr, 0) != FOTA_RC_SUCCESS) {
        LOG_ERROR("Failed to create sideload cookie\n");
        msg->result = FOTA_RC_FAILURE;
        return;
    }
    msg->result = create_session_lock(agent);
    if (msg->result != FOTA_RC_SUCCESS) {
        LOG_ERROR("Failed to create session lock\n");
        clear_sideload_files();
        return;
    }
    if (fota_is_regular_file(path) != FOTA_RC_SUCCESS) {
        LOG_ERROR("pkg:%s not found\n", path);
        msg->result = FOTA_RC_PKG_NOT_FOUND;
        clear_sideload_files();
        return;
    }
    uint32_t size = 0;
    msg->result = bring_package(path, &size, __func__);
    if (msg->result != FOTA_RC_SUCCESS) {
        clear_sideload_files();
        return;
    }
    if (validate_package(agent, size) != FOTA_RC_SUCCESS) {
        msg->result = FOTA_RC_PKG_VALIDATION_FAILED;
        clear_sideload_files();
        LOG_ERROR("handle_pkg_verfication() failed\n");
        return;
    }
    LOG_NOTICE_BOTH("Validation successful\n");
    if (check_source_package_version() != FOTA_RC_SUCCESS) {
        msg->result = FOTA_RC_SRC_VERSION_MISMATCH;
        record_failure(static_cast<int>(ENGINE_VERSION_MISMATCH_DURING_SCOUT));
        (void)fota_remove_a_file(FOTA_RESULT_PROCESSED);
        LOG_ERROR("check_source_package_version() failed\n");
        return;
    }
    LOG_NOTICE_BOTH("Source version match\n");
    sync();
    sync();
    (void)set_progress_files(FOTA_STAGE_PRE_INSTALL);
    const int error = start_thread(fota_worker_thread(), sideload_preinstall_wait);
    if (error != 0) {
        LOG_ERROR("pthread_create() failed errno:%d\n", error);
        msg->result = FOTA_RC_INSTALL_START_FAILED;
        record_failure(FOTA_STATUS_UNDEFINED_ERROR);
        (void)fota_remove_a_file(FOTA_RESULT_PROCESSED);
        return;
    }
    uint32_t estimate = 0;
    (void)fota_get_est_update_time(&estimate);
    msg->payload.sideload.est_update_time = estimate;
    msg->result = FOTA_RC_SUCCESS;
    LOG_NOTICE_BOTH("Est. update time:%u, pre-install waiting for %d secs started\n", estimate,
                    static_cast<int>(fota_get_pre_install_wait_secs()));
    (void)fota_wakelock_acquire();
}

void* sideload_preinstall_wait(void*) {
    char owner[FOTA_TEXT_SIZE] = {};
    auto secs = static_cast<int32_t>(fota_get_pre_install_wait_secs());
    LOG_NOTICE("Started wait: %d secs\n", secs);
    fota_broadcast_backup_before_update(secs);
    while (fota_is_running() != 0) {
        wait_seconds(1);
        if (--secs <= 0) break;
    }
    LOG_NOTICE("time elapsed:%d\n", secs);

    if (fota_is_regular_file(FOTA_SIDELOAD_COOKIE) != FOTA_RC_SUCCESS) {
        LOG_ERROR("Sideload cookie missing\n");
        (void)fota_wakelock_release();
    } else if (fota_get_session_agent(owner) != FOTA_RC_SUCCESS) {
        LOG_ERROR("Session lock for sideload not found\n");
        record_failure(FOTA_STATUS_UNDEFINED_ERROR);
        (void)fota_wakelock_release();
    } else if (fota_is_running() == 0) {
        LOG_ERROR("App not running.\n");
    } else {
        fota_event_msg request = {};
        text_copy(request.payload.install.agent_id, owner);
        handle_installation_kickoff(&request);
        if (request.result == FOTA_RC_SUCCESS) {
            LOG_NOTICE_BOTH("Installation started\n");
        } else {
            record_failure(FOTA_STATUS_UNDEFINED_ERROR);
            LOG_ERROR("handle_installation_kickoff() failed\n");
            (void)fota_wakelock_release();
        }
    }
    LOG_NOTICE("Exit\n");
    return nullptr;
}
