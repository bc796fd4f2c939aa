#include "play.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <thread>
#include <vector>

#include "common/state_files.h"
#include "device.h"
#include "fota_client.h"
#include "fotactl/output.h"
#include "sandbox.h"

namespace {

namespace fs = std::filesystem;

constexpr int TIMEOUT_MS = 10000;
constexpr int VALIDATION_TIMEOUT_MS = 300000;
constexpr size_t BLOCK_SIZE = 256UL * 1024;
constexpr size_t LINES_SHOWN = 15;

struct player {
    const play_options& options;
    pid_t daemon = -1;
    uint32_t rec_id = 0;         // made by the validation
    bool refused = false;        // by the validation
    fota_history_rec outcome{};  // as the daemon hands it out
};

// What ends the play as PLAY_UNEXPECTED.
struct unexpected : std::runtime_error {
    using std::runtime_error::runtime_error;
};

std::string text_of(int result) {
    const char* const name = fota_result_name(result);
    if (name == nullptr) return "unknown result " + std::to_string(result);
    return std::string(name) + ", " + fota_result_meaning(result);
}

std::string require_success(int result) {
    if (result != FOTA_RC_SUCCESS) throw unexpected(text_of(result));
    return text_of(result);
}

std::string quoted(std::string_view text) {
    return "\"" + escaped(text) + "\"";
}

std::string outcome_text(const fota_history_rec& record) {
    return "record " + std::to_string(record.rec_id) + ", " + std::to_string(record.status) + " " +
           quoted(field_text(record.reason));
}

void print_step(const char* name, const std::string& answer, std::chrono::steady_clock::time_point start) {
    const std::chrono::duration<double, std::milli> passed = std::chrono::steady_clock::now() - start;
    std::printf("%-22s %-82s %9.1f ms\n", name, answer.c_str(), passed.count());
    std::fflush(stdout);
}

void step(const char* name, const std::function<std::string()>& work) {
    const auto start = std::chrono::steady_clock::now();
    try {
        print_step(name, work(), start);
    } catch (const std::exception& error) {
        print_step(name, std::string("UNEXPECTED: ") + error.what(), start);
        throw;
    }
}

std::string start_daemon(player& p) {
    p.daemon = daemon_launch(p.options.program_folder + "/fotad");
    if (p.daemon < 0) throw unexpected("fotad does not start");
    if (!daemon_wait_ready(p.daemon)) throw unexpected("fotad does not answer");
    return "answers as process " + std::to_string(p.daemon);
}

std::string stop_daemon(player& p) {
    const int status = daemon_end(p.daemon, SIGTERM);
    if (status != 0) throw unexpected("fotad ended with status " + std::to_string(status));
    return "ended with status 0";
}

std::string get_max_size(player& p) {
    uint32_t bytes = 0;
    const std::string answer = require_success(fota_client_get_max_pkg_size(&bytes, TIMEOUT_MS));
    struct stat package {};
    fstat(p.options.package_fd, &package);
    if (package.st_size > bytes) throw unexpected("the package is larger than " + size_text(bytes));
    return answer + ": " + size_text(bytes);
}

void write_all(int fd, const char* data, ssize_t size) {
    while (size > 0) {
        const ssize_t written = write(fd, data, static_cast<size_t>(size));
        if (written <= 0) throw unexpected("cannot write the package");
        data += written;
        size -= written;
    }
}

std::string download(player& p) {
    struct stat package {};
    fstat(p.options.package_fd, &package);
    const int fd = open(FOTA_UPGRADE_PKG, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) throw unexpected("cannot make the package file");
    std::vector<char> block(BLOCK_SIZE);
    off_t done = 0;
    ssize_t size = 0;
    while ((size = read(p.options.package_fd, block.data(), block.size())) > 0) {
        write_all(fd, block.data(), size);
        done += size;
        if (isatty(STDOUT_FILENO)) std::printf("download %3jd %%\r", intmax_t{done * 100 / package.st_size});
    }
    fsync(fd);
    close(fd);
    if (size < 0 || done != package.st_size) throw unexpected("cannot read the package");
    return size_text(static_cast<uint64_t>(done)) + " in " + FOTA_UPGRADE_PKG;
}

std::string validate(player& p) {
    fota_pkg_info info{};
    p.options.agent.copy(info.agent_name, sizeof info.agent_name - 1);
    std::strcpy(info.update_method, "OTA");
    std::strcpy(info.manufacturer, "Velmora");
    const int result =
        fota_client_validate_update_pkg(FOTA_UPGRADE_PKG, &info, &p.rec_id, VALIDATION_TIMEOUT_MS);
    p.refused = result == FOTA_RC_FAILURE && p.rec_id != 0;
    if (!p.refused) require_success(result);
    return text_of(result) + ": record " + std::to_string(p.rec_id);
}

std::string show_current_record(player& p) {
    fota_history_rec record{};
    const std::string answer =
        require_success(fota_client_get_current_sess_record(p.options.agent.c_str(), &record, TIMEOUT_MS));
    if (record.rec_id != p.rec_id || record.status != FOTA_STATUS_PENDING) {
        throw unexpected(outcome_text(record));
    }
    return answer + ": " + outcome_text(record);
}

// Who has asked for the run level: the device state manager is to, or the daemon itself when that one
// refuses. Empty: nobody yet.
std::string run_level_text() {
    const std::string persistent_mode = std::string(DEVICE_DSM_FOLDER) + "/persistent_mode";
    if (device_read_line(persistent_mode) == "5") return "device state manager: run level 5";
    if (device_read(SANDBOX_COMMAND_LOG).find("telinit 5\n") != std::string::npos)
        return "telinit: run level 5";
    return "";
}

std::string enter_run_level(player& p) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(p.options.wait_secs) +
                          std::chrono::seconds(10);
    while (std::chrono::steady_clock::now() < deadline) {
        if (std::string text = run_level_text(); !text.empty()) return text;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    throw unexpected("nobody asked for run level 5");
}

// The installer's side of the contract: flags in, result files out.
std::string install(player& p) {
    const play_options& options = p.options;
    if (!fs::exists(FOTA_STAGING_UPDATE_PRE_INSTALL) || !fs::exists(FOTA_STAGING_UPDATE_DLPKG_VERIFIED)) {
        throw unexpected("the staging folder does not call for an installation");
    }
    const std::string target = device_read_line(FOTA_STAGING_TARGET_VER);
    const std::string back = fs::exists(FOTA_STAGING_LPM)        ? ", back in low-power mode"
                             : fs::exists(FOTA_STAGING_SHUTDOWN) ? ", power off and on"
                                                                 : ", back online";
    fs::remove(FOTA_STAGING_UPDATE_PRE_INSTALL);
    if (options.installer_code) {
        device_write(FOTA_STAGING_UPDATE_FAILURE, std::to_string(*options.installer_code));
        if (!options.reason.empty()) device_write(FOTA_STAGING_UPDATE_FAILURE_REASON, options.reason);
        return "failed with " + std::to_string(*options.installer_code) + back;
    }
    device_write(FOTA_PREVIOUS_SRC_VER, device_read_line(FOTA_STAGING_SRC_VER));
    device_write(FOTA_PREVIOUS_TARGET_VER, target);
    if (options.revert_code) {
        device_write(FOTA_REVERT_MARKER, "");
        device_write(FOTA_REVERT_ERROR_CODE, std::to_string(*options.revert_code));
        if (!options.reason.empty()) device_write(FOTA_REVERT_REASON, options.reason);
        return "wrote " + escaped(target) + "; boot fail-safe: " + std::to_string(*options.revert_code) +
               ", went back";
    }
    // A package names modem, kernel and system version.
    device_write(FOTA_OS_VERSION, target.substr(target.rfind('-') + 1) + "\n");
    for (const char* result :
         {FOTA_STAGING_UPDATE_SUCCESS, FOTA_STAGING_PRI_LINUX_SUCCESS, FOTA_STAGING_PRI_MODEM_SUCCESS}) {
        device_write(result, "");
    }
    return "wrote " + escaped(target) + back;
}

// What the bus holds under a key; zero when it holds nothing of that form.
template <typename T>
T bus_value(const char* key) {
    const std::string bytes = device_read(std::string(DEVICE_MSGBUS_FOLDER) + "/" + key);
    T value{};
    if (bytes.size() == sizeof value) std::memcpy(&value, bytes.data(), sizeof value);
    return value;
}

std::string show_broadcasts() {
    std::string text = "fota.upgrade_status " + std::to_string(bus_value<int64_t>("fota.upgrade_status"));
    if (const auto secs = bus_value<uint32_t>("fota.backup_before_update"); secs != 0) {
        text += "; fota.backup_before_update " + std::to_string(secs) + " s";
    }
    for (const char* key : {"fota.update_status", "fota.revert_status"}) {
        const auto record = bus_value<fota_history_rec>(key);
        if (record.rec_id != 0) text += std::string("; ") + key + " " + outcome_text(record);
    }
    return text;
}

std::string get_outcome(player& p) {
    const int result = p.options.revert_code
                           ? fota_client_get_revert_status(&p.outcome, TIMEOUT_MS)
                           : fota_client_get_update_status(p.options.agent.c_str(), &p.outcome, TIMEOUT_MS);
    const std::string answer = require_success(result);
    if (p.outcome.rec_id == 0) throw unexpected(outcome_text(p.outcome));
    return answer + ": " + outcome_text(p.outcome);
}

std::string get_upgrade_status() {
    int32_t status = -1;
    const std::string answer = require_success(fota_client_get_upgrade_status(&status, TIMEOUT_MS));
    if (status != 0) throw unexpected("an installation is still under way: " + std::to_string(status));
    return answer + ": 0, nothing under way";
}

std::vector<fota_history_rec> read_history() {
    const std::string bytes = device_read(FOTA_HISTORY_DB);
    std::vector<fota_history_rec> records(bytes.size() / sizeof(fota_history_rec));
    if (!records.empty())
        std::memcpy(records.data(), bytes.data(), records.size() * sizeof(fota_history_rec));
    std::erase_if(records, [](const fota_history_rec& record) { return record.rec_id == 0; });
    return records;
}

void show_history() {
    const std::vector<fota_history_rec> records = read_history();
    step("history", [&] { return "records: " + std::to_string(records.size()); });
    for (const fota_history_rec& record : records) {
        const fota_pkg_info& info = record.pkg_info;
        std::string versions = escaped(field_text(info.pkg_ver));
        if (record.rec_type == FOTA_REC_REVERT) versions += " (" + escaped(field_text(info.pkg_name)) + ")";
        std::printf("    #%u  %s  %s  %s  %u %s\n", record.rec_id,
                    escaped(field_text(record.update_date)).c_str(),
                    escaped(field_text(info.agent_name)).c_str(), versions.c_str(), record.status,
                    quoted(field_text(record.reason)).c_str());
    }
}

// After a fall-back the package stays for another attempt.
std::string check_left_overs(player& p) {
    std::string found;
    for (const char* path :
         {FOTA_SESSION_LOCK, FOTA_TRACKING, FOTA_UPGRADE_PKG, FOTA_STAGING_DIR, FOTA_PKG_DETAILS,
          FOTA_PKG_DETAILS_ENCRYPTED, FOTA_DECRYPT_TEMP, FOTA_REVERT_MARKER}) {
        if (p.options.revert_code && std::strcmp(path, FOTA_UPGRADE_PKG) == 0) continue;
        if (fs::exists(path)) found += std::string(" ") + path;
    }
    if (!found.empty()) throw unexpected("left over:" + found);
    return p.options.revert_code ? "none but the package" : "none";
}

void run_session(player& p) {
    const char* const agent = p.options.agent.c_str();
    step("start daemon", [&] { return start_daemon(p); });
    step("create session lock",
         [&] { return require_success(fota_client_create_session_lock(agent, TIMEOUT_MS)); });
    step("maximum package size", [&] { return get_max_size(p); });
    step("download", [&] { return download(p); });
    step("validate", [&] { return validate(p); });
    if (p.refused) {
        print_last_lines(DEVICE_DEBUG_LOG, ":[ERROR]");
        return;
    }
    step("current record", [&] { return show_current_record(p); });
    step("defer once",
         [&] { return require_success(fota_client_incr_install_defer_count(agent, TIMEOUT_MS)); });
    step("start installation", [&] {
        return require_success(fota_client_start_installation(agent, p.options.boot_preference,
                                                              p.options.wait_secs, VALIDATION_TIMEOUT_MS));
    });
    step("enter run level 5", [&] { return enter_run_level(p); });
    step("broadcasts", show_broadcasts);
    step("stop daemon", [&] { return stop_daemon(p); });
    step("installer", [&] { return install(p); });
    step("reboot", [&] {
        device_reboot();
        return std::string("firmware ") + escaped(device_read_line(FOTA_OS_VERSION));
    });
    step("start daemon", [&] { return start_daemon(p); });
    step(p.options.revert_code ? "revert status" : "update status", [&] { return get_outcome(p); });
    step("upgrade status", get_upgrade_status);
}

const char* outcome_name(play_outcome outcome) {
    switch (outcome) {
        case PLAY_UPDATED:
            return "updated";
        case PLAY_UNEXPECTED:
            return "unexpected";
        case PLAY_FAILED:
            return "failed, and recorded as such";
        case PLAY_REVERTED:
            return "reverted, and recorded as such";
        case PLAY_REFUSED:
            return "refused, and recorded as such";
    }
    return "";
}

// Holds what the daemon recorded, announced and handed out against what was played.
play_outcome judge(const player& p) {
    const fota_history_rec* stored = nullptr;
    const std::vector<fota_history_rec> history = read_history();
    const uint32_t rec_id = p.refused ? p.rec_id : p.outcome.rec_id;
    for (const fota_history_rec& record : history) {
        if (record.rec_id == rec_id) stored = &record;
    }
    if (stored == nullptr) throw unexpected("the history does not hold record " + std::to_string(rec_id));
    if (stored->status != p.options.expected_status.value_or(stored->status)) {
        throw unexpected(outcome_text(*stored));
    }
    if (p.refused) {
        if (stored->status != FOTA_STATUS_VALIDATION_FAILED) throw unexpected(outcome_text(*stored));
        return PLAY_REFUSED;
    }
    const auto announced =
        bus_value<fota_history_rec>(p.options.revert_code ? "fota.revert_status" : "fota.update_status");
    if (std::memcmp(stored, &announced, sizeof announced) != 0 ||
        std::memcmp(stored, &p.outcome, sizeof announced) != 0) {
        throw unexpected("the record stored, the one announced and the one handed out differ");
    }
    if (p.options.revert_code) {
        if (stored->rec_type != FOTA_REC_REVERT || stored->status != *p.options.revert_code) {
            throw unexpected("not the revert that took place: " + outcome_text(*stored));
        }
        return PLAY_REVERTED;
    }
    const bool success =
        stored->status == FOTA_STATUS_SUCCESS && field_text(stored->reason) == "FW Upgrade success";
    if (stored->rec_id != p.rec_id || success == p.options.installer_code.has_value()) {
        throw unexpected(outcome_text(*stored));
    }
    return success ? PLAY_UPDATED : PLAY_FAILED;
}

}  // namespace

play_outcome play(const play_options& options) {
    player p{options};
    try {
        step("seed device", [&] {
            device_seed(options.keys_folder);
            return "firmware " + device_read_line(FOTA_OS_VERSION);
        });
        run_session(p);
        show_history();
        step("broadcasts", show_broadcasts);
        step("left-over files", [&] { return check_left_overs(p); });
        step("stop daemon", [&] { return stop_daemon(p); });
        for (const std::string& path : options.shown_files) {
            step("show",
                 [&] { return fs::exists(path) ? escaped(path) : escaped(path) + " does not exist"; });
            print_last_lines(path);
        }
        play_outcome outcome = PLAY_UNEXPECTED;
        step("outcome", [&] {
            outcome = judge(p);
            return std::string(outcome_name(outcome));
        });
        return outcome;
    } catch (const std::exception&) {
        print_last_lines(DEVICE_DEBUG_LOG);
        return PLAY_UNEXPECTED;
    }
}

void print_last_lines(const std::string& path, const std::string& text) {
    std::ifstream file(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);) {
        if (line.find(text) != std::string::npos) lines.push_back(escaped(line));
    }
    const size_t skipped = lines.size() - std::min(lines.size(), LINES_SHOWN);
    for (size_t i = skipped; i < lines.size(); ++i) std::printf("    %s\n", lines[i].c_str());
}
