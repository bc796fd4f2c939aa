#include "session/sua_requests.h"

#include <cstring>

#include "common/file_helpers.h"
#include "common/session_lock.h"
#include "common/state_files.h"
#include "common/text.h"
#include "common/waiting_start.h"
#include "common/wake_lock.h"
#include "core/daemon_state.h"
#include "core/log.h"
#include "core/runtime.h"
#include "package/progress_flags.h"
#include "package/staging_tools.h"
#include "results/session_cleanup.h"
#include "results/version_strings.h"
#include "session/session_requests.h"

namespace {

constexpr char SUA_AGENT[] = "SUA";

bool write_text(const char* path, const char (&field)[FOTA_TEXT_SIZE]) {
    char text[FOTA_TEXT_SIZE];
    text_copy(text, field);
    return fota_create_a_file(path, text, strlen(text)) == FOTA_RC_SUCCESS;
}

fota_rc start_failed() {
    clear_sua_files();
    (void)fota_wakelock_release();
    return FOTA_RC_INSTALL_START_FAILED;
}

}  // namespace

void handle_sua_update_start(fota_event_msg* msg) {
    LOG_NOTICE("+++\n");
    msg->result = FOTA_RC_INVALID_PARAM;
    give_up_waiting_start();  // before the wake lock is taken: there is one for all
    (void)fota_wakelock_acquire();
    if (create_session_lock(SUA_AGENT) != FOTA_RC_SUCCESS) {
        LOG_ERROR("Failed to create session lock\n");
        msg->result = start_failed();
        return;
    }
    msg->result = sua_create_cookies(&msg->payload.device_info);
    if (msg->result != FOTA_RC_SUCCESS) return;
    const uint32_t start = begin_start();
    const int error = start_thread(fota_sua_wait_thread(), sua_preinstall_wait);
    if (error != 0) {
        (void)take_start(start, __func__);
        LOG_ERROR("pthread_create() failed errno:%d\n", error);
        msg->result = start_failed();
        return;
    }
    msg->result = FOTA_RC_SUCCESS;
    LOG_NOTICE_BOTH("pre-install waiting for %d secs started\n",
                    static_cast<int>(fota_get_pre_install_wait_secs()));
}

fota_rc sua_create_cookies(const fota_device_info* device) {
    withdraw_progress_files();
    if (create_a_fresh_dir(FOTA_STAGING_DIR) != FOTA_RC_SUCCESS) {
        LOG_ERROR("create_a_fresh_dir(%s) failed\n", FOTA_STAGING_DIR);
        return start_failed();
    }
    // Lets the installation start accept what the tool puts there.
    (void)set_progress_files(FOTA_STAGE_PKG_VERIFIED);
    if (create_a_fresh_dir(FOTA_DEVICE_INFO_DIR) != FOTA_RC_SUCCESS) {
        LOG_ERROR("create_a_fresh_dir(%s) failed\n", FOTA_DEVICE_INFO_DIR);
        return start_failed();
    }
    bool written = write_text(FOTA_DEVICE_DETAILS_MDN, device->mdn);
    written &= write_text(FOTA_DEVICE_DETAILS_IMEI, device->imei);
    written &= write_text(FOTA_DEVICE_DETAILS_MODEL, device->model);
    char version[FOTA_TEXT_SIZE];
    if (construct_fota_version_string(version, device) != FOTA_RC_SUCCESS) {
        LOG_ERROR("fota_get_sw_fw_version() failed\n");
        return start_failed();
    }
    written &= write_text(FOTA_DEVICE_DETAILS_SWV, version);
    if (!written) {
        LOG_ERROR("SUA device info file creation failed\n");
        return start_failed();
    }
    return FOTA_RC_SUCCESS;
}

void* sua_preinstall_wait(void*) {
    const uint32_t start = waiting_start();
    auto secs = static_cast<int32_t>(fota_get_pre_install_wait_secs());
    LOG_NOTICE("Started wait: %d secs\n", secs);
    while (fota_is_running() != 0 && waiting_start() == start) {
        wait_seconds(1);
        if (--secs <= 0) break;
    }
    if (fota_is_running() == 0) {
        LOG_ERROR("App not running.\n");
        if (take_start(start, __func__)) clear_sua_files();
        LOG_NOTICE("Exit\n");
        return nullptr;
    }
    LOG_NOTICE("time elapsed:%d\n", secs);
    if (!take_start(start, __func__)) {
        LOG_NOTICE("Exit\n");
        return nullptr;
    }
    if (fota_create_a_file(FOTA_STAGING_SUA_COOKIE, nullptr, 0) != FOTA_RC_SUCCESS) {
        LOG_ERROR("Failed to create SUA cookie\n");
        clear_sua_files();
        LOG_NOTICE("Exit\n");
        return nullptr;
    }
    fota_event_msg request = {};
    text_copy(request.payload.install.agent_id, SUA_AGENT);
    handle_installation_kickoff(&request);
    if (request.result == FOTA_RC_SUCCESS) {
        LOG_NOTICE_BOTH("Installation started\n");
    } else if (waiting_start() == 0) {  // else session and wake lock are a newer start's
        clear_sua_files();
        LOG_ERROR("handle_installation_kickoff() failed\n");
        (void)fota_wakelock_release();
    }
    LOG_NOTICE("Exit\n");
    return nullptr;
}
