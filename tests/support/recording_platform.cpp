#include "recording_platform.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "modem2.h"
#include "msgbus.h"
#include "msgq.h"
#include "vexa_dbg.h"
#include "watchdog.h"
#include "xmldata.h"

struct MsgBusHandle {};

namespace {

std::mutex platform_mutex;
RecordingPlatform platform;
MsgBusHandle bus_handle;

using platform_guard = std::lock_guard<std::mutex>;

// Records the call and gives the scripted answer.
int answer(int RecordingPlatform::*scripted, std::string call) {
    const platform_guard guard(platform_mutex);
    platform.calls.push_back(std::move(call));
    return platform.*scripted;
}

void record(std::string call) {
    const platform_guard guard(platform_mutex);
    platform.calls.push_back(std::move(call));
}

[[gnu::format(printf, 1, 0)]] std::string format_text(const char* format, va_list args) {
    char text[8192] = "";
    vsnprintf(text, sizeof text, format, args);
    return text;
}

const std::vector<std::string>* find_xml(const char* key) {
    const auto found = platform.xml_elements.find(key);
    return found == platform.xml_elements.end() || found->second.empty() ? nullptr : &found->second;
}

}  // namespace

RecordingPlatform& recording_platform() {
    return platform;
}

void recording_platform_reset() {
    const platform_guard guard(platform_mutex);
    platform = {};
}

bool logged(std::string_view part) {
    const platform_guard guard(platform_mutex);
    return std::ranges::any_of(platform.debug_lines, [part](const RecordedLine& line) {
        return line.text.find(part) != line.text.npos;
    });
}

bool called(std::string_view part) {
    const platform_guard guard(platform_mutex);
    return std::ranges::any_of(platform.calls,
                               [part](const std::string& call) { return call.find(part) != call.npos; });
}

std::vector<std::string> recorded_calls() {
    const platform_guard guard(platform_mutex);
    return platform.calls;
}

extern "C" {

MsgBusHandle* MsgBus_Create(const char* client) {
    record(std::string("MsgBus_Create ") + client);
    return recording_platform().msgbus_create_succeeds ? &bus_handle : nullptr;
}

int MsgBus_Connect(MsgBusHandle*) {
    return answer(&RecordingPlatform::msgbus_connect_rc, "MsgBus_Connect");
}

int MsgBus_SetCallback(MsgBusHandle*, MsgBusCallback) {
    return answer(&RecordingPlatform::msgbus_set_callback_rc, "MsgBus_SetCallback");
}

void MsgBus_Disconnect(MsgBusHandle*) {
    record("MsgBus_Disconnect");
}

void MsgBus_Release(MsgBusHandle*) {
    record("MsgBus_Release");
}

int MsgBusSetBinary(const char* key, const void* data, int size) {
    const int rc = answer(&RecordingPlatform::msgbus_set_binary_rc,
                          std::string("MsgBusSetBinary ") + key + " " + std::to_string(size));
    const platform_guard guard(platform_mutex);
    const auto* bytes = static_cast<const uint8_t*>(data);
    if (rc == 0) platform.published[key].assign(bytes, bytes + size);
    return rc;
}

int MsgBusSetInt64(const char* key, int64_t value) {
    return answer(&RecordingPlatform::msgbus_set_int64_rc,
                  std::string("MsgBusSetInt64 ") + key + " " + std::to_string(value));
}

int MsgBusGet(const char* key, MsgBusValue* value) {
    record(std::string("MsgBusGet ") + key);
    *value = {};
    const platform_guard guard(platform_mutex);
    const auto found = platform.bus_values.find(key);
    if (found == platform.bus_values.end() || found->second.ready_after_reads-- > 0) return -1;
    value->value = found->second.value;
    return 0;
}

int settings_get_features(settings_features* features) {
    features->power_saving = recording_platform().feature_power_saving;
    features->fota_enabled = recording_platform().feature_fota_enabled;
    return answer(&RecordingPlatform::settings_rc, "settings_get_features");
}

int xmldata_initialize(const char* path, const char*) {
    return answer(&RecordingPlatform::xmldata_initialize_rc, std::string("xmldata_initialize ") + path);
}

int xmldata_getuint32_default(const char* key, uint32_t* value, uint32_t default_value) {
    *value = default_value;
    const auto* texts = find_xml(key);
    if (texts == nullptr) return -1;
    const std::string& text = texts->front();
    return std::from_chars(text.data(), text.data() + text.size(), *value).ec == std::errc() ? 0 : -1;
}

int xmldata_getstring_default(const char* key, char* text, int max_length, const char* default_text) {
    const auto* texts = find_xml(key);
    snprintf(text, static_cast<size_t>(max_length) + 1, "%s",
             texts == nullptr ? default_text : texts->front().c_str());
    return texts == nullptr ? -1 : 0;
}

int xmldata_getcount(const char* key, int* count) {
    const auto* texts = find_xml(key);
    *count = texts == nullptr ? 0 : static_cast<int>(texts->size());
    return 0;
}

void xmldata_shutdown(void) {
    record("xmldata_shutdown");
}

int modem2_get_info(modem2_info* info) {
    record("modem2_get_info");
    *info = {};
    recording_platform().modem_version.copy(info->fw_version, sizeof info->fw_version - 1);
    return 0;
}

int dsm_set_persistent_mode(int run_level) {
    return answer(&RecordingPlatform::dsm_set_persistent_mode_rc,
                  "dsm_set_persistent_mode " + std::to_string(run_level));
}

int dsm_reset_device(int reason) {
    return answer(&RecordingPlatform::dsm_reset_device_rc, "dsm_reset_device " + std::to_string(reason));
}

int powersave_wakelock_acquire(const char* name) {
    return answer(&RecordingPlatform::powersave_acquire_rc,
                  std::string("powersave_wakelock_acquire ") + name);
}

int powersave_wakelock_release(const char* name) {
    return answer(&RecordingPlatform::powersave_release_rc,
                  std::string("powersave_wakelock_release ") + name);
}

int watchdog_application_register(const char* name, int on) {
    return answer(&RecordingPlatform::watchdog_rc,
                  std::string("watchdog_application_register ") + name + " " + std::to_string(on));
}

int watchdog_application_send_keep_alive(const char* name) {
    return answer(&RecordingPlatform::watchdog_rc,
                  std::string("watchdog_application_send_keep_alive ") + name);
}

void vexa_dbg_start(void) {}

void vexa_dbg_stop(void) {}

void vexa_dbg_log(const char*, int level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string text = format_text(format, args);
    va_end(args);
    const platform_guard guard(platform_mutex);
    platform.debug_lines.push_back({level, std::move(text), false});
}

void vexa_dbg_syslog(int priority, const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string text = format_text(format, args);
    va_end(args);
    const platform_guard guard(platform_mutex);
    const auto same = std::find_if(platform.debug_lines.rbegin(), platform.debug_lines.rend(),
                                   [&text](const RecordedLine& line) { return line.text == text; });
    if (same != platform.debug_lines.rend()) same->to_syslog = true;
    platform.syslog_lines.push_back({priority, std::move(text), true});
}

const char* vexa_dbg_get_level_name(int level) {
    return level == 3   ? "ERROR"
           : level == 5 ? "NOTICE"
           : level == 6 ? "INFO"
           : level == 7 ? "DEBUG"
                        : "UNKNOWN";
}

int msgq_create(const char*, int, int) {
    errno = ENOSYS;
    return -1;
}

int msgq_receive(int, void*, int, int) {
    errno = ENOSYS;
    return -1;
}

int msgq_resp_handler(const void*, int) {
    return -1;
}

}  // extern "C"
