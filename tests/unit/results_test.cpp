// What becomes of an installation: records, cookies, clean-ups, version strings.
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <tuple>

#include "core/config.h"
#include "results/record_filling.h"
#include "results/result_processing.h"
#include "results/session_cleanup.h"
#include "results/update_estimate.h"
#include "results/version_strings.h"
#include "support/device_files.h"
#include "support/recording_platform.h"

namespace {

struct Results : CleanDevice {
    // A session of agent-a with its package installed, but for the result.
    void installed_update(uint32_t id) {
        put_history({make_record(id), make_record(id + 1)});
        put_file(FOTA_TRACKING, std::to_string(id));
        put_file(FOTA_SESSION_LOCK, "agent-a");
        put_file(FOTA_UPGRADE_PKG, "package");
        put_file(FOTA_PKG_DETAILS, "details");
        put_file(FOTA_STAGING_UPDATE_PRE_INSTALL, "");
        put_file(FOTA_STAGING_POST_INSTALL_SCRIPT, "echo success >> /opt/scripts\n");
        put_file(FOTA_STAGING_POST_INSTALL_FAILED_SCRIPT, "echo failed >> /opt/scripts\n");
    }
};

TEST_F(Results, InstallerResultsBecomeHistory) {
    const std::tuple<const char*, uint32_t, uint32_t, uint32_t, const char*> rows[] = {
        {": >result_success; echo 402 >result_failure; echo >pri_linux_failure", 200, 0, 410,
         "FW Upgrade success"},
        {": >result_success; echo PRI mismatch >pri_modem_failure; : >pri_linux_success", 200, 410, 200,
         "FW Upgrade success;PRI mismatch"},
        {"echo -2147483635 >result_failure; echo not looked at >pri_modem_failure", 402, 0, 0,
         "Package corrupt"},
    };
    for (const auto& [leave, status, modem, linux_pri, reason] : rows) {
        SCOPED_TRACE(leave);
        SetUp();
        installed_update(7);
        put_file(FOTA_REVERT_MARKER, "both results come before it");
        sh(std::string("cd /opt/qast/data/fota/staging; ") + leave);
        check_and_update_fota_results();
        const fota_history_rec record = stored_record(7);
        EXPECT_EQ(record.status, status);
        EXPECT_EQ(record.modem_pri_result, modem);
        EXPECT_EQ(record.linux_pri_result, linux_pri);
        EXPECT_STREQ(record.reason, reason);
        EXPECT_EQ(get_file("/opt/scripts"), status == 200 ? "success\n" : "failed\n");
        EXPECT_EQ(list_folder(FOTA_DATA_DIR), "history.bin result_processed");
        EXPECT_FALSE(exists(FOTA_PKG_DETAILS));
        EXPECT_TRUE(called("MsgBusSetInt64 fota.upgrade_status 0"));
    }
}

TEST_F(Results, ResultWithoutARecord) {
    installed_update(7);
    check_and_update_fota_results();
    EXPECT_EQ(list_folder(FOTA_DATA_DIR), "history.bin session staging/ tracking upgrade.zip") << "no result";
    EXPECT_FALSE(exists("/opt/scripts"));
    for (const char* tracking : {"(none)", "0", "99"}) {
        installed_update(7);
        put_file(FOTA_TRACKING, tracking);
        if (tracking[0] == '(') std::filesystem::remove(FOTA_TRACKING);
        put_file(FOTA_STAGING_UPDATE_SUCCESS, "");
        check_and_update_fota_results();
        EXPECT_EQ(get_file(FOTA_RESULT_PROCESSED), tracking[0] == '9' ? "99" : "(none)");
        EXPECT_EQ(stored_record(7).status, 0u);
        EXPECT_FALSE(called("fota.update_status"));
        EXPECT_FALSE(exists(FOTA_SESSION_LOCK));
    }
    EXPECT_EQ(get_file("/opt/scripts"), "success\nsuccess\nsuccess\n");
}

TEST_F(Results, FallBackMakesARecordOfItsOwn) {
    const std::string no_reason = std::string(FOTA_REVERT_REASON) + " is not found";
    for (const bool is_told : {false, true}) {
        SetUp();
        installed_update(7);
        put_file(FOTA_REVERT_MARKER, "");
        if (is_told) put_file(FOTA_REVERT_REASON, "verified after all");
        if (is_told) put_file(FOTA_REVERT_ERROR_CODE, "200");
        put_file(FOTA_PREVIOUS_SRC_VER, "1.0");
        put_file(FOTA_PREVIOUS_TARGET_VER, "2.0");
        check_and_update_fota_results();
        const fota_history_rec record = stored_record(9);
        EXPECT_EQ(record.status, is_told ? 200u : 409u);
        EXPECT_EQ(record.reason, is_told ? "verified after all" : no_reason);
        EXPECT_STREQ(record.pkg_info.pkg_ver, "1.0");
        EXPECT_STREQ(record.pkg_info.pkg_name, "1.0-2.0");
        EXPECT_STREQ(record.pkg_info.agent_name, "REVERTED");
        EXPECT_EQ(stored_record(7).status, 0u) << "the reverted update's own record stays";
        EXPECT_EQ(get_file("/opt/scripts"), is_told ? "success\n" : "failed\n");
        EXPECT_EQ(list_folder(FOTA_DATA_DIR), "history.bin previous/ revert_processed upgrade.zip");
        EXPECT_EQ(list_folder("/opt/qast/log/AB_failsafe"), "");
        // As an end between recording and clearing up leaves it: no second record.
        put_file(FOTA_REVERT_MARKER, "");
        put_file(FOTA_TRACKING, "9");
        check_and_update_fota_results();
        EXPECT_EQ(stored_record(10).rec_id, 0u);
        EXPECT_EQ(get_file(FOTA_REVERT_PROCESSED), "9");
        EXPECT_EQ(list_folder("/opt/qast/log/AB_failsafe"), "");
    }
}

TEST_F(Results, ScriptDrivenUpdateGetsItsOwnRecord) {
    installed_update(7);
    put_file(FOTA_STAGING_SUA_COOKIE, "");
    put_file(FOTA_STAGING_SUA_PKG_NAME, "name");
    put_file(FOTA_STAGING_SUA_PKG_SIZE, "1234");
    put_file(FOTA_STAGING_SUA_PKG_TS, "01-02-2026-03:04:05");
    put_file(FOTA_STAGING_UPDATE_SUCCESS, "");
    check_and_update_fota_results();
    EXPECT_STREQ(stored_record(9).pkg_info.pkg_name, "name");
    EXPECT_EQ(stored_record(9).pkg_info.pkg_size, 1234u);
    EXPECT_EQ(get_file(FOTA_UPDATE_CHECK), "01-02-2026-03:04:05");
    EXPECT_EQ(stored_record(7).status, 0u);
}

TEST_F(Results, CleanUpsTouchOnlyTheirOwn) {
    installed_update(7);
    clear_sideload_files();
    clear_sua_files();
    EXPECT_EQ(list_folder(FOTA_DATA_DIR), "history.bin session staging/ tracking upgrade.zip");
    for (const char* flag : {FOTA_STAGING_UPDATE_DLPKG_VERIFIED, FOTA_STAGING_UPDATE_PRE_FULL_FOTA_INSTALL}) {
        put_file(flag, "");
    }
    EXPECT_EQ(clear_update_files(0), FOTA_RC_SUCCESS);
    EXPECT_EQ(list_folder(FOTA_DATA_DIR), "history.bin upgrade.zip") << "no result: the package stays";
    EXPECT_FALSE(logged(std::string("Deleting: ") + FOTA_STAGING_DIR + "/update_")) << "flags go first";

    // A removal that fails shows in the result and stops nothing.
    put_file(std::string(FOTA_PKG_DETAILS) + "/x", "");
    put_file(FOTA_SESSION_LOCK, "a");
    EXPECT_EQ(clear_update_files(1), FOTA_RC_FAILURE);
    std::filesystem::remove_all(FOTA_PKG_DETAILS);
    // What stands there without the mark of a clean-up is left as it is.
    for (const char* mark : {"(none)", "0", "1"}) {
        installed_update(7);
        std::filesystem::remove(FOTA_SESSION_LOCK);
        if (mark[0] != '(') put_file(FOTA_CLEAN_UP, mark);
        finish_clean_up();
        EXPECT_EQ(list_folder(FOTA_DATA_DIR), mark[0] == '('   ? "history.bin staging/ tracking upgrade.zip"
                                              : mark[0] == '0' ? "history.bin upgrade.zip"
                                                               : "history.bin");
    }
    EXPECT_FALSE(exists(FOTA_SESSION_LOCK));
}

TEST_F(Results, OutcomesAreHandedOutOnce) {
    const struct {
        const char* cookie;
        const char* content;  // null: no cookie
        const char* asker;
        uint32_t answer;  // record id, 0: none
        bool cookie_stays;
    } rows[] = {
        {FOTA_RESULT_PROCESSED, "7", "agent-", 0, true},
        {FOTA_RESULT_PROCESSED, "7", "agent-a", 7, false},
        {FOTA_RESULT_PROCESSED, nullptr, "agent-a", 0, false},
        {FOTA_RESULT_PROCESSED, "0", "agent-a", 0, false},
        {FOTA_RESULT_PROCESSED, "70", "agent-b", 0, false},
        {FOTA_REVERT_PROCESSED, "8", "whoever", 8, false},
    };
    put_history({make_record(7), make_record(8, FOTA_REC_REVERT)});
    // An outcome is not thrown away when its record, or its cookie, cannot be read for a moment.
    for (const char* unreadable : {FOTA_HISTORY_DB, FOTA_RESULT_PROCESSED}) {
        put_file(FOTA_RESULT_PROCESSED, "7");
        std::filesystem::rename(unreadable, "/opt/aside");
        ASSERT_EQ(symlink("/proc/self/mem", unreadable), 0);  // opens, and gives EIO
        const fota_event_msg msg = serve(make_request(FOTA_MSG_GET_UPDATE_STATUS, "agent-a"));
        EXPECT_STREQ(msg.payload.record.reason, "FOTA_RESULT_NO_UPGRADE");
        EXPECT_TRUE(exists(FOTA_RESULT_PROCESSED));
        EXPECT_FALSE(logged("not found in DB") || logged("history.bin not found"));
        std::filesystem::rename("/opt/aside", unreadable);
    }
    for (const auto& row : rows) {
        SCOPED_TRACE(&row - rows);
        const bool revert = strcmp(row.cookie, FOTA_REVERT_PROCESSED) == 0;
        if (row.content != nullptr) put_file(row.cookie, row.content);
        const fota_event_msg msg =
            serve(make_request(revert ? FOTA_MSG_GET_REVERT_STATUS : FOTA_MSG_GET_UPDATE_STATUS, row.asker));
        EXPECT_EQ(msg.result, FOTA_RC_SUCCESS);
        EXPECT_EQ(msg.payload.record.rec_id, row.answer);
        EXPECT_STREQ(msg.payload.record.reason, row.answer == 0 ? "FOTA_RESULT_NO_UPGRADE" : "");
        EXPECT_EQ(exists(row.cookie), row.cookie_stays);
    }
}

TEST_F(Results, EstimateChangesReachTheUpdateInProgress) {
    const struct {
        const char* agent;
        uint32_t id, seconds;
        const char* staged;  // before; null: missing
        fota_rc result;
        const char* after;
    } rows[] = {
        {"a", 4, 600, "900", FOTA_RC_SUCCESS, "600"}, {"a", 4, 900, "900", FOTA_RC_SUCCESS, "900"},
        {"a", 4, 0, "900", FOTA_RC_FAILURE, "900"},   {"b", 4, 600, "900", FOTA_RC_FAILURE, "900"},
        {"a", 5, 600, "900", FOTA_RC_FAILURE, "900"}, {"a", 4, 600, nullptr, FOTA_RC_FAILURE, "(none)"},
    };
    for (const auto& row : rows) {
        wipe_device();
        put_file(FOTA_SESSION_LOCK, "a");
        put_file(FOTA_TRACKING, "4");
        if (row.staged != nullptr) put_file(FOTA_STAGING_EST_UPD_TIME, row.staged);
        EXPECT_EQ(fota_ops_set_est_update_time(row.agent, row.id, row.seconds), row.result) << &row - rows;
        EXPECT_EQ(get_file(FOTA_STAGING_EST_UPD_TIME), row.after) << &row - rows;
    }
}

TEST_F(Results, RecordsAreFilledFromTheClientThenThePackage) {
    put_file(FOTA_STAGING_PKG_DESCRIPTION, "staged description");
    put_file(FOTA_STAGING_TARGET_VER, "2.0\n");
    fota_pkg_info info = {};
    fota_history_rec record = {};
    EXPECT_EQ(fill_record_from_pkg_info(&info, &record), FOTA_RC_SUCCESS);
    EXPECT_STREQ(record.pkg_info.pkg_description, "staged description");
    EXPECT_STREQ(record.pkg_info.pkg_name, "staged description");
    EXPECT_STREQ(record.pkg_info.pkg_ver, "2.0\n");
    EXPECT_STREQ(record.pkg_info.manufacturer, "Velmora");
    EXPECT_EQ(record.pkg_info.est_update_time, 0u);
    EXPECT_EQ(get_file(FOTA_UPDATE_CHECK), record.update_date);
    EXPECT_FALSE(exists(FOTA_STAGING_EST_UPD_TIME));

    // A client whose texts never end: each stays in its field, and ends there.
    memset(&info, 'c', sizeof info);
    info.est_update_time = 600;
    record = {};
    EXPECT_EQ(fill_record_from_pkg_info(&info, &record), FOTA_RC_SUCCESS);
    EXPECT_EQ(strlen(record.pkg_info.pkg_ver), 254u);
    EXPECT_EQ(strlen(record.pkg_info.manufacturer), 255u);
    EXPECT_EQ(strlen(record.pkg_info.agent_name), 254u);
    EXPECT_EQ(record.pkg_info.aux_text1[0], 0) << "not copied";
    EXPECT_EQ(record.pkg_info.pkg_info_word, 0x63636363u);
    EXPECT_EQ(get_file(FOTA_STAGING_EST_UPD_TIME), "600");
}

TEST_F(Results, VersionStrings) {
    char text[255];
    put_file(FOTA_OS_VERSION, "5.2.1 nightly\n");
    recording_platform().modem_version = "MDM2.1.07 [test]";
    put_file(FOTA_KERNEL_MINOR_VERSION, "98\n");
    EXPECT_EQ(construct_fota_version_string_from_device(text), FOTA_RC_SUCCESS);
    const std::tuple<std::string, fota_rc> rows[] = {
        {"1.0\n" + std::string(text) + " # shipped\r\n", FOTA_RC_SUCCESS},
        {"1.0\n", FOTA_RC_FAILURE},
        {std::string(text) + "x", FOTA_RC_FAILURE},
        {"", FOTA_RC_FAILURE}};
    for (const auto& [list, result] : rows) {
        put_file(FOTA_STAGING_SRC_VER, list);
        EXPECT_EQ(check_source_package_version(), result) << list;
    }
    std::filesystem::remove(FOTA_STAGING_SRC_VER);
    EXPECT_EQ(verify_src_version(text), FOTA_RC_FILE_NOT_FOUND);
    std::filesystem::remove(FOTA_OS_VERSION);
    EXPECT_EQ(construct_fota_version_string_from_device(text), FOTA_RC_FILE_NOT_FOUND);

    fota_device_info input = {};
    strcpy(input.modem_version, "MDM2.1.07 x");
    strcpy(input.os_version, "5.2.1");
    const std::tuple<const char*, uint32_t, const char*> strings[] = {{"", 0, "MDM2.1.07-5.2.1"},
                                                                      {"PX", 0, "PX-MDM2.1.07-5.2.1"},
                                                                      {"PX", 1, "PX-0-5.2.1"},
                                                                      {"P X", 0, "P-5.2.1"}};
    for (const auto& [prefix, no_modem, version] : strings) {
        strcpy(fota_config.platform_prefix, prefix);
        fota_config.no_modem_version = no_modem;
        EXPECT_EQ(construct_fota_version_string(text, &input), FOTA_RC_SUCCESS);
        EXPECT_STREQ(text, version);
    }
}

}  // namespace
