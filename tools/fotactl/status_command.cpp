#include "status_command.h"

#include <cerrno>
#include <cstdlib>

#include "common/file_helpers.h"
#include "common/flash_space.h"
#include "common/state_files.h"
#include "core/config.h"
#include "device_state.h"
#include "record_output.h"
#include "results/version_strings.h"
#include "tools/common/script_progress.h"

namespace {

using nlohmann::ordered_json;

constexpr int STATUS_TIMEOUT_SECS = 5;
constexpr char NO_PERMISSION[] = "this user may not look";

// Each fact goes to both, under the name that people read and the one that scripts do.
struct screen {
    answer told = {};
    ordered_json unknown = ordered_json::array();   // names of what this user may not know, for scripts
    ordered_json reasons = ordered_json::object();  // of everything that is not known, by its name

    void add(const char* name, const char* key, const std::string& text, const ordered_json& value) {
        told.lines.push_back({name, text});
        told.data[key] = value;
    }
    // For scripts alone; people read it in another line.
    void add_value(const char* key, bool is_forbidden, const ordered_json& value) {
        told.data[key] = is_forbidden ? ordered_json(nullptr) : value;
        if (is_forbidden) forbid(key);
    }
    void add_forbidden(const char* name, const char* key) {
        add_unknown(name, key, NO_PERMISSION);
        forbid(key);
    }
    void add_unknown(const char* name, const char* key, const std::string& reason) {
        add(name, key, "unknown: " + reason, nullptr);
        reasons[key] = reason;
    }

private:
    void forbid(const char* key) {
        unknown.push_back(key);
        reasons[key] = NO_PERMISSION;
    }
};

std::string flat(const char (&field)[255]) {
    return std::string(field_text(field));
}

std::string outcome_line(const fota_history_rec& record) {
    std::string text = "record " + std::to_string(record.rec_id) + ", " + flat(record.update_date) + ": " +
                       std::to_string(record.status) + ", " + outcome_text(record);
    if (record.reason[0] != '\0') text += " (" + flat(record.reason) + ")";
    return text;
}

// Whether the daemon runs, and its answer to the one request that it never refuses.
void show_daemon(screen& screen, const options& options, int32_t* upgrade_status) {
    const int result = fota_client_get_upgrade_status(upgrade_status, options.timeout_ms);
    screen.told.result = result;
    if (result == FOTA_CLIENT_TIMEOUT) screen.told.advice = BUSY_ADVICE;
    switch (result) {
        case FOTA_RC_SUCCESS:
            return screen.add("daemon", "daemon", "runs", "runs");
        case FOTA_CLIENT_NO_DAEMON:
            return screen.add("daemon", "daemon", "does not run; below is what its files tell",
                              "not_running");
        case FOTA_CLIENT_NO_PERMISSION:
            return screen.add("daemon", "daemon",
                              "may not be asked by this user; below is what its files tell", "no_permission");
        default:
            return screen.add("daemon", "daemon", "gives no answer; below is what its files tell",
                              "no_answer");
    }
}

// Why the daemon did not tell.
std::string no_answer(const screen& screen) {
    switch (screen.told.result) {
        case FOTA_CLIENT_NO_DAEMON:
            return "the daemon does not run";
        case FOTA_CLIENT_NO_PERMISSION:
            return "this user may not ask the daemon";
        default:
            return "the daemon gives no answer";
    }
}

void show_firmware(screen& screen) {
    char version[FOTA_TEXT_SIZE];
    const bool known = construct_fota_version_string_from_device(version) == FOTA_RC_SUCCESS;
    if (!known)
        return screen.add_unknown("firmware", "firmware", std::string(FOTA_OS_VERSION) + " cannot be read");
    screen.add("firmware", "firmware", version, version);
}

void show_session(screen& screen, const found_text& owner) {
    if (owner.found == finding::NO_PERMISSION) return screen.add_forbidden("session", "session_owner");
    if (owner.found == finding::ABSENT) return screen.add("session", "session_owner", "none", nullptr);
    std::string words = owner.text.empty() ? "of nobody" : "of " + owner.text;
    if (is_session_of_nobody()) words += std::string("; ") + END_SESSION_OF_NOBODY;
    screen.add("session", "session_owner", words, owner.text);
}

// What a script of the package says, or the installer.
void show_script_progress(screen& screen, const std::string& stage) {
    const std::string words =
        stage == STAGE_INSTALLING ? script_progress_words(find_text(SCRIPT_PROGRESS).text) : "";
    if (words.empty()) return screen.add_value("progress", false, nullptr);
    screen.add("progress", "progress", words, words);
}

// `upgrade_status` is the daemon's, which knows of waits that no file tells of.
void show_stage(screen& screen, const found_text& owner, int32_t upgrade_status) {
    finding found = finding::ABSENT;
    const update_stage* const stage = find_stage(&found);
    const finding full_image = find_flag(FOTA_STAGING_FULL_FOTA);
    const update_path path = find_update_path(owner);
    std::string marks = update_path_words(path);
    if (full_image == finding::PRESENT) marks += marks.empty() ? "full image" : ", full image";
    std::string words = stage == nullptr ? "idle" : stage->words;
    const std::string stage_key = stage == nullptr ? NO_STAGE : stage->key;
    if (stage_key == STAGE_VALIDATED && upgrade_status != 0)
        words = "installation started, begins when its wait is over";
    if (found == finding::NO_PERMISSION) {
        screen.add_forbidden("stage", "stage");
    } else {
        screen.add("stage", "stage", marks.empty() ? words : words + " (" + marks + ")", stage_key);
    }
    show_script_progress(screen, stage_key);
    const std::string key = update_path_key(path);
    screen.add_value("path", path == update_path::UNKNOWN,
                     key.empty() ? ordered_json(nullptr) : ordered_json(key));
    screen.add_value("full_image", full_image == finding::NO_PERMISSION, full_image == finding::PRESENT);
}

void show_package(screen& screen) {
    const finding found = find_flag(FOTA_UPGRADE_PKG);
    if (found == finding::NO_PERMISSION) return screen.add_forbidden("package", "package_bytes");
    if (found == finding::ABSENT) return screen.add("package", "package_bytes", "none", nullptr);
    const auto bytes = static_cast<uint32_t>(fota_get_file_size(FOTA_UPGRADE_PKG));
    screen.add("package", "package_bytes", FOTA_UPGRADE_PKG + (", " + size_text(bytes)), bytes);
}

void show_pending_record(screen& screen, const found_history& history) {
    const char* const NAME = "pending record";
    const char* const KEY = "pending_record";
    const found_text tracking = find_text(FOTA_TRACKING);
    if (tracking.found == finding::ABSENT) return screen.add(NAME, KEY, "none", nullptr);
    if (tracking.found == finding::NO_PERMISSION || history.found == finding::NO_PERMISSION)
        return screen.add_forbidden(NAME, KEY);
    const auto id = static_cast<uint32_t>(strtoul(tracking.text.c_str(), nullptr, 0));
    const fota_history_rec* const record = record_of(history, id);
    if (record == nullptr) {
        return screen.add(NAME, KEY, std::to_string(id) + ", which the history does not have", nullptr);
    }
    screen.add(NAME, KEY,
               std::to_string(id) + ", " + flat(record->pkg_info.pkg_ver) + ", deferred " +
                   std::to_string(record->install_defer_count) + " times",
               record_json(*record));
}

void show_upgrade_status(screen& screen, int32_t status) {
    // What it means is the stage's to say, which also knows of what was begun before the daemon's last start.
    screen.add_value("upgrade_status", false,
                     screen.told.result == FOTA_RC_SUCCESS ? ordered_json(status) : ordered_json(nullptr));
    if (screen.told.result != FOTA_RC_SUCCESS) screen.reasons["upgrade_status"] = no_answer(screen);
}

// The largest package, and whether there is room for it.
void show_limit(screen& screen, const char* name, const char* key, int result, uint32_t bytes) {
    switch (result) {
        case FOTA_RC_SUCCESS:
            return screen.add(name, key, "takes at most " + size_text(bytes), bytes);
        case FOTA_RC_NO_FLASH_SPACE:
            return screen.add(
                name, key, "takes nothing: no room for " + size_text(bytes) + ", the largest package", bytes);
        case FOTA_RC_SIDELOAD_IN_PROGRESS:
            return screen.add(name, key, "takes nothing until the side-load has ended", nullptr);
        case FOTA_RC_FULL_FOTA_IN_PROGRESS:
            return screen.add(name, key, "takes nothing until the full image is installed", nullptr);
        default:
            return screen.add_unknown(name, key,
                                      screen.told.result != FOTA_RC_SUCCESS
                                          ? std::string(FOTA_CONFIG_FILE) + " cannot be read"
                                          : "the daemon gives no answer");
    }
}

void show_limits(screen& screen, const options& options) {
    const bool has_config = fota_init_config() == FOTA_RC_SUCCESS;
    uint32_t bytes = fota_config.maximum_pkg_size, sideload_bytes = fota_config.sideload_maximum_pkg_size;
    const int without_daemon = has_config ? FOTA_RC_SUCCESS : FOTA_RC_FAILURE;
    const bool runs = screen.told.result == FOTA_RC_SUCCESS;
    const int result = runs ? fota_client_get_max_pkg_size(&bytes, options.timeout_ms) : without_daemon;
    const int sideload_result =
        runs ? fota_client_get_sideload_max_pkg_size(&sideload_bytes, options.timeout_ms) : without_daemon;
    show_limit(screen, "over the air", "max_bytes", result, bytes);
    show_limit(screen, "by side-load", "sideload_max_bytes", sideload_result, sideload_bytes);
}

void show_free_space(screen& screen) {
    const int32_t bytes = get_available_flash_space();
    if (bytes < 0)
        return screen.add_unknown("free space", "free_bytes",
                                  std::string(FOTA_DATA_DIR) + " cannot be looked into");
    // The daemon counts no further.
    const char* const more = bytes == INT32_MAX - FLASH_RESERVE_BYTES ? "at least " : "";
    screen.add("free space", "free_bytes",
               more + size_text(static_cast<uint32_t>(bytes)) + " for packages; 4 MiB more always stay free",
               bytes);
}

void show_last_outcome(screen& screen, const found_history& history) {
    if (history.found == finding::NO_PERMISSION) return screen.add_forbidden("last outcome", "last_outcome");
    const fota_history_rec* const record = newest_outcome(history);
    if (record == nullptr) return screen.add("last outcome", "last_outcome", "none", nullptr);
    screen.add("last outcome", "last_outcome", outcome_line(*record), record_json(*record));
}

answer run_status(const options& options) {
    screen screen;
    int32_t upgrade_status = 0;
    show_daemon(screen, options, &upgrade_status);
    const int error_number = errno;
    const found_text owner = find_text(FOTA_SESSION_LOCK);
    const found_history history = find_history();
    show_firmware(screen);
    show_session(screen, owner);
    show_stage(screen, owner, upgrade_status);
    show_package(screen);
    show_pending_record(screen, history);
    show_upgrade_status(screen, upgrade_status);
    show_limits(screen, options);
    show_free_space(screen);
    show_last_outcome(screen, history);
    screen.told.data["unknown"] = screen.unknown;
    screen.told.data["unknown_reasons"] = screen.reasons;
    errno = error_number;
    return screen.told;
}

// clang-format off
constexpr command COMMANDS[] = {
    {nullptr, "status", "Show on one screen where the device stands; changes nothing",
     "\n--json", fota_event{}, add_nothing, run_status, STATUS_TIMEOUT_SECS},
};
// clang-format on

}  // namespace

std::span<const command> status_commands() {
    return COMMANDS;
}
