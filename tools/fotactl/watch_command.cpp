#include "watch_command.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "common/file_helpers.h"
#include "common/state_files.h"
#include "device_state.h"
#include "file_watch.h"
#include "record_output.h"
#include "report.h"
#include "tools/common/end_signals.h"
#include "tools/common/json_line.h"
#include "tools/common/script_progress.h"
#include "tools/common/times.h"

namespace {

using nlohmann::ordered_json;

enum class content {
    NONE,      // a flag
    REPLACED,  // each version is news, whatever it holds
    TEXT,      // the first line
    SIZE,
    SECONDS,  // of 4 or 8 bytes, the lowest first
    STATUS,   // the same; of an installation
    RECORD,
    RECORD_ID,
    PROGRESS  // what a script says of itself
};

// What it means when a file comes, and when it goes; {} stands for what it holds. Null: says nothing.
struct sign {
    const char* path;
    content form;
    const char* there;
    const char* gone;
};

// clang-format off
constexpr sign SIGNS[] = {
    // The queue and the services of the host platform; where another platform keeps them elsewhere they stay silent.
    {"/dev/mqueue" FOTA_REQUEST_QUEUE,              content::NONE,    "daemon started", "daemon ended"},
    {"/run/vexa/msgbus/fota.upgrade_status",        content::STATUS,  "broadcast fota.upgrade_status: {}", nullptr},
    {"/run/vexa/msgbus/fota.update_status",         content::RECORD,  "broadcast fota.update_status: {}", nullptr},
    {"/run/vexa/msgbus/fota.revert_status",         content::RECORD,  "broadcast fota.revert_status: {}", nullptr},
    {"/run/vexa/msgbus/fota.backup_before_update",  content::SECONDS, "broadcast fota.backup_before_update: an installation begins in {}", nullptr},
    {"/run/vexa/dsm/persistent_mode",               content::TEXT,    "device switches to run level {}", nullptr},
    {"/run/vexa/dsm/reset_device",                  content::NONE,    "device resets", nullptr},

    {FOTA_SESSION_LOCK,         content::TEXT,     "session lock taken by {}", "session lock released"},
    {FOTA_SIDELOAD_COOKIE,      content::NONE,     "side-load begun: other requests are refused", "side-load ended: requests are served again"},
    {FOTA_WEBUI_UPLOAD,         content::SIZE,     "upload there: {}", "upload gone"},
    {FOTA_UPGRADE_PKG,          content::SIZE,     "package there: {}", "package gone"},
    {FOTA_TRACKING,             content::RECORD_ID,  "record {} is that of the update under way", "no update under way any more"},
    {FOTA_HISTORY_DB,           content::REPLACED, "history written", "history gone"},
    {FOTA_RESULT_PROCESSED,     content::RECORD_ID,  "outcome of record {} waits to be asked for", "outcome is no longer waiting"},
    {FOTA_REVERT_PROCESSED,     content::RECORD_ID,  "fall-back of record {} waits to be asked for", "fall-back is no longer waiting"},
    {FOTA_FACTORY_CFG_REC,      content::RECORD_ID,  "record {} is the factory configuration", nullptr},
    {FOTA_UPDATE_CHECK,         content::TEXT,     "updates were last looked for at {}", nullptr},
    {FOTA_RECOVERY_DEBUG_MODE,  content::NONE,     "device stays in recovery mode", "device no longer stays in recovery mode"},

    {FOTA_STAGING_UPDATE_DLPKG_VERIFIED,        content::NONE, "package validated", nullptr},
    {FOTA_STAGING_LPM,                          content::NONE, "device is to come back in low-power mode", nullptr},
    {FOTA_STAGING_SHUTDOWN,                     content::NONE, "device is to stay off after the installation", nullptr},
    {FOTA_STAGING_UPDATE_PRE_INSTALL,           content::NONE, "installation started", nullptr},
    {FOTA_STAGING_UPDATE_PRE_FULL_FOTA_INSTALL, content::NONE, "full-image installation started: other requests are refused", "full-image installation ended"},
    {SCRIPT_PROGRESS,                           content::PROGRESS, "installation says: {}", nullptr},
    {FOTA_STAGING_SUA_COOKIE,                   content::NONE, "script-driven update started", nullptr},
    {FOTA_STAGING_UPDATE_SUCCESS,               content::NONE, "installer succeeded", nullptr},
    {FOTA_STAGING_UPDATE_FAILURE,               content::TEXT, "installer failed with code {}", nullptr},
    {FOTA_STAGING_UPDATE_FAILURE_REASON,        content::TEXT, "installer says why: {}", nullptr},
    {FOTA_STAGING_PRI_LINUX_SUCCESS,            content::NONE, "Linux PRI updated", nullptr},
    {FOTA_STAGING_PRI_LINUX_FAILURE,            content::TEXT, "Linux PRI not updated: {}", nullptr},
    {FOTA_STAGING_PRI_MODEM_SUCCESS,            content::NONE, "modem PRI updated", nullptr},
    {FOTA_STAGING_PRI_MODEM_FAILURE,            content::TEXT, "modem PRI not updated: {}", nullptr},
    {FOTA_REVERT_MARKER,                        content::NONE, "boot fail-safe went back to the previous firmware", nullptr},
};
// clang-format on

constexpr char NOT_READABLE[] = "(gone, or not readable)";

struct told_content {
    std::string words;
    ordered_json data = nullptr;
};

// 0 bytes of a file that cannot be read, or is gone again.
size_t read_bytes(const char* path, void* out, size_t size) {
    const file_ptr stream = open_regular_for_reading(path);
    return stream ? fread(out, 1, size, stream.get()) : 0;
}

told_content integer_content(const sign& sign) {
    int64_t number = 0;
    const size_t size = read_bytes(sign.path, &number, sizeof number);
    if (size != 4 && size != 8) return {NOT_READABLE};
    if (sign.form == content::SECONDS) return {duration_text(static_cast<uint32_t>(number)), number};
    const auto status = static_cast<int32_t>(number);
    return {std::to_string(number) + ", " + upgrade_status_text(status), number};
}

told_content record_content(const char* path) {
    fota_history_rec record = {};
    if (read_bytes(path, &record, sizeof record) != sizeof record) return {NOT_READABLE};
    std::string words = "record " + std::to_string(record.rec_id) + ", " + std::to_string(record.status) +
                        " " + outcome_text(record);
    const std::string reason(field_text(record.reason));
    if (!reason.empty()) words += " (" + reason + ")";
    return {words, {{"record", record_json(record)}}};
}

told_content record_id_content(const char* path) {
    char line[FOTA_TEXT_SIZE];
    if (!read_first_line(path, line)) return {NOT_READABLE};
    const auto id = static_cast<uint32_t>(strtoul(line, nullptr, 0));
    return {std::to_string(id), {{"record_id", id}}};
}

told_content content_of(const sign& sign) {
    switch (sign.form) {
        case content::NONE:
        case content::REPLACED:
            break;
        case content::TEXT: {
            char line[FOTA_TEXT_SIZE];
            if (!read_first_line(sign.path, line)) return {NOT_READABLE};
            const std::string text = without_line_end(line);
            return {text.empty() ? "(nothing)" : text, text};
        }
        case content::SIZE: {
            const int64_t bytes = fota_get_file_size(sign.path);
            return {size_text(static_cast<uint64_t>(bytes)), bytes};
        }
        case content::SECONDS:
        case content::STATUS:
            return integer_content(sign);
        case content::RECORD:
            return record_content(sign.path);
        case content::RECORD_ID:
            return record_id_content(sign.path);
        case content::PROGRESS: {
            const std::string words = script_progress_words(find_text(sign.path).text);
            return {words.empty() ? "nothing that can be read" : words, words};
        }
    }
    return {};
}

std::string local_time() {
    const time_t now = time(nullptr);
    tm local = {};
    localtime_r(&now, &local);
    char text[64];
    strftime(text, sizeof text, "%F %T", &local);
    return text;
}

std::string filled_in(std::string words, const std::string& content) {
    const size_t place = words.find("{}");
    return place == std::string::npos ? words : words.replace(place, 2, content);
}

// Each line is out before the next thing happens. False when nobody can read it.
bool print_line(const options& options, const char* change, const char* path, const std::string& words,
                const ordered_json& data) {
    if (options.json) {
        const ordered_json line = {{"time", rfc3339_now()},
                                   {"change", change},
                                   {"path", path == nullptr ? ordered_json(nullptr) : ordered_json(path)},
                                   {"words", words},
                                   {"data", data}};
        print_json_line(line);
    } else {
        const bool is_before = strcmp(change, "before") == 0;
        printf("%-19s  %s\n", is_before ? "before" : local_time().c_str(), escaped(words).c_str());
    }
    return fflush(stdout) == 0;
}

bool print_change(const options& options, const sign& sign, file_change change) {
    if (change == file_change::GONE) {
        return sign.gone == nullptr || print_line(options, "gone", sign.path, sign.gone, nullptr);
    }
    const told_content content = content_of(sign);
    return print_line(options, change == file_change::BEFORE ? "before" : "there", sign.path,
                      filled_in(sign.there, content.words), content.data);
}

answer run_watch(const options& options) {
    const end_signals stop;
    std::vector<watched_file> files;
    for (const sign& sign : SIGNS) files.push_back({sign.path, sign.form == content::NONE});
    const file_watch watch = {
        files, [&](size_t file, file_change change) { return print_change(options, SIGNS[file], change); },
        [&] { return print_line(options, "watching", nullptr, "watching; Ctrl-C ends it", nullptr); },
        [](const std::string& trouble) { fprintf(stderr, "fotactl: watch: %s\n", trouble.c_str()); }};
    const int error = stop.fd < 0 ? errno : follow_files(watch, stop.fd);
    if (error == 0) return {.message = "Watching has ended."};
    return {.problem = "files cannot be watched: " + std::string(strerror(error)),
            .advice = "End other programs that watch files, or raise the limits in /proc/sys/fs/inotify."};
}

// clang-format off
constexpr command COMMANDS[] = {
    {nullptr, "watch", "Say what happens to updates on the device, as it happens, until Ctrl-C",
     "", {}, add_nothing, run_watch},
};
// clang-format on

}  // namespace

std::span<const command> watch_commands() {
    return COMMANDS;
}
