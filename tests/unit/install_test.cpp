// The start of an installation, its waits, and what the installer reports.
#include <algorithm>
#include <cstring>
#include <filesystem>
#include <regex>

#include "common/waiting_start.h"
#include "core/config.h"
#include "core/daemon_state.h"
#include "install/engine_errors.h"
#include "install/installation.h"
#include "install/staging_results.h"
#include "package/validation.h"
#include "results/session_cleanup.h"
#include "session/sua_requests.h"
#include "support/device_files.h"
#include "support/recording_platform.h"

namespace {

struct Install : testing::Test {
    void SetUp() override {
        wipe_device();
        recording_platform_reset();
        fota_clear_daemon_state();
        fota_daemon_state.running = 1;
        fota_features.power_saving = 1;
        put_file(FOTA_SESSION_LOCK, "agent-a");
    }
};

TEST_F(Install, FailureFilesMapToFumoCodes) {
    const struct {
        const char* failure;  // content of the failure file, null: missing
        const char* reason;   // of the reason file, null: missing
        long fumo;
        const char* text;
    } rows[] = {
        {"-2147483635", nullptr, 402, "Package corrupt"},
        {"-2147483326 and more", nullptr, 403, "Version mismatch during scout"},
        {"409", nullptr, 409, "cannot map error - (409)"},
        {"409", "power lost", 409, "power lost"},
        {"letters", nullptr, 410, "Out of range error(0)"},
        {"2147483650", nullptr, 410, "Out of range error(2147483647)"},
        {"610", nullptr, 610, "cannot map error - (610)"},
        {"611", nullptr, 410, "Out of range error(611)"},
        {nullptr, "unread", 409, "FOTA_STAGING_UPDATE_FAILURE not found"},
    };
    for (const auto& row : rows) {
        wipe_device();
        if (row.failure != nullptr) put_file(FOTA_STAGING_UPDATE_FAILURE, row.failure);
        if (row.reason != nullptr) put_file(FOTA_STAGING_UPDATE_FAILURE_REASON, row.reason);
        char text[255] = {};
        EXPECT_EQ(get_failure_fumo_error_code(text), row.fumo) << (row.failure ? row.failure : "missing");
        EXPECT_STREQ(text, row.text);
    }
    put_file(FOTA_STAGING_UPDATE_FAILURE, "-2147483635");
    EXPECT_EQ(get_failure_fumo_error_code(nullptr), 402) << "without a text";

    std::filesystem::create_directories(FOTA_STAGING_DIR);
    EXPECT_EQ(set_staging_update_failure(static_cast<int>(ENGINE_VERSION_MISMATCH_DURING_SCOUT)),
              FOTA_RC_SUCCESS);
    EXPECT_EQ(get_file(FOTA_STAGING_UPDATE_FAILURE), "-2147483326");
}

// What a failure file and a reason say, found in another way: by a pattern and without a number too large.
std::pair<long, std::string> expected_failure(const std::string& failure, const std::string* reason) {
    const std::string line = failure.substr(0, std::min<size_t>(failure.find('\n'), 14));
    std::smatch number;
    std::regex_search(line, number, std::regex("^[+-]?[0-9]+"));
    const double wide = number.empty() ? 0 : std::stod(number.str());
    const long code = wide > INT32_MAX ? INT32_MAX : wide < INT32_MIN ? INT32_MIN : static_cast<long>(wide);
    long fumo = code;
    std::string text = reason == nullptr ? "cannot map error - (" + std::to_string(code) + ")" : "";
    for (const engine_error& row : engine_errors()) {
        if (static_cast<int32_t>(row.code) != code) continue;
        fumo = row.fumo;
        text = row.text;
    }
    if (fumo < 200 || fumo > 610) text = "Out of range error(" + std::to_string(fumo) + ")";
    if (fumo < 200 || fumo > 610) fumo = 410;
    if (reason != nullptr)
        text += reason->substr(0, reason->find('\n') + (reason->find('\n') != reason->npos));
    return {fumo, text.substr(0, 254)};
}

TEST_F(Install, RandomFailureFilesMapAsTheModelDoes) {
    unsigned seed = 0;
    std::mt19937 random = random_numbers(&seed);
    const auto pick = [&random](std::initializer_list<std::string> from) {
        return from.begin()[random() % from.size()];
    };
    put_file(FOTA_STAGING_UPDATE_FAILURE, "");
    for (int round = 0; round < 3000; ++round) {
        const auto& engine = engine_errors()[random() % engine_errors().size()];
        std::string failure =
            pick({std::to_string(static_cast<int32_t>(engine.code)), std::to_string(engine.code),
                  std::to_string(random() % 700), std::to_string(random()), "+", "-", ""});
        for (int i = static_cast<int>(random() % 4); i > 0; --i) {
            failure.insert(random() % (failure.size() + 1),
                           pick({"0", "7", "-", "+", " ", "\n", "x", "99999"}));
        }
        std::string reason = std::string(random() % 3 * 127, 'r') + pick({"", "\n", " at block 7\nmore"});
        const bool has_reason = random() % 2 == 0;
        put_file(FOTA_STAGING_UPDATE_FAILURE, failure);
        std::filesystem::remove(FOTA_STAGING_UPDATE_FAILURE_REASON);
        if (has_reason) put_file(FOTA_STAGING_UPDATE_FAILURE_REASON, reason);
        char text[255] = {};
        const long fumo = get_failure_fumo_error_code(text);
        ASSERT_EQ(std::pair(fumo, std::string(text)),
                  expected_failure(failure, has_reason ? &reason : nullptr))
            << "'" << failure << "' '" << reason << "': FOTA_SEED=" << seed << " install_test";
    }
}

TEST_F(Install, BootPreferenceMarkers) {
    std::filesystem::create_directories(FOTA_STAGING_DIR);
    const struct {
        uint32_t preference;
        fota_rc result;
        const char* markers;
    } rows[] = {{1, FOTA_RC_SUCCESS, "shutdown"},
                {1, FOTA_RC_SUCCESS, "shutdown"},
                {3, FOTA_RC_INVALID_PARAM, "shutdown"},
                {2, FOTA_RC_SUCCESS, "lpm"},
                {0, FOTA_RC_SUCCESS, ""}};
    for (const auto& row : rows) {
        EXPECT_EQ(create_boot_preference_cookie(row.preference), row.result);
        EXPECT_EQ(list_folder(FOTA_STAGING_DIR), row.markers);
    }
    std::filesystem::create_directories(FOTA_STAGING_LPM);
    EXPECT_EQ(create_boot_preference_cookie(1), FOTA_RC_FAILURE);
    EXPECT_EQ(list_folder(FOTA_STAGING_DIR), "lpm/");
}

TEST_F(Install, NothingStartsWithoutAValidatedPackage) {
    EXPECT_EQ(start_installation(0, 0), FOTA_RC_FAILURE);
    std::filesystem::create_directories(FOTA_STAGING_DIR);
    EXPECT_EQ(start_installation(0, 0), FOTA_RC_FAILURE);
    const std::vector<std::string> calls = {
        "powersave_wakelock_acquire fota", "powersave_wakelock_release fota",
        "powersave_wakelock_acquire fota", "powersave_wakelock_release fota"};
    EXPECT_EQ(recording_platform().calls, calls);
    EXPECT_EQ(list_folder(FOTA_STAGING_DIR), "");
}

TEST_F(Install, StartSwitchesTheRunLevel) {
    for (const bool manager_answers : {true, false}) {
        SetUp();
        std::filesystem::remove("/run/vexa/telinit.log");
        put_history({make_record(4)});
        put_file(FOTA_TRACKING, "4");
        put_file(FOTA_STAGING_UPDATE_DLPKG_VERIFIED, "");
        put_file(FOTA_STAGING_PRE_INSTALL_SCRIPT, "#!/bin/sh\necho ran > /opt/script\nexit 1\n");
        if (!manager_answers) recording_platform().results["dsm_set_persistent_mode"] = 0x70001;
        EXPECT_EQ(start_installation(9, 0), FOTA_RC_SUCCESS);
        EXPECT_TRUE(called("MsgBusSetInt64 fota.upgrade_status 1"));
        EXPECT_TRUE(called("dsm_set_persistent_mode 5"));
        EXPECT_FALSE(called("powersave_wakelock_release fota")) << "held until the reboot";
        EXPECT_TRUE(exists(FOTA_STAGING_UPDATE_PRE_INSTALL));
        EXPECT_STRNE(stored_record(4).update_date, "") << "dated anew";
        EXPECT_EQ(get_file("/run/vexa/telinit.log"), manager_answers ? "(none)" : "telinit 5\n");
        EXPECT_EQ(get_file("/opt/script"), "ran\n");
        EXPECT_EQ(fota_get_last_upgrade_status(), 1);
    }
}

TEST_F(Install, WaitCountsDownAndEndsEarlyWhenStopping) {
    put_file(FOTA_STAGING_UPDATE_DLPKG_VERIFIED, "");
    EXPECT_EQ(start_installation(0, 3600), FOTA_RC_SUCCESS);
    EXPECT_FALSE(called("dsm_set_persistent_mode 5")) << "the request is answered before the switch";
    run_threads();
    EXPECT_TRUE(called("dsm_set_persistent_mode 5"));
    EXPECT_EQ(recording_platform().waits, 3600);
    EXPECT_EQ(recording_platform().published["fota.backup_before_update"], std::string("\x10\x0e\0\0", 4));

    recording_platform_reset();
    EXPECT_EQ(start_installation(0, 30), FOTA_RC_SUCCESS);
    recording_platform().meanwhile["wait_seconds"] = [] { fota_daemon_state.running = 0; };
    run_threads();
    EXPECT_TRUE(called("dsm_set_persistent_mode 5"));
    EXPECT_TRUE(logged("time elapsed:29"));
}

// While a start waits, what it is to install is taken away or started anew.
TEST_F(Install, OnlyTheNewestStartThatWasNotGivenUpSwitches) {
    const struct {
        const char* name;
        void (*meanwhile)();
        int switches;
    } rows[] = {
        {"the session ends", [] { (void)clear_update_files(1); }, 0},
        {"its lock is taken away", [] { std::filesystem::remove(FOTA_SESSION_LOCK); }, 0},
        {"a package is validated", [] { (void)unpack_and_validate_pkg("/opt/none"); }, 0},
        {"a start finds nothing to install",
         [] {
             std::filesystem::remove(FOTA_STAGING_UPDATE_DLPKG_VERIFIED);
             EXPECT_EQ(start_installation(0, 0), FOTA_RC_FAILURE);
         },
         0},
        {"a newer start at once", [] { EXPECT_EQ(start_installation(0, 0), FOTA_RC_SUCCESS); }, 1},
        {"a newer start that waits", [] { EXPECT_EQ(start_installation(0, 1), FOTA_RC_SUCCESS); }, 1},
        {"a script-driven start",
         [] {
             fota_event_msg msg = make_request(FOTA_MSG_SUA_UPATE_START);
             handle_sua_update_start(&msg);
         },
         1},
        {"a script-driven start that is given up for an update of somebody else's",
         [] {
             fota_event_msg msg = make_request(FOTA_MSG_SUA_UPATE_START);
             handle_sua_update_start(&msg);
             EXPECT_TRUE(called("powersave_wakelock_release")) << "the first start's";
             EXPECT_EQ(fota_clear_session_lock("SUA"), FOTA_RC_SUCCESS);
             put_file(FOTA_SESSION_LOCK, "agent-b");
             put_file(FOTA_STAGING_UPDATE_DLPKG_VERIFIED, "");
             recording_platform().threads.back()(nullptr);
             EXPECT_EQ(list_folder(FOTA_STAGING_DIR), "update_dlpkg_verified");
         },
         0},
    };
    fota_config.pre_install_wait_secs = 1;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        SetUp();
        put_file(FOTA_STAGING_UPDATE_DLPKG_VERIFIED, "");
        ASSERT_EQ(start_installation(0, 1), FOTA_RC_SUCCESS);
        recording_platform().meanwhile["wait_seconds"] = row.meanwhile;
        run_threads();
        const auto& calls = recording_platform().calls;
        EXPECT_EQ(std::ranges::count(calls, "dsm_set_persistent_mode 5"), row.switches);
        const auto last = [&calls](const char* part) {
            return std::ranges::find_if(calls.rbegin(), calls.rend(),
                                        [part](const std::string& call) { return call.starts_with(part); });
        };
        EXPECT_EQ(*last("powersave"),
                  row.switches != 0 ? "powersave_wakelock_acquire fota" : "powersave_wakelock_release fota");
        EXPECT_EQ(fota_get_last_upgrade_status(), row.switches);
        EXPECT_TRUE(logged("Start of the installation given up\n"));
    }
}

TEST_F(Install, PendingRecordNeverDatesFromThePast) {
    const time_t now = recording_platform().clock = 1700000000;
    const auto date = [](time_t when) {
        char text[64];
        tm local = {};
        strftime(text, sizeof text, "%m-%d-%Y-%H:%M:%S", localtime_r(&when, &local));
        return std::string(text);
    };
    const std::string future = date(now + 3600);
    const struct {
        std::string stored;
        bool kept;
    } rows[] = {{"01-01-2000-00:00:00", false},
                {future, true},
                {date(now), true},
                {date(now - 1), false},
                {"no date", false},
                {std::string(255, '9'), false},
                {"", false}};
    for (const auto& row : rows) {
        fota_history_rec record = make_record(4);
        memcpy(record.update_date, row.stored.data(), std::min(row.stored.size(), sizeof record.update_date));
        put_history({record});
        put_file(FOTA_TRACKING, "4");
        fota_ops_verify_installation_date();
        EXPECT_EQ(stored_record(4).update_date, row.kept ? row.stored : date(now)) << row.stored;
    }
}

}  // namespace
