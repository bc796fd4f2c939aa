// The device services for unit tests: every answer is scripted by the test, every call is recorded.
//
// Threads that the daemon starts do not run by themselves, and no wait takes time: see run_threads. A test
// that makes threads of its own uses, while they run, only the functions below, which any thread may call.
#pragma once

#include <cstdint>
#include <ctime>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "support/device_files.h"

struct RecordingPlatform {
    // Answers.
    std::map<std::string, int> results;            // of calls by their names; the others succeed
    int reads_before_ready = 0;                    // this many reads find the settings service not ready
    std::map<std::string, std::string> xml_texts;  // by the element's path
    std::string modem_version;
    int thread_error = 0;  // of the threads that are to be started; 0: they are
    time_t clock = 0;      // seconds since the epoch; 0: the machine's
    std::map<std::string, std::function<void()>> meanwhile;  // comes about in the first call of that name

    // Records. A call is its name and arguments with blanks between: "MsgBusSetInt64 fota.upgrade_status 1".
    std::vector<std::string> calls;
    std::map<std::string, std::string> published;  // binary bus values, the last of each key
    std::string debug_log;
    std::vector<void* (*)(void*)> threads;  // those started, by their entries
    int waits = 0;                          // seconds that threads waited, none of which passed
};

RecordingPlatform& recording_platform();

// Forgets all scripts and records.
void recording_platform_reset();

// A clean device, services without scripts or records, and the daemon's memory as it is while it serves.
struct CleanDevice : testing::Test {
    void SetUp() override;
};

// Hands a request to the dispatcher; what it has become.
fota_event_msg serve(fota_event_msg msg);

// Runs what the threads do that were started, one after the other, those that these start included.
void run_threads();

// True when the debug log, or a call, contains `part`.
[[nodiscard]] bool logged(std::string_view part);
[[nodiscard]] bool called(std::string_view part);
