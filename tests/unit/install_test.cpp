// The start of an installation, its waits, and what the installer reports.
#include <algorithm>
#include <cstring>
#include <filesystem>
#include <regex>
#include <tuple>

#include "core/config.h"
#include "core/daemon_state.h"
#include "install/engine_errors.h"
#include "install/installation.h"
#include "install/staging_results.h"
#include "package/validation.h"
#include "results/session_cleanup.h"
#include "support/device_files.h"
#include "support/recording_platform.h"

namespace {

struct Install : CleanDevice {
    void SetUp() override {
        CleanDevice::SetUp();
        put_file(FOTA_SESSION_LOCK, "agent-a");
    }
};

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
    char none[255] = {};
    EXPECT_EQ(get_failure_fumo_error_code(none), 409);
    EXPECT_STREQ(none, "FOTA_STAGING_UPDATE_FAILURE not found");
    put_file(FOTA_STAGING_UPDATE_FAILURE, "");
    for (int round = 0; round < 3000; ++round) {
        const auto& engine = engine_errors()[random() % engine_errors().size()];
        std::string failure = pick({std::to_string(static_cast<int32_t>(engine.code)),
                                    std::to_string(engine.code), std::to_string(random() % 700),
                                    std::to_string(random()), "199", "200", "610", "611", "+", "-", ""});
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
    const std::tuple<uint32_t, fota_rc, const char*> rows[] = {{1, FOTA_RC_SUCCESS, "shutdown"},
                                                               {1, FOTA_RC_SUCCESS, "shutdown"},
                                                               {3, FOTA_RC_INVALID_PARAM, "shutdown"},
                                                               {2, FOTA_RC_SUCCESS, "lpm"},
                                                               {0, FOTA_RC_SUCCESS, ""}};
    for (const auto& [preference, result, markers] : rows) {
        EXPECT_EQ(create_boot_preference_cookie(preference), result);
        EXPECT_EQ(list_folder(FOTA_STAGING_DIR), markers);
    }
}

TEST_F(Install, WaitCountsDownAndEndsEarlyWhenStopping) {
    put_file(FOTA_STAGING_UPDATE_DLPKG_VERIFIED, "");
    put_history({make_record(4)});
    put_file(FOTA_TRACKING, "4");
    EXPECT_EQ(start_installation(0, 3600), FOTA_RC_SUCCESS);
    EXPECT_STRNE(stored_record(4).update_date, "") << "dated anew";
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
    const std::tuple<const char*, void (*)(), int> rows[] = {
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
        {"a script-driven start", [] { serve(make_request(FOTA_MSG_SUA_UPATE_START)); }, 1},
        {"a script-driven start that is given up for an update of somebody else's",
         [] {
             serve(make_request(FOTA_MSG_SUA_UPATE_START));
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
    for (const auto& [name, meanwhile, switches] : rows) {
        SCOPED_TRACE(name);
        SetUp();
        put_file(FOTA_STAGING_UPDATE_DLPKG_VERIFIED, "");
        ASSERT_EQ(start_installation(0, 1), FOTA_RC_SUCCESS);
        recording_platform().meanwhile["wait_seconds"] = meanwhile;
        run_threads();
        const auto& calls = recording_platform().calls;
        EXPECT_EQ(std::ranges::count(calls, "dsm_set_persistent_mode 5"), switches);
        const auto last = [&calls](const char* part) {
            return std::ranges::find_if(calls.rbegin(), calls.rend(),
                                        [part](const std::string& call) { return call.starts_with(part); });
        };
        EXPECT_EQ(*last("powersave"),
                  switches != 0 ? "powersave_wakelock_acquire fota" : "powersave_wakelock_release fota");
        EXPECT_EQ(fota_get_last_upgrade_status(), switches);
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
    const std::tuple<std::string, bool> rows[] = {{"01-01-2000-00:00:00", false},
                                                  {future, true},
                                                  {date(now), true},
                                                  {date(now - 1), false},
                                                  {"no date", false},
                                                  {std::string(255, '9'), false},
                                                  {"", false}};
    for (const auto& [stored, kept] : rows) {
        fota_history_rec record = make_record(4);
        memcpy(record.update_date, stored.data(), std::min(stored.size(), sizeof record.update_date));
        put_history({record});
        put_file(FOTA_TRACKING, "4");
        fota_ops_verify_installation_date();
        EXPECT_EQ(stored_record(4).update_date, kept ? stored : date(now)) << stored;
    }
}

}  // namespace
