// The device services for unit tests: every answer is scripted by the test, every call is recorded.
//
// A test works on the fields directly while no worker thread runs. While one may be running it uses the
// functions below, which any thread may call. The message queue service is not played: its calls fail.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "dsm.h"
#include "powersave.h"
#include "settings.h"

struct RecordedLine {
    int level;  // priority number in the system log
    std::string text;
    bool to_syslog;  // of a debug log line: the same text went to the system log as well
};

struct ScriptedBusValue {
    uint32_t value;
    int ready_after_reads = 0;  // this many reads find the key not set
};

struct RecordingPlatform {
    // Answers.
    bool msgbus_create_succeeds = true;
    int msgbus_connect_rc = 0;
    int msgbus_set_callback_rc = 0;
    int msgbus_set_binary_rc = 0;
    int msgbus_set_int64_rc = 0;
    std::map<std::string, ScriptedBusValue> bus_values;
    int settings_rc = SETTINGS_SUCCESS;
    uint32_t feature_power_saving = 1;
    uint32_t feature_fota_enabled = 1;
    int xmldata_initialize_rc = 0;
    std::map<std::string, std::vector<std::string>> xml_elements;  // path: texts of the elements there
    std::string modem_version;
    int dsm_set_persistent_mode_rc = DSM_SUCCESS;
    int dsm_reset_device_rc = DSM_SUCCESS;
    int powersave_acquire_rc = POWERSAVE_SUCCESS;
    int powersave_release_rc = POWERSAVE_SUCCESS;
    int watchdog_rc = 0;

    // Records. A call is its name and arguments with blanks between: "MsgBusSetInt64 fota.upgrade_status 1".
    std::vector<std::string> calls;
    std::map<std::string, std::vector<uint8_t>> published;  // binary bus values, the last of each key
    std::vector<RecordedLine> debug_lines;
    std::vector<RecordedLine> syslog_lines;
};

RecordingPlatform& recording_platform();

// Forgets all scripts and records.
void recording_platform_reset();

// True when a line of the debug log, or a call, contains `part`.
[[nodiscard]] bool logged(std::string_view part);
[[nodiscard]] bool called(std::string_view part);

// A copy of the calls so far.
[[nodiscard]] std::vector<std::string> recorded_calls();
