// A seeded device with the real daemon, for system tests.
#pragma once

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/types.h>
#include <unistd.h>

#include "fota/fota_client.h"
#include "support/device_files.h"
#include "tools/play/agents.h"
#include "tools/play/device.h"
#include "tools/play/programs.h"

inline constexpr int TIMEOUT_MS = 60000;
inline constexpr int SUCCESS = FOTA_RC_SUCCESS;
inline constexpr int LOCKED = FOTA_RC_LOCK_NOT_AVAILABLE;
inline constexpr char DEBUG_LOG[] = "/var/log/debug_log";

struct DaemonTest : testing::Test {
    pid_t daemon = -1;

    // A device as it left the factory, without its daemon running; the folder of test keys in $K.
    void SetUp() override;

    // Ends the daemon, if it runs.
    void TearDown() override;

    // Starts the daemon; start() also waits until it serves.
    void launch();
    void start();

    // Ends the daemon and shows what a sanitizer has to say of it.
    void end(int signal_number, int expected_status);

    // Restarts the device, with the daemon that may run.
    void reboot();
};

// Waits, some seconds at most, until `holds` returns true; false when it does not.
template <typename Condition>
[[nodiscard]] bool eventually(Condition holds) {
    for (int look = 0; look < 1000 && !holds(); ++look) usleep(10000);
    return holds();
}

// What `fotapkg ARGUMENTS --json` prints.
[[nodiscard]] nlohmann::json fotapkg_json(const std::string& arguments);

// True when the debug log holds `part`.
[[nodiscard]] bool log_has(const std::string& part);
