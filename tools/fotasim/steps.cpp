#include "steps.h"

#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "common/state_files.h"
#include "fota/fota_client.h"
#include "tools/common/output.h"
#include "tools/play/device.h"

namespace {

namespace fs = std::filesystem;

constexpr int TIMEOUT_MS = 10000;
constexpr size_t LINES_SHOWN = 15;
constexpr int HAND_OVER_LIMIT_MS = 10000;
constexpr uint32_t STATUS_VERSION_MISMATCH = 403;
constexpr char WAKE_LOCK[] = "/run/vexa/powersave/fota";

std::string text_of(int result) {
    const char* const name = fota_result_name(result);
    if (name == nullptr) return "unknown result " + std::to_string(result);
    return std::string(name) + ", " + fota_result_meaning(result);
}

// Where its text is left alone, that it does not throw is all that counts.
std::string require_success(int result) {
    return require_result(result, FOTA_RC_SUCCESS);
}

std::string outcome_text(const fota_history_rec& record) {
    return "record " + std::to_string(record.rec_id) + ", " + std::to_string(record.status) + " " +
           in_quotes(field_text(record.reason));
}

// What the bus holds under a key; zero when it holds nothing of that form.
template <typename T>
T bus_value(const char* key) {
    const std::string bytes = device_read(std::string(DEVICE_MSGBUS_FOLDER) + "/" + key);
    T value{};
    if (bytes.size() == sizeof value) std::memcpy(&value, bytes.data(), sizeof value);
    return value;
}

// A refusal ends the update, but is an outcome of its own.
std::string refuse(player& p, int result, uint32_t recorded_status) {
    p.refused_status = recorded_status;
    p.details = last_lines(DEVICE_DEBUG_LOG, ":[ERROR]", p.log_begin);
    return text_of(result);
}

std::string take_outcome(const player& p, int result) {
    const std::string answer = require_success(result);
    if (p.session.outcome.rec_id == 0) throw unexpected(outcome_text(p.session.outcome));
    return answer + ": " + outcome_text(p.session.outcome);
}

std::string history_line(const fota_history_rec& record) {
    const fota_pkg_info& info = record.pkg_info;
    std::string versions = escaped(field_text(info.pkg_ver));
    if (record.rec_type == FOTA_REC_REVERT) versions += " (" + escaped(field_text(info.pkg_name)) + ")";
    return std::string("#").append(std::to_string(record.rec_id)) + "  " +
           escaped(field_text(record.update_date)) + "  " + escaped(field_text(info.agent_name)) + "  " +
           versions + "  " + std::to_string(record.status) + " " + in_quotes(field_text(record.reason));
}

std::string boot_text() {
    if (fs::exists(FOTA_STAGING_LPM)) return ", back in low-power mode";
    return fs::exists(FOTA_STAGING_SHUTDOWN) ? ", power off and on" : ", back online";
}

// A request that has to succeed, and tells no more.
template <agent_request request>
std::string ask(player& p) {
    return require_success(request(p.session));
}

std::string size_of(const char* path) {
    return size_text(fs::file_size(path)) + " in " + path;
}

std::string download(player& p) {
    (void)require_success(agent_download(p.session));
    return size_of(FOTA_UPGRADE_PKG);
}

std::string upload(player& p) {
    bring_package(p.session.package_fd, FOTA_WEBUI_UPLOAD, 1, p.session.progress);
    return size_of(FOTA_WEBUI_UPLOAD);
}

template <int (*request)(uint32_t* bytes, int timeout_ms)>
std::string ask_room(player& p) {
    uint32_t bytes = 0;
    const std::string answer = require_success(request(&bytes, p.session.timeout_ms));
    struct stat package {};
    fstat(p.session.package_fd, &package);
    if (package.st_size > bytes) throw unexpected("the package is larger than " + size_text(bytes));
    return answer + ": " + size_text(bytes);
}

int32_t upgrade_status() {
    int32_t status = -1;
    (void)require_success(fota_client_get_upgrade_status(&status, TIMEOUT_MS));
    return status;
}

std::string stop_daemon(player& p) {
    const int status = daemon_end(p.daemon, SIGTERM);
    if (status != 0) throw unexpected("fotad ended with status " + std::to_string(status));
    return "ended with status 0";
}

std::string validate(player& p) {
    const int result = agent_validate(p.session);
    const std::string record = ": record " + std::to_string(p.session.rec_id);
    if (result == FOTA_RC_FAILURE && p.session.rec_id != 0) {
        return refuse(p, result, FOTA_STATUS_VALIDATION_FAILED) + record;
    }
    (void)require_success(result);
    if (fs::exists(FOTA_STAGING_FULL_FOTA) != p.path.full_image) {
        throw unexpected(p.path.full_image ? "not a full-image package" : "a full-image package");
    }
    return text_of(result) + record;
}

std::string get_current_record(player& p) {
    const std::string answer = require_success(agent_pending_record(p.session));
    const fota_history_rec& record = p.session.pending;
    if (record.rec_id != p.session.rec_id || record.status != FOTA_STATUS_PENDING) {
        throw unexpected(outcome_text(record));
    }
    return answer + ": " + outcome_text(record);
}

std::string sideload_prepare(player& p) {
    const int result = agent_sideload_prepare(p.session);
    if (result == FOTA_RC_PKG_INVALID) {
        throw unexpected(text_of(result) + "; this path takes what 'fotapkg bundle' makes");
    }
    return require_success(result);
}

std::string sideload_start(player& p) {
    const int result = agent_sideload_start(p.session);
    if (result == FOTA_RC_PKG_VALIDATION_FAILED) return refuse(p, result, FOTA_STATUS_VALIDATION_FAILED);
    if (result == FOTA_RC_SRC_VERSION_MISMATCH) return refuse(p, result, STATUS_VERSION_MISMATCH);
    return require_success(result) + ": installing takes about " + duration_text(p.session.estimate_secs);
}

std::string sua_start(player& p) {
    p.session.device = device_information();
    return require_success(agent_script_start(p.session));
}

// Reads what the daemon says of the device, and leaves the package and its description.
std::string update_tool(player& p) {
    const fota_device_info& info = p.session.device;
    const std::pair<const char*, std::string> facts[] = {
        {FOTA_DEVICE_DETAILS_MDN, info.mdn},
        {FOTA_DEVICE_DETAILS_IMEI, info.imei},
        {FOTA_DEVICE_DETAILS_MODEL, info.model},
        {FOTA_DEVICE_DETAILS_SWV, std::string("VX-") + info.modem_version + "-" + info.os_version}};
    for (const auto& [path, fact] : facts) {
        const std::string read = device_read(path);
        p.details.push_back(fs::path(path).filename().string() + " " + in_quotes(read));
        if (read != fact) throw unexpected("not what the device was said to be");
    }
    run_update_tool(p.session.package_fd);
    return size_of(TOOL_PACKAGE);
}

std::string factory_reset(player& p) {
    p.reset = true;
    const std::string answer = require_success(fota_client_factory_reset(p.session.timeout_ms));
    (void)require_result(agent_pending_record(p.session), FOTA_RC_INVALID_PARAM);
    return answer + "; the session is gone";
}

std::string ask_as_other(player& p) {
    update_session other = {.agent = "another-agent"};
    const int result = agent_lock(other);
    (void)require_result(result, static_cast<int>(p.path.other_answer));
    return fota_result_name(result) + ("; upgrade status " + std::to_string(upgrade_status()));
}

std::string hand_over(player& p) {
    p.full_image = fs::exists(FOTA_STAGING_UPDATE_PRE_FULL_FOTA_INSTALL);
    const int limit_ms = static_cast<int>(p.session.wait_secs) * 1000 + HAND_OVER_LIMIT_MS;
    std::string asked = await_installation(p.full_image, limit_ms);
    if (asked.empty()) throw unexpected("nobody was asked to go on");
    if (asked.starts_with("init") != p.options.no_state_manager)
        throw unexpected("the wrong one was asked: " + asked);
    if (!p.full_image) return asked;
    // Its script runs while the device is up; when it fails, the outcome is recorded before the reset.
    if (!fs::exists(FOTA_STAGING_UPDATE_PRE_FULL_FOTA_INSTALL)) throw unexpected("the upgrade script failed");
    const int32_t status = upgrade_status();
    if (status != 2) throw unexpected("upgrade status " + std::to_string(status));
    return asked + "; upgrade status 2";
}

// The daemon runs once while the configurations are still being upgraded.
std::string boot_full_image(player& p) {
    // The fail-safe acts before anything else.
    if (!p.full_image || p.options.installer.revert_code) return "";
    if (!p.options.installer.code) write_firmware();
    const std::string firmware = reboot(p);
    (void)start_daemon(p);  // this step has a line of its own
    const int32_t status = upgrade_status();
    if (status != 1) throw unexpected("upgrade status " + std::to_string(status));
    const std::string answer = ask_as_other(p);
    (void)stop_daemon(p);
    return firmware + "; " + answer;
}

std::string show_broadcasts(player&) {
    std::string text = "fota.upgrade_status " + std::to_string(bus_value<int64_t>("fota.upgrade_status"));
    if (const auto secs = bus_value<uint32_t>("fota.backup_before_update"); secs != 0) {
        text += "; fota.backup_before_update " + std::to_string(secs) + " s";
    }
    for (const char* key : {"fota.update_status", "fota.revert_status"}) {
        const fota_history_rec record = announced_record(key);
        if (record.rec_id != 0) text += std::string("; ") + key + " " + outcome_text(record);
    }
    return text;
}

std::string get_no_update_status(player& p) {
    const std::string answer = require_success(agent_update_status(p.session));
    const fota_history_rec& none = p.session.outcome;
    if (none.rec_id != 0) throw unexpected(outcome_text(none));
    return answer + ": " + in_quotes(field_text(none.reason));
}

std::string get_update_status(player& p) {
    if (p.options.installer.revert_code) return "";
    if (p.unrecorded) return get_no_update_status(p);
    return take_outcome(p, agent_update_status(p.session));
}

std::string get_revert_status(player& p) {
    if (!p.options.installer.revert_code || p.unrecorded) return "";
    return take_outcome(p, agent_revert_status(p.session));
}

std::string get_idle_status(player&) {
    const int32_t status = upgrade_status();
    if (status != 0) throw unexpected("an installation is still under way: " + std::to_string(status));
    return "0, nothing under way";
}

// As clients read it, and then held against the file.
std::string show_history(player& p) {
    fota_record_count listed{};
    (void)require_success(fota_client_get_record_count(&listed, TIMEOUT_MS));
    const char* next = listed.list;
    for (uint32_t i = 0; i < listed.count; ++i) {
        char* end = nullptr;
        const unsigned long rec_id = std::strtoul(next, &end, 10);
        next = *end == ',' ? end + 1 : end;
        fota_history_rec record{};
        (void)require_success(
            fota_client_get_record_by_id(static_cast<uint32_t>(rec_id), &record, TIMEOUT_MS));
        p.history.push_back(record);
        p.details.push_back(history_line(record));
    }
    const std::vector<fota_history_rec> stored = device_history();
    if (stored.size() != p.history.size() ||
        std::memcmp(stored.data(), p.history.data(), stored.size() * sizeof(fota_history_rec)) != 0) {
        throw unexpected("the records handed out are not those of the file");
    }
    return "records: " + std::to_string(listed.count);
}

// After a fall-back the package may stay for another attempt.
std::string find_left_overs(player& p) {
    std::string found;
    for (const char* path :
         {FOTA_SESSION_LOCK, FOTA_TRACKING, FOTA_UPGRADE_PKG, FOTA_STAGING_DIR, FOTA_RESULT_PROCESSED,
          FOTA_REVERT_PROCESSED, FOTA_PKG_DETAILS, FOTA_PKG_DETAILS_ENCRYPTED, FOTA_DECRYPT_TEMP,
          FOTA_SIDELOAD_COOKIE, FOTA_SIDELOAD_TMP_DIR, FOTA_WEBUI_UPLOAD, FOTA_REVERT_MARKER, WAKE_LOCK}) {
        if (p.options.installer.revert_code && std::strcmp(path, FOTA_UPGRADE_PKG) == 0) continue;
        // A decryption that failed leaves these two, empty.
        const bool may_be_empty = path == FOTA_PKG_DETAILS_ENCRYPTED || path == FOTA_DECRYPT_TEMP;
        std::error_code none;
        if (may_be_empty && fs::is_empty(path, none)) continue;
        if (fs::exists(path)) found += std::string(" ") + path;
    }
    if (!found.empty()) throw unexpected("left over:" + found);
    return fs::exists(FOTA_UPGRADE_PKG) ? "none but the package" : "none";
}

std::string show_files(player& p) {
    std::string names;
    for (const std::string& path : p.options.shown_files) {
        names += (names.empty() ? "" : ", ") + escaped(path) + (fs::exists(path) ? "" : " does not exist");
        const std::vector<std::string> lines = last_lines(path);
        p.details.insert(p.details.end(), lines.begin(), lines.end());
    }
    return names;
}

// clang-format off
constexpr play_step OTA_SESSION[] = {
    {"create session lock",  ask<agent_lock>},
    {"maximum package size", ask_room<fota_client_get_max_pkg_size>},
    {"download",             download},
    {"validate",             validate},
    {"current record",       get_current_record},
    {"defer once",           ask<agent_defer>},
};

constexpr play_step OTA_START[] = {
    {"start installation",   ask<agent_start>},
    {"another agent",        ask_as_other},
};

constexpr play_step SIDELOAD[] = {
    {"maximum package size", ask_room<fota_client_get_sideload_max_pkg_size>},
    {"upload",               upload},
    {"prepare package",      sideload_prepare},
    {"start installation",   sideload_start},
    {"another agent",        ask_as_other},
};

constexpr play_step SUA[] = {
    {"start update",         sua_start},
    {"update tool",          update_tool},
    {"another agent",        ask_as_other},
};

constexpr play_step INSTALL[] = {
    {"hand over",            hand_over},
    {"broadcasts",           show_broadcasts},
    {"stop daemon",          stop_daemon},
    {"boot full image",      boot_full_image},
    {"installer",            install},
    {"reboot",               reboot},
    {"start daemon",         start_daemon},
    {"update status",        get_update_status},
    {"revert status",        get_revert_status},
    {"upgrade status",       get_idle_status},
};

constexpr play_step FACTORY_RESET[] = {
    {"factory reset",        factory_reset},
    {"update status",        get_no_update_status},
    {"upgrade status",       get_idle_status},
};

constexpr play_path PATHS[] = {
    {"ota", "an agent downloads the package, validates it and starts its installation",
     "dm-agent", "OTA", false, FOTA_RC_LOCK_NOT_AVAILABLE, {OTA_SESSION, OTA_START, INSTALL}, {}},
    {"sideload", "a user uploads the package as a bundle of signed pieces",
     "web-ui", "Sideload", false, FOTA_RC_SIDELOAD_IN_PROGRESS, {SIDELOAD, INSTALL},
     {"--wait", "--boot"}},
    {"sua", "an external tool brings the package, any file, into the staging folder",
     "SUA", "SUA", false, FOTA_RC_LOCK_NOT_AVAILABLE, {SUA, INSTALL},
     {"--wait", "--boot", "--agent"}},
    {"full-image", "as ota, with a package that brings its own upgrade script",
     "dm-agent", "OTA", true, FOTA_RC_FULL_FOTA_IN_PROGRESS, {OTA_SESSION, OTA_START, INSTALL},
     {"--wait"}},
    {"factory-reset", "as ota, with a factory reset before the installation",
     "dm-agent", "OTA", false, FOTA_RC_SUCCESS, {OTA_SESSION, FACTORY_RESET},
     {"--wait", "--boot", "--installer", "--revert"}},
};

constexpr play_step ENDING[] = {
    {"history",              show_history},
    {"broadcasts",           show_broadcasts},
    {"left-over files",      find_left_overs},
    {"stop daemon",          stop_daemon},
    {"show",                 show_files},
};
// clang-format on

}  // namespace

std::string require_result(int result, int expected) {
    if (result != expected) throw unexpected(text_of(result));
    return text_of(result);
}

std::string in_quotes(std::string_view text) {
    return std::string("\"").append(escaped(text)).append("\"");
}

std::vector<std::string> last_lines(const std::string& path, std::string_view text, size_t begin) {
    std::ifstream file(path);
    file.seekg(static_cast<std::streamoff>(begin));
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);) {
        if (line.find(text) != std::string::npos) lines.push_back(escaped(line));
    }
    lines.erase(lines.begin(), lines.end() - static_cast<ptrdiff_t>(std::min(lines.size(), LINES_SHOWN)));
    return lines;
}

fota_history_rec announced_record(const char* key) {
    return bus_value<fota_history_rec>(key);
}

pid_t start_fotad(const std::string& program_folder) {
    const pid_t daemon = daemon_launch(daemon_program(program_folder));
    if (daemon > 0 && daemon_wait_ready(daemon)) return daemon;
    const std::vector<std::string> log = last_lines(DEVICE_DEBUG_LOG);
    throw unexpected(std::string("fotad does not ") + (daemon < 0 ? "start" : "answer") +
                     (log.empty() ? "" : "; its log ends with: " + log.back()));
}

std::string start_daemon(player& p) {
    p.daemon = start_fotad(p.options.program_folder);
    return "answers as process " + std::to_string(p.daemon);
}

std::string install(player& p) {
    const installer_outcome& outcome = p.options.installer;
    p.target = staged_version();
    if (!run_installer(outcome, p.full_image)) {
        throw unexpected("the staging folder does not call for an installation");
    }
    if (outcome.code) return "failed with " + std::to_string(*outcome.code) + boot_text();
    std::string text = "wrote " + escaped(p.target);
    if (outcome.revert_code) {
        return text + "; boot fail-safe: " + std::to_string(*outcome.revert_code) + ", went back";
    }
    if (outcome.modem_pri == configuration::FAILED) text += std::string(", ") + PRI_MODEM_TEXT;
    if (outcome.linux_pri == configuration::FAILED) text += std::string(", ") + PRI_LINUX_TEXT;
    return text + boot_text();
}

std::string reboot(player& p) {
    device_reboot();
    if (p.options.no_state_manager) fs::remove_all(DEVICE_DSM_FOLDER);
    return "firmware " + escaped(device_read_line(FOTA_OS_VERSION));
}

std::span<const play_path> all_paths() {
    return PATHS;
}

std::span<const play_step> ending_steps() {
    return ENDING;
}
