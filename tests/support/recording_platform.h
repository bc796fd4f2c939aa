// The device services for unit tests: every answer is scripted by the test, every call is recorded.
//
// A test works on the fields directly while no worker thread runs. While one may be running it uses the
// functions below, which any thread may call.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

struct RecordingPlatform {
    // Answers.
    std::map<std::string, int> results;  // of calls by their names; the others succeed
    int reads_before_ready = 0;          // this many reads find the settings service not ready
    uint32_t fota_enabled = 1;
    std::map<std::string, std::string> xml_texts;  // by the element's path
    std::string modem_version;

    // Records. A call is its name and arguments with blanks between: "MsgBusSetInt64 fota.upgrade_status 1".
    std::vector<std::string> calls;
    std::map<std::string, std::string> published;  // binary bus values, the last of each key
    std::string debug_log;
};

RecordingPlatform& recording_platform();

// Forgets all scripts and records.
void recording_platform_reset();

// True when the debug log, or a call, contains `part`.
[[nodiscard]] bool logged(std::string_view part);
[[nodiscard]] bool called(std::string_view part);
