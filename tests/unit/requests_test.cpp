// Requests: who may, in which state, and what they leave; the history and versions; from two threads at once.
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <latch>
#include <thread>
#include <tuple>

#include "common/waiting_start.h"
#include "core/config.h"
#include "core/daemon_state.h"
#include "history/history_slots.h"
#include "install/installation.h"
#include "session/factory_reset.h"
#include "session/session_requests.h"
#include "session/sideload_requests.h"
#include "session/sua_requests.h"
#include "support/device_files.h"
#include "support/recording_platform.h"

namespace {

struct Session : CleanDevice {
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
        const char *path, *owner;  // of the session, null: there is none
        fota_rc result;
        bool session_over;
    } rows[] = {
        {"", "agent-a", FOTA_RC_INVALID_PARAM, false},
        {"/opt/p", nullptr, FOTA_RC_NO_SESSION, false},
        {"/opt/none", "agent-a", FOTA_RC_PKG_NOT_FOUND, true},
        {"/opt/qast", "agent-a", FOTA_RC_PKG_NOT_REGULAR, true},  // a folder
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.path);
        SetUp();
        put_file("/opt/p", "x");
        if (row.owner != nullptr) put_file(FOTA_SESSION_LOCK, row.owner);
        fota_event_msg msg = make_request(FOTA_MSG_VALIDATE_UPDATE_PKG);
        memset(&msg.payload, 0x77, sizeof msg.payload);
        strcpy(msg.payload.validate.pkg_path, row.path);
        strcpy(msg.payload.validate.pkg_info.agent_name, "agent-a");
        msg = serve(msg);
        EXPECT_EQ(msg.result, row.result);
        EXPECT_FALSE(exists(FOTA_HISTORY_DB)) << "no record";
        EXPECT_EQ(exists(FOTA_SESSION_LOCK), row.owner != nullptr && !row.session_over);
        EXPECT_EQ(std::count(msg.payload.bytes, msg.payload.bytes + 2312, 0), 2312);
        EXPECT_EQ(std::count(msg.payload.bytes + 2312, msg.payload.bytes + FOTA_PAYLOAD_SIZE, 0x77),
                  FOTA_PAYLOAD_SIZE - 2312);
    }
}

TEST_F(Session, AFailedValidationIsRecordedAndEndsTheSession) {
    const auto validate = [] {
        put_file(FOTA_SESSION_LOCK, "agent-a");
        put_file(FOTA_UPGRADE_PKG, "no zip");
        fota_event_msg msg = make_request(FOTA_MSG_VALIDATE_UPDATE_PKG);
        strcpy(msg.payload.validate.pkg_path, FOTA_UPGRADE_PKG);
        strcpy(msg.payload.validate.pkg_info.agent_name, "agent-a");
        return serve(msg);
    };
    put_file(FOTA_STAGING_TARGET_VER, "2.0");
    EXPECT_EQ(validate().payload.value, 1u);
    EXPECT_STREQ(stored_record(1).pkg_info.pkg_ver, "2.0") << "filled before the staging folder goes";
    EXPECT_EQ(stored_record(1).pkg_info.pkg_size, 6u);

    // Once more, while a worker thread records an outcome, which does not wait.
    recording_platform().meanwhile["powersave_wakelock_acquire"] = [] {
        std::thread([] {
            const auto lock = lock_history();
            const fota_history_rec outcome = make_record(allocate_new_record_id(), FOTA_REC_UPDATE, 200);
            EXPECT_EQ(add_record_to_db(&outcome), FOTA_RC_SUCCESS);
        }).join();
    };
    EXPECT_EQ(validate().payload.value, 3u);
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
            msg = serve(msg);
            const bool unnamed = agent.empty() && row.event == FOTA_MSG_VALIDATE_UPDATE_PKG;
            EXPECT_EQ(msg.result, unnamed ? fota_rc{FOTA_RC_INVALID_PARAM} : row.result);
            EXPECT_EQ(list_folder(FOTA_DATA_DIR) + list_folder(FOTA_STAGING_DIR), files);
            EXPECT_EQ(get_file(FOTA_HISTORY_DB) + get_file(FOTA_SESSION_LOCK), history + "agent-a");
            EXPECT_FALSE(called("dsm_set_persistent_mode"));
        }
    }
}

// The owner's, when there is no record to change or to show, or none can be written.
TEST_F(Session, RequestsThatCannotBeGranted) {
    const struct {
        int32_t event;
        const char* tracking;  // null: no cookie
        bool writable;
        fota_rc result;
    } rows[] = {
        {FOTA_MSG_ABORT_CURRENT_SESS, nullptr, true, FOTA_RC_INVALID_PARAM},
        {FOTA_MSG_ABORT_CURRENT_SESS, "0", true, FOTA_RC_INVALID_PARAM},
        {FOTA_MSG_GET_CURRENT_SESS_RECORD, "9", true, FOTA_RC_INVALID_PARAM},
        {FOTA_MSG_INCR_INSTALL_DEFER_COUNT, "9", true, FOTA_RC_INVALID_PARAM},
        {FOTA_MSG_INCR_INSTALL_DEFER_COUNT, "7", false, FOTA_RC_FAILURE},
        {FOTA_MSG_MODIFY_RECORD_BY_ID, "7", false, FOTA_RC_FAILURE},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(&row - rows);
        SetUp();
        open_session();
        std::filesystem::remove(FOTA_TRACKING);
        if (row.tracking != nullptr) put_file(FOTA_TRACKING, row.tracking);
        if (!row.writable) std::filesystem::create_directories(FOTA_HISTORY_TMP);
        const std::string files = list_folder(FOTA_DATA_DIR);
        const std::string history = get_file(FOTA_HISTORY_DB);
        // The record's agent name counts for the current record, the text at the start for the others.
        fota_event_msg sent = make_request(row.event, "agent-a");
        if (row.event == FOTA_MSG_MODIFY_RECORD_BY_ID) sent.payload.record = make_record(7);
        strcpy(sent.payload.record.pkg_info.agent_name, "agent-a");
        const fota_event_msg answer = serve(sent);
        EXPECT_EQ(answer.result, row.result);
        EXPECT_TRUE(!row.writable || memcmp(&answer.payload, &sent.payload, sizeof sent.payload) == 0);
        EXPECT_EQ(list_folder(FOTA_DATA_DIR), files);
        EXPECT_EQ(get_file(FOTA_HISTORY_DB), history);
    }
    std::filesystem::remove(FOTA_SESSION_LOCK);
    EXPECT_EQ(serve(make_request(FOTA_MSG_START_INSTALLATION, "agent-a")).result, FOTA_RC_NO_SESSION);
}

TEST_F(Session, AbortRecordsTheAgentsOutcomeAndEndsTheSession) {
    open_session();
    put_file(FOTA_RESULT_PROCESSED, "3");
    put_file(FOTA_SIDELOAD_COOKIE, "");
    fota_event_msg msg = make_request(FOTA_MSG_ABORT_CURRENT_SESS, "agent-a");
    msg.payload.abort.status = 402;
    memset(msg.payload.abort.reason, 'r', sizeof msg.payload.abort.reason);
    handle_abort_current_session(&msg);  // not by the dispatcher: a side-load's cookie would stop it
    EXPECT_EQ(msg.result, FOTA_RC_SUCCESS);
    EXPECT_EQ(stored_record(7).status, 402u);
    EXPECT_EQ(stored_record(7).reason, std::string(254, 'r'));
    EXPECT_EQ(list_folder(FOTA_DATA_DIR), "history.bin");
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
        EXPECT_EQ(serve(msg).result, FOTA_RC_INSTALL_START_FAILED);
        EXPECT_TRUE(logged("errno:11\n"));
        EXPECT_EQ(stored_record(7).status, row.status);
        EXPECT_EQ(list_folder(FOTA_DATA_DIR), row.left);
        EXPECT_EQ(recording_platform().calls.back(), "powersave_wakelock_release fota");
        EXPECT_EQ(*fota_worker_thread(), 0u);
    }
}

TEST_F(Session, WaitsThatEndWithoutAnInstallation) {
    fota_config.pre_install_wait_secs = 0;
    const auto sideload = sideload_preinstall_wait, sua = sua_preinstall_wait;
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
    recording_platform_reset();
    std::filesystem::remove(FOTA_SIDELOAD_COOKIE);
    EXPECT_EQ(serve(make_request(FOTA_MSG_SUA_UPATE_START)).result, FOTA_RC_INSTALL_START_FAILED);
    EXPECT_TRUE(called("powersave_wakelock_release fota"));
}

using Requests = CleanDevice;

fota_event_msg ask(int32_t event, const fota_history_rec& record = {}) {
    fota_event_msg msg = make_request(event);
    msg.payload.record = record;
    return serve(msg);
}

fota_history_rec cfg(const char* date, const char* version, const char* firmware) {
    fota_history_rec record = {};
    strcpy(record.update_date, date);
    strcpy(record.pkg_info.pkg_ver, version);
    strcpy(record.pkg_info.pkg_description, firmware);
    return record;
}

TEST_F(Requests, HistoryOfANewDevice) {
    const std::tuple<int32_t, uint32_t, fota_rc, uint32_t> rows[] = {
        {FOTA_MSG_GET_RECORD_BY_INDEX, 0, FOTA_RC_FILE_NOT_FOUND, 77},
        {FOTA_MSG_GET_RECORD_BY_ID, 0, FOTA_RC_INVALID_PARAM, 77},
        {FOTA_MSG_GET_RECORD_BY_ID, 3, FOTA_RC_RECORD_NOT_FOUND, 77},
        {FOTA_MSG_CFG_GET_CURRENT_RECORD, 9, FOTA_RC_RECORD_NOT_FOUND, 77},
        {FOTA_MSG_GET_LAST_SUCCESS_REC, 9, FOTA_RC_SUCCESS, 0},
        {FOTA_MSG_GET_UPDATE_CHECK_TIME, 9, FOTA_RC_SUCCESS, 0},  // no text
        {FOTA_MSG_GET_NO_OF_RECORDS, 9, FOTA_RC_SUCCESS, 0},      // an empty list
    };
    for (const auto& [event, id, result, status] : rows) {
        const fota_event_msg msg = ask(event, make_record(id, 0, 77));
        EXPECT_EQ(msg.result, result) << event;
        EXPECT_EQ(msg.payload.record.rec_id, id) << event << ": the payload stays";
        EXPECT_EQ(msg.payload.record.status, status) << event;
        EXPECT_EQ(msg.payload.value, 0u) << event;
    }
    serve(make_request(FOTA_MSG_SET_UPDATE_CHECK_TIME, std::string(2000, 't')));
    EXPECT_EQ(ask(FOTA_MSG_GET_UPDATE_CHECK_TIME).payload.text, std::string(254, 't'));
    EXPECT_EQ(get_file(FOTA_UPDATE_CHECK).size(), 2000u) << "stored whole, read to 254";
}

TEST_F(Requests, ConfigurationRecords) {
    const std::tuple<const char*, const char*, const char*, fota_rc> rows[] = {
        {"", "", "fw", FOTA_RC_INVALID_PARAM},
        {"d", "", "fw", FOTA_RC_INVALID_PARAM},
        {"d", "v", "", FOTA_RC_INVALID_PARAM},
        {"d1", "v1", "fw1", FOTA_RC_SUCCESS},
        {"d2", "v2", "fw2", FOTA_RC_SUCCESS}};
    for (const auto& [date, version, firmware, result] : rows) {
        EXPECT_EQ(ask(FOTA_MSG_CFG_SAVE_NEW_RECORD, cfg(date, version, firmware)).result, result);
    }
    EXPECT_EQ(get_file(FOTA_FACTORY_CFG_REC), "1") << "the first one stays the factory's";
    const fota_event_msg current = ask(FOTA_MSG_CFG_GET_CURRENT_RECORD);
    EXPECT_EQ(current.result, FOTA_RC_SUCCESS);
    EXPECT_EQ(current.payload.record.rec_id, 2u);
    EXPECT_STREQ(current.payload.record.pkg_info.pkg_description, "fw2");
    EXPECT_STREQ(ask(FOTA_MSG_GET_NO_OF_RECORDS).payload.record_count.list, "2,");

    std::filesystem::remove(FOTA_FACTORY_CFG_REC);
    std::filesystem::create_directories(FOTA_FACTORY_CFG_REC);
    EXPECT_EQ(ask(FOTA_MSG_CFG_SAVE_NEW_RECORD, cfg("d", "v", "fw")).result, FOTA_RC_FAILURE);
    EXPECT_EQ(stored_record(3).rec_id, 3u) << "the record stays";
}

TEST_F(Requests, ClientsModifyAllButTheOutcome) {
    fota_history_rec stored = make_record(4, FOTA_REC_UPDATE, 402);
    strcpy(stored.reason, "Package corrupt");
    stored.pkg_info.est_update_time = 600;
    put_history({make_record(3), stored});
    put_file(FOTA_SESSION_LOCK, "agent-a");
    put_file(FOTA_TRACKING, "4");
    put_file(FOTA_STAGING_EST_UPD_TIME, "1");

    EXPECT_EQ(ask(FOTA_MSG_MODIFY_RECORD_BY_ID).result, FOTA_RC_INVALID_PARAM);
    EXPECT_EQ(ask(FOTA_MSG_MODIFY_RECORD_BY_ID, make_record(9)).result, FOTA_RC_INVALID_PARAM);
    fota_history_rec change = make_record(4, FOTA_REC_REVERT, 200);
    strcpy(change.reason, "mine");
    change.reserved1 = 7;
    strcpy(change.pkg_info.pkg_name, "renamed");
    const fota_event_msg answer = ask(FOTA_MSG_MODIFY_RECORD_BY_ID, change);
    EXPECT_EQ(answer.result, FOTA_RC_SUCCESS);
    fota_history_rec expected = change;
    expected.status = 402;
    memcpy(expected.reason, stored.reason, sizeof expected.reason);
    expected.pkg_info.est_update_time = 600;
    const fota_history_rec after = stored_record(4);
    EXPECT_EQ(memcmp(&after, &expected, sizeof after), 0);
    EXPECT_EQ(memcmp(&answer.payload.record, &expected, sizeof after), 0);
    EXPECT_EQ(get_file(FOTA_STAGING_EST_UPD_TIME), "600");
}

TEST_F(Requests, FactoryResetEndsWhatIsPending) {
    const struct {
        const char* name;
        const char* tracking;  // null: no cookie
        bool installing;
        fota_rc result;
        uint32_t status;
        const char* files;
    } rows[] = {
        {"pending update", "7", false, FOTA_RC_SUCCESS, 409, "history.bin"},
        {"session without a package", nullptr, false, FOTA_RC_SUCCESS, 0, "history.bin"},
        {"cookie without an id", "0", false, FOTA_RC_SUCCESS, 0, "history.bin"},
        {"installation started", "7", true, FOTA_RC_FAILURE, 0,
         "history.bin result_processed session sl_temp staging/ tracking upgrade.zip"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        SetUp();
        fota_history_rec record = make_record(7);
        record.modem_pri_result = 410;
        put_history({record});
        if (row.tracking != nullptr) put_file(FOTA_TRACKING, row.tracking);
        for (const char* path :
             {FOTA_SESSION_LOCK, FOTA_UPGRADE_PKG, FOTA_RESULT_PROCESSED, FOTA_DECRYPT_TEMP}) {
            put_file(path, "x");
        }
        put_file(row.installing ? FOTA_STAGING_UPDATE_PRE_INSTALL : FOTA_STAGING_UPDATE_DLPKG_VERIFIED, "");
        if (!row.installing) put_file(FOTA_SIDELOAD_COOKIE, "");
        fota_event_msg msg = make_request(FOTA_MSG_FACTORY_RESET);
        handle_fota_factory_reset(&msg);  // not by the dispatcher: a side-load's cookie would stop it
        EXPECT_EQ(msg.result, row.result);
        EXPECT_EQ(stored_record(7).status, row.status);
        EXPECT_STREQ(stored_record(7).reason, row.status == 409 ? "Factory reset" : "");
        EXPECT_EQ(stored_record(7).modem_pri_result, row.status == 409 ? 0u : 410u);
        EXPECT_EQ(list_folder(FOTA_DATA_DIR), row.files);
    }
}

TEST_F(Requests, Versions) {
    put_file(FOTA_STAGING_SRC_VER, "1.0\n1.1\n");
    put_file(FOTA_STAGING_TARGET_VER, "2.0");
    put_file(FOTA_SESSION_LOCK, "a");
    const std::tuple<int32_t, const char*, fota_rc, const char*> rows[] = {
        {FOTA_MSG_GET_SRC_PKG_VERSION, "a", FOTA_RC_SUCCESS, "1.0\n"},
        {FOTA_MSG_GET_TGT_PKG_VERSION, "a", FOTA_RC_SUCCESS, "2.0"},
        {FOTA_MSG_GET_TGT_PKG_VERSION, "b", FOTA_RC_INVALID_PARAM, "b"}};
    for (const auto& [event, agent, result, text] : rows) {
        const fota_event_msg msg = serve(make_request(event, agent));
        EXPECT_EQ(msg.result, result);
        EXPECT_STREQ(msg.payload.text, text);
    }
    std::filesystem::remove_all(FOTA_STAGING_DIR);
    const fota_event_msg msg = serve(make_request(FOTA_MSG_GET_SRC_PKG_VERSION, "a"));
    EXPECT_EQ(msg.result, FOTA_RC_FILE_NOT_FOUND);
    EXPECT_STREQ(msg.payload.text, "a");
}

// The request loop and a worker thread change the same record, then make new ones, at the same moment.
TEST_F(Requests, NoChangeIsLostBetweenThreads) {
    put_history({make_record(1), make_record(2), make_record(3)});
    put_file(FOTA_SESSION_LOCK, "agent-a");
    put_file(FOTA_TRACKING, "2");
    constexpr uint32_t ROUNDS = 200;
    std::atomic<bool> is_changing = true;
    std::latch adding(2);
    std::thread worker([&] {
        for (uint32_t i = 1; i <= ROUNDS; ++i) {
            EXPECT_EQ(copy_result_into_db(1000 + i, 0, 0, nullptr, 2), FOTA_RC_SUCCESS);
            usleep(500);
            EXPECT_EQ(stored_record(2).status, 1000 + i);
        }
        is_changing = false;
        adding.arrive_and_wait();
        for (uint32_t i = 1; i <= ROUNDS; ++i) {
            const auto lock = lock_history();
            const fota_history_rec record = make_record(allocate_new_record_id());
            EXPECT_EQ(add_record_to_db(&record), FOTA_RC_SUCCESS);
        }
    });
    uint32_t deferred = 0;
    for (; is_changing; ++deferred) {
        EXPECT_EQ(serve(make_request(FOTA_MSG_INCR_INSTALL_DEFER_COUNT, "agent-a")).result, FOTA_RC_SUCCESS);
        fota_history_rec change = stored_record(2);
        change.update_date[0] = '\0';
        EXPECT_EQ(ask(FOTA_MSG_MODIFY_RECORD_BY_ID, change).result, FOTA_RC_SUCCESS);
        fota_ops_verify_installation_date();
    }
    EXPECT_EQ(stored_record(2).install_defer_count, deferred);
    adding.arrive_and_wait();
    for (uint32_t i = 1; i <= ROUNDS; ++i) ask(FOTA_MSG_CFG_SAVE_NEW_RECORD, cfg("d", "v", "fw"));
    worker.join();
    EXPECT_EQ(allocate_new_record_id(), 4 + 2 * ROUNDS);
}

}  // namespace
