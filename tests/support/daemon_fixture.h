// A seeded device with the real daemon, for system tests.
#pragma once

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/types.h>

#include "device.h"
#include "fota/fota_client.h"
#include "support/device_files.h"

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
};

// Waits, a few seconds at most, until there is a file.
[[nodiscard]] bool appears(const std::string& path);

// What `fotapkg ARGUMENTS --json` prints.
nlohmann::json fotapkg_json(const std::string& arguments);

// True when the debug log holds `part`.
bool log_has(const std::string& part);
