#include "mishaps.h"

#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <sstream>
#include <thread>
#include <utility>

#include "common/state_files.h"
#include "fota/fota_client.h"
#include "tools/common/output.h"
#include "tools/play/device.h"
#include "tools/play/sandbox.h"

namespace {

namespace fs = std::filesystem;

constexpr std::chrono::milliseconds POLL_INTERVAL{2};
constexpr std::chrono::seconds REACH_LIMIT{60};
constexpr uint32_t LONG_WAIT_SECS = 3600;
constexpr uint64_t MIB = 1024UL * 1024;
// Enough to write the history, and for nothing else.
constexpr uint64_t ROOM_FOR_HISTORY = 64UL * 1024;

constexpr char UNZIP[] = "/usr/bin/unzip";

std::string cut_power(player& p, const std::string& when) {
    device_cut_power();
    p.daemon = -1;
    return "POWER CUT " + when;
}

std::string cut_after(player& p, const mishap&, const play_step& step) {
    // Over the air the request says how long an installation waits; this one is not to begin.
    const uint32_t wait_secs = std::exchange(p.session.wait_secs, LONG_WAIT_SECS);
    const std::string answer = step.run(p);
    p.session.wait_secs = wait_secs;
    return cut_power(p, "right after: " + answer);
}

std::string cut_before(player& p, const mishap&, const play_step&) {
    return cut_power(p, "before it had a result");
}

std::string cut_in_half(player& p, const mishap& m, const play_step&) {
    bring_package(p.session.package_fd, m.file, 2, p.session.progress);
    return cut_power(p, "with half of the package in " + std::string(m.file));
}

// A command that tells that it runs, and then never ends, in the place of one of the device.
class stopping_command {
public:
    explicit stopping_command(const char* path) : path_(path) {
        const std::string command = std::string(SANDBOX_FOLDER) + "/stopping_command";
        fs::remove(reached_);
        device_write(command, "#!/bin/sh\n: >" + reached_ + "\nexec sleep 86400\n");
        chmod(command.c_str(), 0755);
        is_new_ = !fs::exists(path);
        if (is_new_) device_write(path, "");
        if (mount(command.c_str(), path, nullptr, MS_BIND, nullptr) != 0) {
            throw unexpected(std::string("cannot stop ") + path + ": " + std::strerror(errno));
        }
    }
    stopping_command(const stopping_command&) = delete;
    stopping_command& operator=(const stopping_command&) = delete;
    ~stopping_command() {
        umount2(path_, MNT_DETACH);
        if (is_new_) unlink(path_);
    }
    bool runs() const { return fs::exists(reached_); }

private:
    const std::string reached_ = std::string(SANDBOX_FOLDER) + "/reached";
    const char* path_;
    bool is_new_ = false;
};

std::string cut_in_command(player& p, const mishap& m, const play_step& step) {
    const stopping_command command(m.file);
    // The request is not answered, so that somebody else has to wait.
    const pid_t client = fork();
    if (client < 0) throw unexpected("cannot start a client");
    if (client == 0) {
        try {
            step.run(p);
        } catch (const std::exception&) {
            // Whatever it is told, the power goes.
        }
        _exit(0);
    }
    const auto deadline = std::chrono::steady_clock::now() + REACH_LIMIT;
    while (!command.runs()) {
        if (std::chrono::steady_clock::now() > deadline) {
            throw unexpected(std::string(m.file) + " was not run");
        }
        std::this_thread::sleep_for(POLL_INTERVAL);
    }
    return cut_power(p, "while " + fs::path(m.file).filename().string() + " ran");
}

// Nobody but the device's own recovery can end a full image that was interrupted.
std::string cut_full_image(player& p, const mishap& m, const play_step& step) {
    p.full_image = true;
    p.options.installer.code = FOTA_STATUS_UNDEFINED_ERROR;
    return cut_in_command(p, m, step);
}

// The daemon of the next start is what runs the script.
std::string cut_in_result(player& p, const mishap& m, const play_step& step) {
    const bool fails = p.options.installer.code || p.options.installer.revert_code;
    mishap at_script = m;
    at_script.file = fails ? FOTA_STAGING_POST_INSTALL_FAILED_SCRIPT : FOTA_STAGING_POST_INSTALL_SCRIPT;
    return cut_in_command(p, at_script, step);
}

void resize_flash(uint64_t bytes) {
    const std::string size = "size=" + std::to_string(bytes);
    if (mount(nullptr, "/opt", nullptr, MS_REMOUNT | MS_NOSUID | MS_NODEV, size.c_str()) != 0) {
        throw unexpected(std::string("cannot change the size of the flash: ") + std::strerror(errno));
    }
}

void leave_room(uint64_t bytes) {
    struct statvfs flash {};
    statvfs("/opt", &flash);
    resize_flash((flash.f_blocks - flash.f_bfree) * flash.f_frsize + bytes);
}

std::string ask_without_room(player& p, const mishap&, const play_step&) {
    leave_room(8 * MIB);
    const bool sideload = std::strcmp(p.path.method, "Sideload") == 0;
    const auto ask = sideload ? fota_client_get_sideload_max_pkg_size : fota_client_get_max_pkg_size;
    uint32_t bytes = 0;
    return "FLASH FULL: " + require_result(ask(&bytes, p.session.timeout_ms), FOTA_RC_NO_FLASH_SPACE);
}

// The owner may try again when there is room.
std::string validate_without_room(player& p, const mishap&, const play_step& step) {
    leave_room(ROOM_FOR_HISTORY);
    const std::string answer = step.run(p);
    if (p.refused_status == 0) throw unexpected("so small a package fits a full flash; use a larger one");
    const std::vector<fota_history_rec> history = device_history();
    if (history.empty() || history.back().status != p.refused_status) throw unexpected("not recorded");
    p.refused_status = 0;
    p.session.rec_id = 0;
    return "FLASH FULL: " + answer + ", " + std::to_string(history.back().status) + " " +
           in_quotes(field_text(history.back().reason));
}

std::string record_without_room(player& p, const mishap&, const play_step& step) {
    leave_room(0);
    p.unrecorded = true;
    return "FLASH FULL: " + step.run(p);
}

std::string release_lock(player& p) {
    return require_result(fota_client_clear_session_lock(p.session.agent.c_str(), p.session.timeout_ms),
                          FOTA_RC_SUCCESS);
}

std::string make_room(player&) {
    resize_flash(256 * MIB);
    return "the flash has room again";
}

// What the power cut left of the session.
std::string find_rest(player&) {
    std::string found;
    for (const auto& [path, name] :
         {std::pair{FOTA_SIDELOAD_COOKIE, "side-load"}, std::pair{FOTA_UPGRADE_PKG, "package"},
          std::pair{FOTA_STAGING_DIR, "staging folder"}, std::pair{FOTA_TRACKING, "pending record"},
          std::pair{FOTA_STAGING_UPDATE_PRE_INSTALL, "start flag"},
          std::pair{FOTA_STAGING_UPDATE_PRE_FULL_FOTA_INSTALL, "full-image flag"},
          std::pair{FOTA_RESULT_PROCESSED, "outcome"}}) {
        if (fs::exists(path)) found += std::string(found.empty() ? "" : ", ") + name;
    }
    const std::string agent = device_read_line(FOTA_SESSION_LOCK);
    return (agent.empty() ? "no session" : "session of " + in_quotes(agent)) + "; " +
           (found.empty() ? "nothing else" : found);
}

// clang-format off
constexpr play_step POWER_BACK[] = {
    {"reboot",       reboot},
    {"start daemon", start_daemon},
    {"what is left", find_rest},
};

// The run level of the installation has no daemon.
constexpr play_step POWER_BACK_NO_DAEMON[] = {
    {"reboot",       reboot},
    {"what is left", find_rest},
};

constexpr play_step ROOM_FOR_AGENT[] = {
    {"give up",      release_lock},
    {"make room",    make_room},
};

constexpr play_step ROOM[] = {
    {"make room",    make_room},
};

constexpr char AGENT_PATHS[] = "ota full-image factory-reset";

constexpr mishap MISHAPS[] = {
    {"power-cut", "lock",         AGENT_PATHS,
     "create session lock",  nullptr,                POWER_BACK, cut_after},
    {"power-cut", "download",     AGENT_PATHS,
     "download",             "download",             POWER_BACK, cut_in_half, FOTA_UPGRADE_PKG},
    {"power-cut", "download",     "sideload",
     "upload",               "upload",               POWER_BACK, cut_in_half, FOTA_WEBUI_UPLOAD},
    {"power-cut", "validate",     AGENT_PATHS,
     "validate",             "validate",             POWER_BACK, cut_in_command, UNZIP},
    {"power-cut", "validate",     "sideload",
     "start installation",   "upload",               POWER_BACK, cut_in_command, UNZIP},
    {"power-cut", "start",        "ota full-image",
     "start installation",   "start installation",   POWER_BACK, cut_in_command, FOTA_STAGING_PRE_INSTALL_SCRIPT},
    {"power-cut", "install-wait", "ota",
     "start installation",   "start installation",   POWER_BACK, cut_after},
    {"power-cut", "install-wait", "sideload",
     "start installation",   "upload",               POWER_BACK, cut_after},
    {"power-cut", "install-wait", "sua",
     "start update",         "start update",         POWER_BACK, cut_after},
    {"power-cut", "installing",   "ota sideload sua",
     "installer",            "installer",            POWER_BACK_NO_DAEMON, cut_before},
    {"power-cut", "installing",   "full-image",
     "start installation",   "stop daemon",          POWER_BACK, cut_full_image, FOTA_STAGING_FULL_FOTA_SCRIPT,
     PLAY_FAILED, FOTA_STATUS_UNDEFINED_ERROR},
    {"power-cut", "result",       "ota sideload sua full-image",
     "start daemon",         "start daemon",         POWER_BACK_NO_DAEMON, cut_in_result},
    {"full-flash", "download",     AGENT_PATHS,
     "maximum package size", "create session lock",  ROOM_FOR_AGENT, ask_without_room},
    {"full-flash", "download",     "sideload",
     "maximum package size", "maximum package size", ROOM, ask_without_room},
    {"full-flash", "validate",     AGENT_PATHS,
     "validate",             "create session lock",  ROOM, validate_without_room},
    {"full-flash", "validate",     "sideload",
     "start installation",   "maximum package size", ROOM, validate_without_room},
    {"full-flash", "result",       "ota sideload full-image",
     "start daemon",         nullptr,                {}, record_without_room, nullptr,
     PLAY_UNRECORDED, FOTA_STATUS_PENDING},
};
// clang-format on

}  // namespace

std::span<const mishap> all_mishaps() {
    return MISHAPS;
}

bool is_on_path(const mishap& m, const std::string& path) {
    std::istringstream paths(m.paths);
    const std::istream_iterator<std::string> end;
    return std::find(std::istream_iterator<std::string>(paths), end, path) != end;
}
