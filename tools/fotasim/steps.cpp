#include "steps.h"

#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "common/state_files.h"
#include "device.h"
#include "fota/fota_client.h"
#include "tools/common/output.h"

namespace {

namespace fs = std::filesystem;

constexpr int TIMEOUT_MS = 10000;
constexpr int VALIDATION_TIMEOUT_MS = 300000;
constexpr size_t LINES_SHOWN = 15;
constexpr char OTHER_AGENT[] = "another-agent";
constexpr uint32_t STATUS_VERSION_MISMATCH = 403;
constexpr char WAKE_LOCK[] = "/run/vexa/powersave/fota";

std::string text_of(int result) {
    const char* const name = fota_result_name(result);
    if (name == nullptr) return "unknown result " + std::to_string(result);
    return std::string(name) + ", " + fota_result_meaning(result);
}

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

std::string require_room(const player& p, int result, uint32_t bytes) {
    const std::string answer = require_success(result);
    struct stat package {};
    fstat(p.options.package_fd, &package);
    if (package.st_size > bytes) throw unexpected("the package is larger than " + size_text(bytes));
    return answer + ": " + size_text(bytes);
}

// A refusal ends the update, but is an outcome of its own.
std::string refuse(player& p, int result, uint32_t recorded_status) {
    p.refused_status = recorded_status;
    p.details = last_lines(DEVICE_DEBUG_LOG, ":[ERROR]", p.log_begin);
    return text_of(result);
}

std::string take_outcome(player& p, int result) {
    const std::string answer = require_success(result);
    if (p.outcome.rec_id == 0) throw unexpected(outcome_text(p.outcome));
    return answer + ": " + outcome_text(p.outcome);
}

std::string history_line(const fota_history_rec& record) {
    const fota_pkg_info& info = record.pkg_info;
    std::string versions = escaped(field_text(info.pkg_ver));
    if (record.rec_type == FOTA_REC_REVERT) versions += " (" + escaped(field_text(info.pkg_name)) + ")";
    return std::string("#").append(std::to_string(record.rec_id)) + "  " +
           escaped(field_text(record.update_date)) + "  " + escaped(field_text(info.agent_name)) + "  " +
           versions + "  " + std::to_string(record.status) + " " + in_quotes(field_text(record.reason));
}

}  // namespace

std::string require_result(int result, int expected) {
    if (result != expected) throw unexpected(text_of(result));
    return text_of(result);
}

std::vector<fota_history_rec> read_history_file() {
    const std::string bytes = device_read(FOTA_HISTORY_DB);
    std::vector<fota_history_rec> records(bytes.size() / sizeof(fota_history_rec));
    if (!records.empty()) std::memcpy(records.data(), bytes.data(), records.size() * sizeof records[0]);
    std::erase_if(records, [](const fota_history_rec& record) { return record.rec_id == 0; });
    return records;
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

int32_t upgrade_status() {
    int32_t status = -1;
    require_success(fota_client_get_upgrade_status(&status, TIMEOUT_MS));
    return status;
}

fota_device_info device_information() {
    fota_device_info info{};
    std::strcpy(info.modem_version, "MDM2.1.07");
    std::strncpy(info.os_version, device_read_line(FOTA_OS_VERSION).c_str(), sizeof info.os_version - 1);
    std::strcpy(info.pri_version, "PRI-7");
    std::strcpy(info.imei, "004999010640000");
    std::strcpy(info.mdn, "15555550123");
    std::strcpy(info.model, "Hotspot");
    return info;
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

std::string stop_daemon(player& p) {
    const int status = daemon_end(p.daemon, SIGTERM);
    if (status != 0) throw unexpected("fotad ended with status " + std::to_string(status));
    return "ended with status 0";
}

std::string create_session_lock(player& p) {
    return require_success(fota_client_create_session_lock(p.agent, TIMEOUT_MS));
}

std::string get_max_size(player& p) {
    uint32_t bytes = 0;
    const int result = fota_client_get_max_pkg_size(&bytes, TIMEOUT_MS);
    return require_room(p, result, bytes);
}

std::string get_sideload_max_size(player& p) {
    uint32_t bytes = 0;
    const int result = fota_client_get_sideload_max_pkg_size(&bytes, TIMEOUT_MS);
    return require_room(p, result, bytes);
}

std::string validate(player& p) {
    fota_pkg_info info{};
    std::strncpy(info.agent_name, p.agent, sizeof info.agent_name - 1);
    std::strncpy(info.update_method, p.path.method, sizeof info.update_method - 1);
    std::strcpy(info.manufacturer, "Velmora");
    const int result =
        fota_client_validate_update_pkg(FOTA_UPGRADE_PKG, &info, &p.rec_id, VALIDATION_TIMEOUT_MS);
    const std::string record = ": record " + std::to_string(p.rec_id);
    if (result == FOTA_RC_FAILURE && p.rec_id != 0) {
        return refuse(p, result, FOTA_STATUS_VALIDATION_FAILED) + record;
    }
    require_success(result);
    if (fs::exists(FOTA_STAGING_FULL_FOTA) != p.path.full_image) {
        throw unexpected(p.path.full_image ? "not a full-image package" : "a full-image package");
    }
    return text_of(result) + record;
}

std::string get_current_record(player& p) {
    fota_history_rec record{};
    const std::string answer =
        require_success(fota_client_get_current_sess_record(p.agent, &record, TIMEOUT_MS));
    if (record.rec_id != p.rec_id || record.status != FOTA_STATUS_PENDING) {
        throw unexpected(outcome_text(record));
    }
    return answer + ": " + outcome_text(record);
}

std::string defer_once(player& p) {
    return require_success(fota_client_incr_install_defer_count(p.agent, TIMEOUT_MS));
}

std::string start_installation(player& p) {
    return require_success(fota_client_start_installation(p.agent, p.options.boot_preference,
                                                          p.options.wait_secs, VALIDATION_TIMEOUT_MS));
}

std::string sideload_prepare(player&) {
    const int result = fota_client_sideload_prepare_package(FOTA_WEBUI_UPLOAD, VALIDATION_TIMEOUT_MS);
    if (result == FOTA_RC_PKG_INVALID) {
        throw unexpected(text_of(result) + "; this path takes what 'fotapkg bundle' makes");
    }
    return require_success(result);
}

std::string sideload_start(player& p) {
    uint32_t estimate = 0;
    const int result =
        fota_client_sideload_start_installation(p.agent, FOTA_UPGRADE_PKG, &estimate, VALIDATION_TIMEOUT_MS);
    if (result == FOTA_RC_PKG_VALIDATION_FAILED) return refuse(p, result, FOTA_STATUS_VALIDATION_FAILED);
    if (result == FOTA_RC_SRC_VERSION_MISMATCH) return refuse(p, result, STATUS_VERSION_MISMATCH);
    return require_success(result) + ": installing takes about " + duration_text(estimate);
}

std::string sua_start(player&) {
    const fota_device_info info = device_information();
    return require_success(fota_client_sua_update_start(&info, TIMEOUT_MS));
}

std::string factory_reset(player& p) {
    p.reset = true;
    const std::string answer = require_success(fota_client_factory_reset(TIMEOUT_MS));
    fota_history_rec record{};
    require_result(fota_client_get_current_sess_record(p.agent, &record, TIMEOUT_MS), FOTA_RC_INVALID_PARAM);
    return answer + "; the session is gone";
}

std::string ask_as_other(player& p) {
    const int result = fota_client_create_session_lock(OTHER_AGENT, TIMEOUT_MS);
    require_result(result, static_cast<int>(p.path.other_answer));
    return fota_result_name(result) + ("; upgrade status " + std::to_string(upgrade_status()));
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

std::string get_update_status(player& p) {
    if (p.options.revert_code) return "";
    if (p.unrecorded) return get_no_update_status(p);
    return take_outcome(p, fota_client_get_update_status(p.agent, &p.outcome, TIMEOUT_MS));
}

std::string get_no_update_status(player& p) {
    fota_history_rec record{};
    const std::string answer = require_success(fota_client_get_update_status(p.agent, &record, TIMEOUT_MS));
    if (record.rec_id != 0) throw unexpected(outcome_text(record));
    return answer + ": " + in_quotes(field_text(record.reason));
}

std::string get_revert_status(player& p) {
    if (!p.options.revert_code || p.unrecorded) return "";
    return take_outcome(p, fota_client_get_revert_status(&p.outcome, TIMEOUT_MS));
}

std::string get_idle_status(player&) {
    const int32_t status = upgrade_status();
    if (status != 0) throw unexpected("an installation is still under way: " + std::to_string(status));
    return "0, nothing under way";
}

// As clients read it, and then held against the file.
std::string show_history(player& p) {
    fota_record_count listed{};
    require_success(fota_client_get_record_count(&listed, TIMEOUT_MS));
    const char* next = listed.list;
    for (uint32_t i = 0; i < listed.count; ++i) {
        char* end = nullptr;
        const unsigned long rec_id = std::strtoul(next, &end, 10);
        next = *end == ',' ? end + 1 : end;
        fota_history_rec record{};
        require_success(fota_client_get_record_by_id(static_cast<uint32_t>(rec_id), &record, TIMEOUT_MS));
        p.history.push_back(record);
        p.details.push_back(history_line(record));
    }
    const std::vector<fota_history_rec> stored = read_history_file();
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
        if (p.options.revert_code && std::strcmp(path, FOTA_UPGRADE_PKG) == 0) continue;
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
