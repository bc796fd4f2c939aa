#include "recording_platform.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <sstream>

#include "core/config.h"
#include "core/daemon_state.h"
#include "core/dispatcher.h"
#include "core/runtime.h"
#include "dsm.h"
#include "modem2.h"
#include "msgbus.h"
#include "powersave.h"
#include "settings.h"
#include "vexa_dbg.h"
#include "watchdog.h"
#include "xmldata.h"

struct MsgBusHandle {};

namespace {

std::mutex platform_mutex;
RecordingPlatform platform;
MsgBusHandle bus_handle;

using platform_guard = std::lock_guard<std::mutex>;

void take_meanwhile(const char* name) {
    std::function<void()> happens = [] {};
    {
        const platform_guard guard(platform_mutex);
        const auto planned = platform.meanwhile.extract(name);
        if (planned) happens = planned.mapped();
    }
    happens();
}

// Records a call and gives its scripted result, else `success`.
template <typename... Arguments>
int answer(const char* name, int success, const Arguments&... arguments) {
    std::ostringstream call;
    call << name;
    ((call << ' ' << arguments), ...);
    take_meanwhile(name);
    const platform_guard guard(platform_mutex);
    platform.calls.push_back(call.str());
    const auto scripted = platform.results.find(name);
    return scripted == platform.results.end() ? success : scripted->second;
}

const std::string* find_xml(const char* key) {
    const auto found = platform.xml_texts.find(key);
    return found == platform.xml_texts.end() ? nullptr : &found->second;
}

}  // namespace

RecordingPlatform& recording_platform() {
    return platform;
}

void recording_platform_reset() {
    const platform_guard guard(platform_mutex);
    platform = {};
}

void CleanDevice::SetUp() {
    wipe_device();
    recording_platform_reset();
    fota_clear_daemon_state();
    fota_daemon_state.running = 1;
    fota_config = {};
    fota_features.power_saving = 1;
}

fota_event_msg serve(fota_event_msg msg) {
    fota_handle_event_message(&msg);
    return msg;
}

bool logged(std::string_view part) {
    const platform_guard guard(platform_mutex);
    return platform.debug_log.find(part) != std::string::npos;
}

bool called(std::string_view part) {
    const platform_guard guard(platform_mutex);
    return std::ranges::any_of(platform.calls,
                               [part](const std::string& call) { return call.find(part) != call.npos; });
}

void run_threads() {
    for (size_t i = 0; i < platform.threads.size(); ++i) platform.threads[i](nullptr);
    platform.threads.clear();
}

int start_thread(pthread_t* handle, void* (*entry)(void*)) {
    if (platform.thread_error != 0) return platform.thread_error;
    *handle = pthread_self();
    platform.threads.push_back(entry);
    return 0;
}

void wait_seconds(unsigned seconds) {
    platform.waits += static_cast<int>(seconds);
    take_meanwhile("wait_seconds");
}

time_t clock_seconds() {
    return platform.clock != 0 ? platform.clock : time(nullptr);
}

extern "C" {

// A service that only answers.
#define ANSWER(name, success, parameters, ...)                    \
    int name parameters {                                         \
        return answer(#name, success __VA_OPT__(, ) __VA_ARGS__); \
    }
ANSWER(MsgBus_Connect, 0, (MsgBusHandle*))
ANSWER(MsgBus_SetCallback, 0, (MsgBusHandle*, MsgBusCallback))
ANSWER(MsgBusSetInt64, 0, (const char* key, int64_t value), key, value)
ANSWER(xmldata_initialize, 0, (const char* path, const char*), path)
ANSWER(dsm_set_persistent_mode, DSM_SUCCESS, (int run_level), run_level)
ANSWER(dsm_reset_device, DSM_SUCCESS, (int reason), reason)
ANSWER(powersave_wakelock_acquire, POWERSAVE_SUCCESS, (const char* name), name)
ANSWER(powersave_wakelock_release, POWERSAVE_SUCCESS, (const char* name), name)
ANSWER(watchdog_application_send_keep_alive, 0, (const char* name), name)

MsgBusHandle* MsgBus_Create(const char* client) {
    return answer(__func__, 0, client) == 0 ? &bus_handle : nullptr;
}
void MsgBus_Disconnect(MsgBusHandle*) {}
void MsgBus_Release(MsgBusHandle*) {}

int MsgBusSetBinary(const char* key, const void* data, int size) {
    const int rc = answer(__func__, 0, key, size);
    const platform_guard guard(platform_mutex);
    if (rc == 0) platform.published[key].assign(static_cast<const char*>(data), static_cast<size_t>(size));
    return rc;
}

int MsgBusGet(const char*, MsgBusValue* value) {
    *value = {};
    value->value = platform.reads_before_ready-- > 0 ? 0 : 1;
    return 0;
}

int settings_get_features(settings_features* features) {
    features->power_saving = 1;
    features->fota_enabled = 1;
    return answer(__func__, SETTINGS_SUCCESS);
}

int xmldata_getuint32_default(const char* key, uint32_t* value, uint32_t default_value) {
    const std::string* text = find_xml(key);
    *value = text == nullptr ? default_value : static_cast<uint32_t>(std::stoul(*text));
    return 0;
}

int xmldata_getstring_default(const char* key, char* text, int max_length, const char* default_text) {
    const std::string* found = find_xml(key);
    snprintf(text, static_cast<size_t>(max_length) + 1, "%s",
             found == nullptr ? default_text : found->c_str());
    return 0;
}

int xmldata_getcount(const char* key, int* count) {
    *count = find_xml(key) != nullptr ? 1 : 0;
    return 0;
}

void xmldata_shutdown(void) {}

int modem2_get_info(modem2_info* info) {
    *info = {};
    platform.modem_version.copy(info->fw_version, sizeof info->fw_version - 1);
    return 0;
}

void vexa_dbg_log(const char*, int, const char* format, ...) {
    char text[8192] = "";
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    const platform_guard guard(platform_mutex);
    platform.debug_log += text;
}

void vexa_dbg_syslog(int, const char*, ...) {}
void vexa_dbg_context(const char*, const char*, uint32_t) {}

const char* vexa_dbg_get_level_name(int level) {
    return level == 5 ? "NOTICE" : "OTHER";
}

}  // extern "C"
