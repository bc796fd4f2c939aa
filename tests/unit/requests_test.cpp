// Requests about the history, factory resets and versions, also from two threads at once.
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <latch>
#include <thread>

#include "core/dispatcher.h"
#include "history/history_requests.h"
#include "history/history_slots.h"
#include "install/installation.h"
#include "session/factory_reset.h"
#include "session/session_requests.h"
#include "session/version_requests.h"
#include "support/device_files.h"
#include "support/recording_platform.h"

namespace {

struct Requests : testing::Test {
    void SetUp() override {
        wipe_device();
        recording_platform_reset();
    }
};

fota_event_msg ask(int32_t event, const fota_history_rec& record = {}) {
    fota_event_msg msg = make_request(event);
    msg.payload.record = record;
    fota_handle_event_message(&msg);
    return msg;
}

fota_history_rec cfg(const char* date, const char* version, const char* firmware) {
    fota_history_rec record = {};
    strcpy(record.update_date, date);
    strcpy(record.pkg_info.pkg_ver, version);
    strcpy(record.pkg_info.pkg_description, firmware);
    return record;
}

TEST_F(Requests, HistoryOfANewDevice) {
    EXPECT_EQ(ask(FOTA_MSG_GET_NO_OF_RECORDS, make_record(9)).payload.record_count.count, 0u);
    EXPECT_EQ(ask(FOTA_MSG_GET_NO_OF_RECORDS).result, FOTA_RC_SUCCESS);
    EXPECT_EQ(ask(FOTA_MSG_GET_RECORD_BY_INDEX).result, FOTA_RC_FILE_NOT_FOUND);
    EXPECT_EQ(ask(FOTA_MSG_GET_RECORD_BY_ID).result, FOTA_RC_INVALID_PARAM);
    const fota_event_msg unknown = ask(FOTA_MSG_GET_RECORD_BY_ID, make_record(3));
    EXPECT_EQ(unknown.result, FOTA_RC_RECORD_NOT_FOUND);
    EXPECT_EQ(unknown.payload.record.rec_id, 3u) << "the payload stays";
    EXPECT_EQ(ask(FOTA_MSG_CFG_GET_CURRENT_RECORD).result, FOTA_RC_RECORD_NOT_FOUND);
    const fota_event_msg none = ask(FOTA_MSG_GET_LAST_SUCCESS_REC, make_record(9, 0, 77));
    EXPECT_EQ(none.result, FOTA_RC_SUCCESS);
    EXPECT_EQ(none.payload.record.status, 0u);
    EXPECT_EQ(none.payload.record.rec_id, 9u);
    const fota_event_msg check = ask(FOTA_MSG_GET_UPDATE_CHECK_TIME, make_record(1));
    EXPECT_EQ(check.result, FOTA_RC_SUCCESS);
    EXPECT_STREQ(check.payload.text, "");
    fota_event_msg msg = make_request(FOTA_MSG_SET_UPDATE_CHECK_TIME, std::string(2000, 't'));
    fota_handle_event_message(&msg);
    EXPECT_EQ(ask(FOTA_MSG_GET_UPDATE_CHECK_TIME).payload.text, std::string(254, 't'));
    EXPECT_EQ(get_file(FOTA_UPDATE_CHECK).size(), 2000u) << "stored whole, read to 254";
}

TEST_F(Requests, ConfigurationRecords) {
    const struct {
        const char *date, *version, *firmware;
        fota_rc result;
    } rows[] = {{"", "", "fw", FOTA_RC_INVALID_PARAM},
                {"d", "", "fw", FOTA_RC_INVALID_PARAM},
                {"d", "v", "", FOTA_RC_INVALID_PARAM},
                {"d1", "v1", "fw1", FOTA_RC_SUCCESS},
                {"d2", "v2", "fw2", FOTA_RC_SUCCESS}};
    for (const auto& row : rows) {
        EXPECT_EQ(ask(FOTA_MSG_CFG_SAVE_NEW_RECORD, cfg(row.date, row.version, row.firmware)).result,
                  row.result);
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

    std::filesystem::create_directories(FOTA_HISTORY_TMP);
    EXPECT_EQ(ask(FOTA_MSG_MODIFY_RECORD_BY_ID, change).result, FOTA_RC_FAILURE);
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
        handle_fota_factory_reset(&msg);
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
    const struct {
        int32_t event;
        const char* agent;
        fota_rc result;
        const char* text;
    } rows[] = {{FOTA_MSG_GET_SRC_PKG_VERSION, "a", FOTA_RC_SUCCESS, "1.0\n"},
                {FOTA_MSG_GET_TGT_PKG_VERSION, "a", FOTA_RC_SUCCESS, "2.0"},
                {FOTA_MSG_GET_TGT_PKG_VERSION, "b", FOTA_RC_INVALID_PARAM, "b"},
                {FOTA_MSG_GET_KERNEL_VERSION, "a", FOTA_RC_INVALID_PARAM, "a"}};
    for (const auto& row : rows) {
        fota_event_msg msg = make_request(row.event, row.agent);
        handle_read_version_from_package(&msg);
        EXPECT_EQ(msg.result, row.result);
        EXPECT_STREQ(msg.payload.text, row.text);
    }
    std::filesystem::remove_all(FOTA_STAGING_DIR);
    fota_event_msg msg = make_request(FOTA_MSG_GET_SRC_PKG_VERSION, "a");
    fota_handle_event_message(&msg);
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
        fota_event_msg msg = make_request(FOTA_MSG_INCR_INSTALL_DEFER_COUNT, "agent-a");
        handle_incr_install_defer_count(&msg);
        EXPECT_EQ(msg.result, FOTA_RC_SUCCESS);
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
