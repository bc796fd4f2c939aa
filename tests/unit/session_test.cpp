// Requests that drive a session: who may, in which state, and what they leave.
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <thread>

#include "common/waiting_start.h"
#include "core/config.h"
#include "core/daemon_state.h"
#include "core/dispatcher.h"
#include "history/history_slots.h"
#include "session/session_requests.h"
#include "session/sideload_requests.h"
#include "session/sua_requests.h"
#include "session/validation_request.h"
#include "support/device_files.h"
#include "support/recording_platform.h"

namespace {

struct Session : testing::Test {
    void SetUp() override {
        wipe_device();
        recording_platform_reset();
        fota_clear_daemon_state();
        fota_features.power_saving = 1;
    }

    // A validated update of agent-a with record 7.
    void open_session() {
        put_history({make_record(7)});
        put_file(FOTA_TRACKING, "7");
        put_file(FOTA_SESSION_LOCK, "agent-a");
        put_file(FOTA_UPGRADE_PKG, "package");
        put_file(FOTA_STAGING_UPDATE_DLPKG_VERIFIED, "");
    }
};

TEST_F(Session, ValidationIsRefusedBeforeItStarts) {
    const struct {
        const char* name;
        const char* path;
        const char* agent;
        const char* owner;  // null: no session
        fota_rc result;
        bool session_over;
    } rows[] = {
        {"no agent", "/opt/p", "", "", FOTA_RC_INVALID_PARAM, false},
        {"no path", "", "agent-a", "agent-a", FOTA_RC_INVALID_PARAM, false},
        {"another's session", "/opt/p", "agent-b", "agent-a", FOTA_RC_LOCK_NOT_AVAILABLE, false},
        {"no session", "/opt/p", "agent-a", nullptr, FOTA_RC_NO_SESSION, false},
        {"no package", "/opt/none", "agent-a", "agent-a", FOTA_RC_PKG_NOT_FOUND, true},
        {"a folder", "/opt/qast", "agent-a", "agent-a", FOTA_RC_PKG_NOT_REGULAR, true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        SetUp();
        put_file("/opt/p", "x");
        if (row.owner != nullptr) put_file(FOTA_SESSION_LOCK, row.owner);
        fota_event_msg msg = make_request(FOTA_MSG_VALIDATE_UPDATE_PKG);
        memset(&msg.payload, 0x77, sizeof msg.payload);
        strcpy(msg.payload.validate.pkg_path, row.path);
        strcpy(msg.payload.validate.pkg_info.agent_name, row.agent);
        handle_pkg_verfication(&msg);
        EXPECT_EQ(msg.result, row.result);
        EXPECT_FALSE(exists(FOTA_HISTORY_DB)) << "no record";
        EXPECT_EQ(exists(FOTA_SESSION_LOCK), row.owner != nullptr && !row.session_over);
        EXPECT_EQ(std::count(msg.payload.bytes, msg.payload.bytes + 2312, 0), 2312);
        EXPECT_EQ(std::count(msg.payload.bytes + 2312, msg.payload.bytes + FOTA_PAYLOAD_SIZE, 0x77),
                  FOTA_PAYLOAD_SIZE - 2312);
    }
}

TEST_F(Session, AFailedValidationIsRecordedAndEndsTheSession) {
    put_file(FOTA_SESSION_LOCK, "agent-a");
    put_file(FOTA_UPGRADE_PKG, "no zip");
    fota_event_msg msg = make_request(FOTA_MSG_VALIDATE_UPDATE_PKG);
    strcpy(msg.payload.validate.pkg_path, FOTA_UPGRADE_PKG);
    strcpy(msg.payload.validate.pkg_info.agent_name, "agent-a");
    put_file(FOTA_STAGING_TARGET_VER, "2.0");
    handle_pkg_verfication(&msg);
    EXPECT_EQ(msg.result, FOTA_RC_FAILURE);
    EXPECT_EQ(msg.payload.value, 1u);
    const fota_history_rec record = stored_record(1);
    EXPECT_EQ(record.status, 404u);
    EXPECT_STREQ(record.reason, "Signature failed");
    EXPECT_STREQ(record.pkg_info.pkg_ver, "2.0") << "filled before the staging folder goes";
    EXPECT_EQ(record.pkg_info.pkg_size, 6u);
    EXPECT_EQ(list_folder(FOTA_DATA_DIR), "history.bin update_check");
    EXPECT_EQ(recording_platform().calls.size(), 2u) << "wake lock taken and released";

    // Once more, while a worker thread records an outcome, which does not wait.
    put_file(FOTA_SESSION_LOCK, "agent-a");
    put_file(FOTA_UPGRADE_PKG, "package");
    recording_platform().meanwhile["powersave_wakelock_acquire"] = [] {
        std::thread([] {
            const auto lock = lock_history();
            const fota_history_rec outcome = make_record(allocate_new_record_id(), FOTA_REC_UPDATE, 200);
            EXPECT_EQ(add_record_to_db(&outcome), FOTA_RC_SUCCESS);
        }).join();
    };
    strcpy(msg.payload.validate.pkg_path, FOTA_UPGRADE_PKG);
    strcpy(msg.payload.validate.pkg_info.agent_name, "agent-a");
    handle_pkg_verfication(&msg);
    EXPECT_EQ(msg.payload.value, 3u);
    EXPECT_EQ(stored_record(2).status, 200u);
    EXPECT_EQ(stored_record(3).status, 404u);
}

// Each request that asks who owns the session, from everyone who is not quite its owner.
TEST_F(Session, NobodyElseIsServed) {
    const struct {
        int32_t event;
        size_t agent_offset;  // in the payload
        fota_rc result;
    } rows[] = {
        {FOTA_MSG_CREATE_SESSION_LOCK, 0, FOTA_RC_LOCK_NOT_AVAILABLE},
        {FOTA_MSG_CLEAR_SESSION_LOCK, 0, FOTA_RC_LOCK_NOT_AVAILABLE},
        {FOTA_MSG_GET_SRC_PKG_VERSION, 0, FOTA_RC_INVALID_PARAM},
        {FOTA_MSG_GET_TGT_PKG_VERSION, 0, FOTA_RC_INVALID_PARAM},
        {FOTA_MSG_ABORT_CURRENT_SESS, 0, FOTA_RC_INVALID_PARAM},
        {FOTA_MSG_GET_CURRENT_SESS_RECORD, 2330, FOTA_RC_INVALID_PARAM},
        {FOTA_MSG_INCR_INSTALL_DEFER_COUNT, 0, FOTA_RC_INVALID_PARAM},
        {FOTA_MSG_VALIDATE_UPDATE_PKG, 2054, FOTA_RC_LOCK_NOT_AVAILABLE},
        {FOTA_MSG_START_INSTALLATION, 0, FOTA_RC_LOCK_NOT_AVAILABLE},
        {FOTA_MSG_SIDELOAD_START_INSTALLATION, 0, FOTA_RC_INVALID_PARAM},
    };
    for (const auto& row : rows) {
        for (const std::string agent :
             {"", "a", "agent", "agent-", "agent-b", "agent-a2", "agent-a\n", "Agent-a"}) {
            SCOPED_TRACE(std::to_string(row.event) + " from '" + agent + "'");
            SetUp();
            open_session();
            put_file(FOTA_STAGING_SRC_VER, "1.0");
            put_file(FOTA_STAGING_TARGET_VER, "2.0");
            const std::string files = list_folder(FOTA_DATA_DIR) + list_folder(FOTA_STAGING_DIR);
            const std::string history = get_file(FOTA_HISTORY_DB);
            fota_event_msg msg = make_request(row.event);
            strcpy(row.event == FOTA_MSG_VALIDATE_UPDATE_PKG ? msg.payload.validate.pkg_path
                                                             : msg.payload.sideload.pkg_path,
                   FOTA_UPGRADE_PKG);
            memcpy(msg.payload.bytes + row.agent_offset, agent.c_str(), agent.size() + 1);
            fota_handle_event_message(&msg);
            const bool unnamed = agent.empty() && row.event == FOTA_MSG_VALIDATE_UPDATE_PKG;
            EXPECT_EQ(msg.result, unnamed ? fota_rc{FOTA_RC_INVALID_PARAM} : row.result);
            EXPECT_EQ(list_folder(FOTA_DATA_DIR) + list_folder(FOTA_STAGING_DIR), files);
            EXPECT_EQ(get_file(FOTA_HISTORY_DB) + get_file(FOTA_SESSION_LOCK), history + "agent-a");
            EXPECT_FALSE(called("dsm_set_persistent_mode"));
        }
    }
}

TEST_F(Session, RequestsOfTheOwnerAlone) {
    using handler = void (*)(fota_event_msg*);
    const struct {
        const char* name;
        handler handle;
        const char* agent;
        const char* tracking;  // null: no cookie
        fota_rc result;
    } rows[] = {
        {"abort, no cookie", handle_abort_current_session, "agent-a", nullptr, FOTA_RC_INVALID_PARAM},
        {"abort, id 0", handle_abort_current_session, "agent-a", "0", FOTA_RC_INVALID_PARAM},
        {"current, no record", handle_get_current_sess_record, "agent-a", "9", FOTA_RC_INVALID_PARAM},
        {"defer, no record", handle_incr_install_defer_count, "agent-a", "9", FOTA_RC_INVALID_PARAM},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        SetUp();
        open_session();
        std::filesystem::remove(FOTA_TRACKING);
        if (row.tracking != nullptr) put_file(FOTA_TRACKING, row.tracking);
        const std::string files = list_folder(FOTA_DATA_DIR);
        const std::string history = get_file(FOTA_HISTORY_DB);
        fota_event_msg msg = make_request(0);
        // The record's agent name alone counts for the current record, the text at the start for the others.
        strcpy(row.handle == handle_get_current_sess_record ? msg.payload.record.pkg_info.agent_name
                                                            : msg.payload.agent_id,
               row.agent);
        const fota_payload sent = msg.payload;
        row.handle(&msg);
        EXPECT_EQ(msg.result, row.result);
        EXPECT_EQ(memcmp(&msg.payload, &sent, sizeof sent), 0);
        EXPECT_EQ(list_folder(FOTA_DATA_DIR), files);
        EXPECT_EQ(get_file(FOTA_HISTORY_DB), history);
    }
    std::filesystem::remove(FOTA_SESSION_LOCK);
    fota_event_msg msg = make_request(FOTA_MSG_START_INSTALLATION, "agent-a");
    handle_installation_kickoff(&msg);
    EXPECT_EQ(msg.result, FOTA_RC_NO_SESSION);
}

TEST_F(Session, DeferralsAreCountedAndSeen) {
    open_session();
    fota_event_msg msg = make_request(FOTA_MSG_INCR_INSTALL_DEFER_COUNT, "agent-a");
    handle_incr_install_defer_count(&msg);
    EXPECT_EQ(msg.result, FOTA_RC_SUCCESS);
    fota_event_msg seen = make_request(FOTA_MSG_GET_CURRENT_SESS_RECORD);
    strcpy(seen.payload.record.pkg_info.agent_name, "agent-a");
    handle_get_current_sess_record(&seen);
    EXPECT_EQ(seen.result, FOTA_RC_SUCCESS);
    EXPECT_EQ(seen.payload.record.install_defer_count, 1u);
    std::filesystem::create_directories(FOTA_HISTORY_TMP);
    handle_incr_install_defer_count(&msg);
    EXPECT_EQ(msg.result, FOTA_RC_FAILURE);
}

TEST_F(Session, AbortRecordsTheAgentsOutcomeAndEndsTheSession) {
    for (const bool writable : {true, false}) {
        SetUp();
        open_session();
        put_file(FOTA_RESULT_PROCESSED, "3");
        if (writable) put_file(FOTA_SIDELOAD_COOKIE, "");
        if (!writable) std::filesystem::create_directories(FOTA_HISTORY_TMP);
        fota_event_msg msg = make_request(FOTA_MSG_ABORT_CURRENT_SESS, "agent-a");
        msg.payload.abort.status = 402;
        memset(msg.payload.abort.reason, 'r', sizeof msg.payload.abort.reason);
        handle_abort_current_session(&msg);
        EXPECT_EQ(msg.result, writable ? FOTA_RC_SUCCESS : FOTA_RC_FAILURE);
        EXPECT_EQ(stored_record(7).status, writable ? 402u : 0u);
        EXPECT_EQ(stored_record(7).reason, writable ? std::string(254, 'r') : "");
        EXPECT_EQ(list_folder(FOTA_DATA_DIR), writable ? "history.bin" : "history.bin history.tmp/");
    }
}

TEST_F(Session, KickoffReportsHowTheStartWent) {
    open_session();
    fota_event_msg msg = make_request(FOTA_MSG_START_INSTALLATION, "agent-a");
    msg.payload.install.boot_preference = FOTA_BOOT_LPM;
    handle_installation_kickoff(&msg);
    EXPECT_EQ(msg.result, FOTA_RC_SUCCESS);
    EXPECT_EQ(list_folder(FOTA_STAGING_DIR), "lpm update_dlpkg_verified update_pre_install");
    std::filesystem::remove(FOTA_STAGING_UPDATE_DLPKG_VERIFIED);
    handle_installation_kickoff(&msg);
    EXPECT_EQ(msg.result, FOTA_RC_INSTALL_START_FAILED);
}

TEST_F(Session, ThreadsThatCannotBeMadeEndTheUpdate) {
    const struct {
        int event;
        const char* present;
        uint32_t status;   // of the record afterwards
        std::string left;  // in the data directory
    } rows[] = {
        {FOTA_MSG_START_INSTALLATION, "/opt/none", 409, "history.bin"},
        {FOTA_MSG_START_INSTALLATION, FOTA_STAGING_FULL_FOTA, 409, "history.bin"},
        {FOTA_MSG_SUA_UPATE_START, "/opt/none", 0, "history.bin"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.present);
        SetUp();
        open_session();
        put_file(row.present, "");
        recording_platform().thread_error = EAGAIN;
        fota_event_msg msg = make_request(row.event, "agent-a");
        msg.payload.install.wait_secs = 9;
        fota_handle_event_message(&msg);
        EXPECT_EQ(msg.result, FOTA_RC_INSTALL_START_FAILED);
        EXPECT_TRUE(logged("errno:11\n"));
        EXPECT_EQ(stored_record(7).status, row.status);
        EXPECT_EQ(list_folder(FOTA_DATA_DIR), row.left);
        EXPECT_EQ(recording_platform().calls.back(), "powersave_wakelock_release fota");
        EXPECT_EQ(*fota_worker_thread(), 0u);
    }
}

TEST_F(Session, WaitsThatEndWithoutAnInstallation) {
    fota_config.pre_install_wait_secs = 0;
    const auto sideload = sideload_preinstall_wait;
    const auto sua = sua_preinstall_wait;
    const char* const verified = FOTA_STAGING_UPDATE_DLPKG_VERIFIED;
    const std::string files = "history.bin session sl_cookie staging/ tracking upgrade.zip";
    const struct {
        const char* name;
        void* (*wait)(void*);
        bool is_running;
        const char* missing;
        uint32_t status;   // of the record afterwards
        std::string left;  // in the data directory
        bool released;     // the wake lock
    } rows[] = {
        {"side-load, stopping", sideload, false, "", 0, files, false},
        {"side-load, over", sideload, true, FOTA_SIDELOAD_COOKIE, 0,
         "history.bin session staging/ tracking upgrade.zip", true},
        {"side-load, no owner", sideload, true, FOTA_SESSION_LOCK, 409, "history.bin result_processed", true},
        {"side-load, not validated", sideload, true, verified, 409, "history.bin result_processed", true},
        {"script-driven, stopping", sua, false, "", 0, "history.bin sl_cookie", false},
        {"script-driven, over", sua, true, FOTA_STAGING_DIR, 0, "history.bin sl_cookie", false},
        {"script-driven, not validated", sua, true, verified, 0, "history.bin sl_cookie", true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        SetUp();
        open_session();
        put_file(FOTA_SESSION_LOCK, row.wait == sua ? "SUA" : "agent-a");
        put_file(FOTA_SIDELOAD_COOKIE, "");
        std::filesystem::remove_all(row.missing);
        fota_daemon_state.running = row.is_running ? 1 : 0;
        if (row.wait == sua) (void)begin_start();
        row.wait(nullptr);
        EXPECT_EQ(stored_record(7).status, row.status);
        EXPECT_EQ(list_folder(FOTA_DATA_DIR), row.left);
        EXPECT_EQ(called("powersave_wakelock_release fota"), row.released);
        EXPECT_FALSE(called("dsm_set_persistent_mode"));
    }
    put_file(std::string(FOTA_SESSION_LOCK) + "/x", "");
    fota_event_msg msg = make_request(FOTA_MSG_SUA_UPATE_START);
    recording_platform_reset();
    handle_sua_update_start(&msg);
    EXPECT_EQ(msg.result, FOTA_RC_INSTALL_START_FAILED);
    EXPECT_TRUE(called("powersave_wakelock_release fota"));
}

}  // namespace
