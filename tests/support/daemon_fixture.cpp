#include "support/daemon_fixture.h"

#include <linux/close_range.h>
#include <signal.h>

#include <climits>
#include <cstdlib>
#include <filesystem>

#include "tools/play/sandbox.h"

namespace {

// The daemon has no terminal for a sanitizer's report to go to.
void send_sanitizer_reports_to(const std::string& path) {
    for (const char* variable : {"ASAN_OPTIONS", "TSAN_OPTIONS", "UBSAN_OPTIONS"}) {
        const char* given = std::getenv(variable);
        setenv(variable, ((given != nullptr ? given + std::string(":") : "") + "log_path=" + path).c_str(),
               1);
    }
}

}  // namespace

void DaemonTest::SetUp() {
    // What this program was started with is not the daemon's.
    close_range(3, UINT_MAX, CLOSE_RANGE_CLOEXEC);
    setenv("K", FOTA_TEST_KEYS, 1);
    device_seed(FOTA_TEST_KEYS);
}

void DaemonTest::TearDown() {
    if (daemon > 0) end(SIGTERM, 0);
}

void DaemonTest::launch() {
    static const bool once = (send_sanitizer_reports_to("/var/log/sanitizer"), true);
    ASSERT_TRUE(once);
    daemon = daemon_launch(daemon_program(sandbox_program_folder()));
    ASSERT_GT(daemon, 0);
}

void DaemonTest::start() {
    launch();
    ASSERT_TRUE(daemon_wait_ready(daemon)) << get_file(DEBUG_LOG);
}

void DaemonTest::end(int signal_number, int expected_status) {
    EXPECT_EQ(daemon_end(daemon, signal_number), expected_status);
    daemon = -1;
    for (const auto& file : std::filesystem::directory_iterator("/var/log")) {
        if (file.path().filename().string().starts_with("sanitizer")) ADD_FAILURE() << get_file(file.path());
    }
}

void DaemonTest::reboot() {
    if (daemon > 0) end(SIGTERM, 0);
    device_reboot();
    start();
}

nlohmann::json fotapkg_json(const std::string& arguments) {
    sh("fotapkg " + arguments + " --json >/opt/fotapkg.json || [ $? = 1 ]");
    return nlohmann::json::parse(get_file("/opt/fotapkg.json"));
}

bool log_has(const std::string& part) {
    return get_file(DEBUG_LOG).find(part) != std::string::npos;
}
