#include "check_command.h"

#include <CLI/CLI.hpp>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>

#include "common/command.h"
#include "common/file_helpers.h"
#include "common/flash_space.h"
#include "common/state_files.h"
#include "core/config.h"
#include "device_state.h"
#include "record_output.h"
#include "results/version_strings.h"
#include "tools/common/files.h"
#include "tools/common/steps.h"
#include "tools/packages/archives.h"
#include "tools/packages/keys.h"
#include "tools/packages/package_checks.h"

namespace fs = std::filesystem;

namespace {

using nlohmann::ordered_json;

constexpr int CHECK_TIMEOUT_SECS = 5;
constexpr char AS_ROOT[] = "Try again as root.";
constexpr char GET_AGAIN[] = "Get the package again, from whoever makes packages for this device.";

enum class verdict { OK, OBSTACLE, UNCHECKED, REMARK };

struct verdict_name {
    const char* shown;
    const char* key;
    look style;
};
constexpr verdict_name VERDICTS[] = {{"ok", "ok", look::GOOD},
                                     {"NO", "obstacle", look::BAD},
                                     {"?", "unchecked", look::HEADING},
                                     {"note", "remark", look::PLAIN}};

struct checklist {
    const options& given;
    const std::string path = given.path;
    uint64_t size = 0;
    bool is_bundle = false;
    bool is_side_load = false;  // or else over the air
    bool daemon_answers = false;
    answer told = {};
    int obstacles = 0, unchecked = 0;

    // Where the daemon takes it from without a look at its size.
    [[nodiscard]] bool lies_in_place() const {
        return path == FOTA_UPGRADE_PKG || (is_side_load && path == FOTA_WEBUI_UPLOAD);
    }

    void add(const std::string& name, verdict kind, const std::string& found, const std::string& advice = "",
             int code = FOTA_RC_SUCCESS) {
        if (kind == verdict::OBSTACLE) ++obstacles;
        if (kind == verdict::UNCHECKED) ++unchecked;
        const verdict_name& shown = VERDICTS[static_cast<size_t>(kind)];
        told.table.rows.push_back(
            {name, {shown.shown, shown.style}, advice.empty() ? found : found + ". " + advice});
        ordered_json row = {{"name", name}, {"verdict", shown.key}, {"text", found}, {"advice", advice}};
        row["code"] = code == FOTA_RC_SUCCESS ? ordered_json(nullptr) : ordered_json(code);
        told.data["checks"].push_back(row);
    }
};

void check_daemon(checklist& list) {
    int32_t status = 0;
    const int result = fota_client_get_upgrade_status(&status, list.given.timeout_ms);
    list.told.result = result;
    list.daemon_answers = result == FOTA_RC_SUCCESS;
    if (result == FOTA_CLIENT_NO_DAEMON) {
        list.add("daemon", verdict::OBSTACLE, "it does not run", "Start fotad, as root.");
    } else if (result != FOTA_RC_SUCCESS) {
        list.add("daemon", verdict::UNCHECKED, fota_result_meaning(result));
        if (result == FOTA_CLIENT_TIMEOUT) list.told.advice = BUSY_ADVICE;
    } else {
        list.add("daemon", verdict::OK, "it runs and answers");
    }
    if (status != 0) {
        list.add("installation", verdict::OBSTACLE, upgrade_status_text(status),
                 "Try again when the device is back from it.");
    }
}

// What makes the daemon drop every request. `result` is its answer to one, if it gave any.
void check_other_update(checklist& list, int result) {
    const auto busy = [&](const char* flag, int code) {
        if (list.daemon_answers) return result == code ? finding::PRESENT : finding::ABSENT;
        return find_flag(flag);
    };
    const finding side_load = busy(FOTA_SIDELOAD_COOKIE, FOTA_RC_SIDELOAD_IN_PROGRESS);
    const finding full_image = busy(FOTA_STAGING_UPDATE_PRE_FULL_FOTA_INSTALL, FOTA_RC_FULL_FOTA_IN_PROGRESS);
    if (side_load == finding::PRESENT) {
        list.add("other update", verdict::OBSTACLE, "a side-load is in progress",
                 "Try again when it has ended.", FOTA_RC_SIDELOAD_IN_PROGRESS);
    } else if (full_image == finding::PRESENT) {
        list.add("other update", verdict::OBSTACLE, "a full image is being installed",
                 "Try again when the device has restarted.", FOTA_RC_FULL_FOTA_IN_PROGRESS);
    } else if (side_load == finding::NO_PERMISSION || full_image == finding::NO_PERMISSION) {
        list.add("other update", verdict::UNCHECKED,
                 "this user may not look into " + std::string(FOTA_STAGING_DIR), AS_ROOT);
    } else {
        list.add("other update", verdict::OK, "no side-load and no full image is in progress");
    }
}

void check_session(checklist& list) {
    const std::string& agent = list.given.agent;
    const found_text owner = find_text(FOTA_SESSION_LOCK);
    if (owner.found == finding::NO_PERMISSION) {
        list.add("session", verdict::UNCHECKED, "this user may not read " + std::string(FOTA_SESSION_LOCK),
                 AS_ROOT);
    } else if (owner.found == finding::ABSENT) {
        list.add("session", verdict::OK, "free to take");
    } else if (owner.text == agent) {
        list.add("session", verdict::OK, "belongs to " + agent);
    } else if (is_session_of_nobody()) {
        list.add("session", verdict::OBSTACLE, "belongs to nobody", std::string(END_SESSION_OF_NOBODY) + ".",
                 FOTA_RC_LOCK_NOT_AVAILABLE);
    } else {
        list.add("session", verdict::OBSTACLE,
                 "belongs to " + (owner.text.empty() ? "nobody who could give it back" : owner.text),
                 "Ask that agent to finish, or give its name with --agent if it is the one that updates.",
                 FOTA_RC_LOCK_NOT_AVAILABLE);
    }
}

// The limits that the daemon goes by: its answer, or what it would read at its start. `result` and `told` are
// its answer to the request for the largest package.
void check_size(checklist& list, bool has_config, int result, uint32_t told) {
    const uint64_t limit = fota_config.maximum_pkg_size;
    const std::string size = size_text(list.size);
    if (!has_config && result != FOTA_RC_SUCCESS) {
        list.add("size", verdict::UNCHECKED, FOTA_CONFIG_FILE + std::string(" cannot be read"),
                 "The daemon does not start without it.");
    } else if (list.size > 2 * limit && !list.is_bundle && !list.lies_in_place()) {
        list.add(
            "size", verdict::OBSTACLE, size + " is more than twice the limit of " + size_text(limit),
            "Get a smaller package; MaxPkgSizeAllowed in " + std::string(FOTA_CONFIG_FILE) + " is the limit.",
            FOTA_RC_PKG_TOO_BIG);
    } else if (list.size > told) {
        list.add("size", verdict::REMARK,
                 size + ", but clients that ask are told of " + size_text(told) + " at most");
    } else {
        list.add("size", verdict::OK, size + ", of " + size_text(told) + " at most");
    }
}

void check_space(checklist& list, int result, uint32_t told) {
    const int32_t available = get_available_flash_space();
    const fota_rc rc = fota_check_free_space(list.path.c_str(), nullptr);
    const bool is_short = rc == FOTA_RC_NO_FLASH_SPACE ||
                          (rc == FOTA_RC_PKG_TOO_BIG && available < static_cast<int64_t>(list.size));
    if (list.lies_in_place()) {
        list.add("flash space", verdict::OK, "it lies on flash already");
    } else if (available < 0) {
        list.add("flash space", verdict::UNCHECKED, "there is no " + std::string(FOTA_DATA_DIR),
                 "fotad makes it when it starts.");
    } else if (is_short) {
        list.add("flash space", verdict::OBSTACLE,
                 "only " + size_text(static_cast<uint32_t>(available)) + " are free for a package",
                 "Make room on the file system of " + std::string(FOTA_DATA_DIR) +
                     ", of which 4 MiB always stay free.",
                 FOTA_RC_NO_FLASH_SPACE);
    } else {
        list.add("flash space", verdict::OK, "there is room for it");
    }
    if (result == FOTA_RC_NO_FLASH_SPACE) {
        list.add("flash space", verdict::REMARK,
                 "clients that ask are told that there is none for the largest package, " + size_text(told));
    }
}

void check_limits(checklist& list, bool has_config, int result, uint32_t max_bytes) {
    uint32_t told = fota_config.maximum_pkg_size;
    if (result == FOTA_RC_SUCCESS) told = fota_config.maximum_pkg_size = max_bytes;
    if (list.is_side_load) {
        told = fota_config.sideload_maximum_pkg_size;
        if (list.daemon_answers) result = fota_client_get_sideload_max_pkg_size(&told, list.given.timeout_ms);
    }
    check_size(list, has_config, result, told);
    if (!list.is_bundle) check_space(list, result, told);
}

// Room that the daemon does not measure, but needs.
void check_room(checklist& list, const char* folder, uint64_t needed) {
    struct statvfs info = {};
    if (statvfs(folder, &info) != 0) return;
    const uint64_t bytes = static_cast<uint64_t>(info.f_bfree) * info.f_bsize;
    if (bytes < needed) {
        list.add(
            "room to unpack", verdict::OBSTACLE,
            "it takes " + size_text(needed) + " in " + folder + ", where " + size_text(bytes) + " are free",
            "Make room there.", FOTA_RC_FAILURE);
    }
}

void check_source_version(checklist& list, const std::vector<std::string>& sources) {
    char device[FOTA_TEXT_SIZE];
    if (construct_fota_version_string_from_device(device) != FOTA_RC_SUCCESS) {
        list.add("source version", verdict::UNCHECKED, FOTA_OS_VERSION + std::string(" cannot be read"));
        return;
    }
    list.told.data["firmware"] = device;
    std::string names;
    for (const std::string& source : sources) names += (names.empty() ? "" : ", ") + source;
    if (std::find(sources.begin(), sources.end(), device) != sources.end()) {
        list.add("source version", verdict::OK, "it updates this device's " + std::string(device));
    } else if (list.is_side_load) {
        list.add("source version", verdict::OBSTACLE,
                 "it updates " + names + ", but this device has " + device,
                 "Get the package that updates the installed version.", FOTA_RC_SRC_VERSION_MISMATCH);
    } else {
        list.add("source version", verdict::REMARK,
                 "it updates " + names + ", but this device has " + device +
                     "; only a side-load is refused for that");
    }
}

// Whether this user can read one of the device's keys; tells what cannot be checked when not.
bool check_key(checklist& list, const char* path, const char* needed_for) {
    const finding found = find_readable(path);
    if (found == finding::NO_PERMISSION) {
        list.add(needed_for, verdict::UNCHECKED, "this user may not read " + std::string(path), AS_ROOT);
    } else if (found == finding::ABSENT) {
        list.add(needed_for, verdict::OBSTACLE, "the device lacks " + std::string(path),
                 "Install its keys; without them it takes no package.", FOTA_RC_FAILURE);
    }
    return found == finding::PRESENT;
}

void add_results(checklist& list, const check_report& report) {
    const bool is_plain_side_load = list.is_side_load && !list.is_bundle;
    const fota_rc code = is_plain_side_load ? fota_rc{FOTA_RC_PKG_VALIDATION_FAILED} : report.answer;
    for (const check_result& result : report.results) {
        if (result.name == "file") continue;  // looked at before
        if (result.ok()) {
            list.add(result.name, verdict::OK, result.text);
        } else {
            list.add(result.name, verdict::OBSTACLE, result.text, GET_AGAIN, static_cast<int>(code));
        }
        for (const output_line& note : result.notes)
            list.add(note.name.empty() ? result.name : note.name, verdict::REMARK, note.value);
    }
}

void check_content(checklist& list) {
    if (list.is_bundle && !check_key(list, FOTA_BUILD_PUBKEY, "pieces")) return;
    if (list.given.json) hide_steps();
    clean_up_on_signals();  // no request, whose reply queue would stay, follows
    check_options how;
    how.keys = fs::path(FOTA_DEVICE_KEY).parent_path();
    how.without_device_key = find_readable(FOTA_DEVICE_KEY) != finding::PRESENT ||
                             find_readable(FOTA_BUILD_CERT) != finding::PRESENT;
    const check_report report = [&] {
        const patience_line line;
        return check_package_file(list.path, UNZIP_READER, how);
    }();
    add_results(list, report);
    if (how.without_device_key) {
        (void)check_key(list, FOTA_DEVICE_KEY, "decryption");
        (void)check_key(list, FOTA_BUILD_CERT, "signature");
        return;
    }
    if (!report.good()) return;
    list.told.data["source_versions"] = report.source_versions;
    if (!report.target_versions.empty()) list.told.data["target_version"] = report.target_versions.front();
    check_source_version(list, report.source_versions);
    check_room(list, FOTA_DATA_DIR, report.data_bytes + (list.lies_in_place() ? 0 : list.size));
    check_room(list, FOTA_WORK_DIR, report.work_bytes);
    if (list.is_bundle) check_room(list, fs::path(FOTA_SIDELOAD_TMP_DIR).parent_path().c_str(), list.size);
}

std::string counted(int number, const char* one, const char* several) {
    return std::to_string(number) + " " + (number == 1 ? one : several);
}

void conclude(checklist& list) {
    const std::string obstacles = counted(list.obstacles, "thing stands", "things stand") + " in its way";
    const std::string unchecked = "nothing that could be checked stands in its way, but " +
                                  counted(list.unchecked, "check", "checks") + " could not be made";
    std::string conclusion = "yes";
    std::string advice;
    if (list.obstacles > 0) {
        conclusion = "no, " + obstacles;
        advice = "The lines marked NO say what and what to do.";
    } else if (list.unchecked > 0) {
        conclusion = "unknown: " + unchecked;
        advice = "The lines marked ? say why.";
    }
    // Whether the daemon answers is the first thing to know.
    if (list.daemon_answers && !advice.empty()) {
        list.told.problem = list.obstacles > 0 ? obstacles : unchecked;
        list.told.advice = advice;
    }
    ordered_json would_be_taken = list.obstacles == 0;
    if (list.obstacles == 0 && list.unchecked > 0) would_be_taken = nullptr;
    list.told.data["would_be_taken"] = would_be_taken;
    list.told.lines = {{"package", list.path + ", " + size_text(list.size)},
                       {"comes", list.is_bundle      ? "by side-load, as a bundle"
                                 : list.is_side_load ? "by side-load"
                                                     : "over the air"},
                       {"would be taken", conclusion}};
}

answer unreadable(const std::string& path, const std::string& why, const char* advice) {
    return {.result = FOTA_CLIENT_BAD_ARGUMENT, .problem = path + " " + why, .advice = advice};
}

answer run_check(const options& options) {
    const std::string& path = options.path;
    struct stat info = {};
    if (stat(path.c_str(), &info) != 0 || !can_open_for_reading(path.c_str())) {
        const int error = errno;
        return unreadable(path, std::string("cannot be read: ") + strerror(error),
                          error == EACCES ? AS_ROOT : "Give the path of a package on this device.");
    }
    if (!S_ISREG(info.st_mode))
        return unreadable(path, "is not a file", "Give the path of a package on this device.");

    checklist list{options};
    list.size = static_cast<uint64_t>(info.st_size);
    list.is_bundle = UNZIP_READER.has_member(path, fs::path(FOTA_SIDELOAD_PKG_LIST).filename());
    list.is_side_load = options.sideload || list.is_bundle;
    list.told.table.headings = {"CHECK", "RESULT", "FOUND"};
    list.told.data = {
        {"package", path},           {"package_bytes", list.size}, {"side_load", list.is_side_load},
        {"bundle", list.is_bundle},  {"firmware", nullptr},        {"source_versions", nullptr},
        {"target_version", nullptr}, {"would_be_taken", nullptr},  {"checks", ordered_json::array()}};
    check_daemon(list);
    const int error_number = errno;
    const bool has_config = fota_init_config() == FOTA_RC_SUCCESS;
    uint32_t max_bytes = fota_config.maximum_pkg_size;
    const int result = list.daemon_answers ? fota_client_get_max_pkg_size(&max_bytes, options.timeout_ms) : 0;
    check_other_update(list, result);
    check_session(list);
    if (!is_shell_safe(path.c_str())) {
        list.add("path", verdict::OBSTACLE, "it holds a blank or a sign that means something to a shell",
                 "Rename the file; the daemon refuses such paths.", FOTA_RC_FAILURE);
    }
    check_limits(list, has_config, result, max_bytes);
    try {
        check_content(list);
    } catch (const std::exception& error) {
        list.add("content", verdict::UNCHECKED, error.what());
    }
    conclude(list);
    errno = error_number;
    return list.told;
}

void add_check(CLI::App& app, options& options) {
    add_path(app, options);
    add_agent_option(app, options);
    app.add_flag("--sideload", options.sideload, "The package is to come by side-load; a bundle always does");
}

// clang-format off
constexpr command COMMANDS[] = {
    {nullptr, "check", "Tell whether the device would take a package now, and all that stands in its way; changes nothing",
     "upgrade.zip\nbundle.zip", fota_event{}, add_check, run_check, CHECK_TIMEOUT_SECS},
};
// clang-format on

}  // namespace

std::span<const command> check_commands() {
    return COMMANDS;
}
