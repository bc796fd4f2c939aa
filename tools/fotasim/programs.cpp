#include "programs.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <thread>
#include <tuple>

#include "common/state_files.h"
#include "device.h"
#include "sandbox.h"
#include "tools/common/output.h"

namespace {

namespace fs = std::filesystem;

constexpr size_t BLOCK_SIZE = 256UL * 1024;
constexpr std::chrono::seconds HAND_OVER_LIMIT{10};
constexpr std::chrono::milliseconds POLL_INTERVAL{5};
constexpr char TOOL_PACKAGE[] = "/opt/qast/data/fota/staging/sua_package";
constexpr char TOOL_VERSION[] = "VX-MDM2.1.07-5.3.0";

void write_all(int fd, const char* data, ssize_t size) {
    while (size > 0) {
        const ssize_t written = write(fd, data, static_cast<size_t>(size));
        if (written <= 0) throw unexpected("cannot write the package");
        data += written;
        size -= written;
    }
}

// Brings the package, or the beginning of it, from the machine outside to a place on the device; returns its
// size.
uint64_t bring_package(const player& p, const char* path, int divisor = 1) {
    struct stat package {};
    fstat(p.options.package_fd, &package);
    package.st_size /= divisor;
    lseek(p.options.package_fd, 0, SEEK_SET);
    fs::create_directories(fs::path(path).parent_path());
    const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) throw unexpected("cannot make the package file");
    std::vector<char> block(BLOCK_SIZE);
    off_t done = 0;
    ssize_t size = 0;
    while ((size = read(p.options.package_fd, block.data(),
                        std::min(block.size(), static_cast<size_t>(package.st_size - done)))) > 0) {
        write_all(fd, block.data(), size);
        done += size;
        if (isatty(STDOUT_FILENO)) std::printf("package %3jd %%\r", intmax_t{done * 100 / package.st_size});
    }
    fsync(fd);
    close(fd);
    if (size < 0 || done != package.st_size) throw unexpected("cannot read the package");
    return static_cast<uint64_t>(done);
}

std::string bring_and_tell(const player& p, const char* path) {
    return size_text(bring_package(p, path)) + " in " + path;
}

// What the device is asked to do when the daemon has finished its part. The device state manager is to do it,
// or init when that one refuses.
struct request {
    const char* service_file;
    const char* argument;
    const char* command;
    const char* meaning;
};

constexpr request RUN_LEVEL = {"persistent_mode", "5", "telinit 5\n", "run level 5"};
constexpr request RESET = {"reset_device", "1", "telinit 6\n", "reset"};

std::string first_of(const char* path, const char* other_path) {
    return device_read_line(fs::exists(path) ? path : other_path);
}

// A script-driven update has no version files.
std::string source_version() {
    return first_of(FOTA_STAGING_SRC_VER, FOTA_DEVICE_DETAILS_SWV);
}

std::string target_version() {
    return first_of(FOTA_STAGING_TARGET_VER, FOTA_STAGING_SUA_PKG_VER);
}

// Every form of a version ends with that of the operating system.
void write_firmware() {
    const std::string target = target_version();
    device_write(FOTA_OS_VERSION, target.substr(target.rfind('-') + 1) + "\n");
}

std::string boot_text() {
    if (fs::exists(FOTA_STAGING_LPM)) return ", back in low-power mode";
    return fs::exists(FOTA_STAGING_SHUTDOWN) ? ", power off and on" : ", back online";
}

std::string fail_installation(const play_options& options) {
    device_write(FOTA_STAGING_UPDATE_FAILURE, std::to_string(*options.installer_code));
    if (!options.reason.empty()) device_write(FOTA_STAGING_UPDATE_FAILURE_REASON, options.reason);
    return "failed with " + std::to_string(*options.installer_code) + boot_text();
}

std::string fall_back(const play_options& options) {
    device_write(FOTA_REVERT_MARKER, "");
    device_write(FOTA_REVERT_ERROR_CODE, std::to_string(*options.revert_code));
    if (!options.reason.empty()) device_write(FOTA_REVERT_REASON, options.reason);
    return "; boot fail-safe: " + std::to_string(*options.revert_code) + ", went back";
}

std::string install_configurations(const play_options& options) {
    std::string failed;
    for (const auto& [fails, text, success, failure] :
         {std::tuple{options.modem_pri_fails, PRI_MODEM_TEXT, FOTA_STAGING_PRI_MODEM_SUCCESS,
                     FOTA_STAGING_PRI_MODEM_FAILURE},
          std::tuple{options.linux_pri_fails, PRI_LINUX_TEXT, FOTA_STAGING_PRI_LINUX_SUCCESS,
                     FOTA_STAGING_PRI_LINUX_FAILURE}}) {
        device_write(fails ? failure : success, fails ? text : "");
        if (fails) failed += std::string(", ") + text;
    }
    return failed;
}

std::string now_text() {
    const std::time_t now = std::time(nullptr);
    char text[32];
    std::strftime(text, sizeof text, "%m-%d-%Y-%H:%M:%S", std::localtime(&now));
    return text;
}

}  // namespace

std::string asked_to_install(bool full_image) {
    const request& wanted = full_image ? RESET : RUN_LEVEL;
    const std::string service_file = std::string(DEVICE_DSM_FOLDER) + "/" + wanted.service_file;
    if (device_read_line(service_file) == wanted.argument) {
        return std::string("device state manager: ") + wanted.meaning;
    }
    const bool by_init = device_read(SANDBOX_COMMAND_LOG).find(wanted.command) != std::string::npos;
    return by_init ? std::string("init: ") + wanted.meaning : "";
}

void bring_half(player& p, const char* path) {
    bring_package(p, path, 2);
}

std::string download(player& p) {
    return bring_and_tell(p, FOTA_UPGRADE_PKG);
}

std::string upload(player& p) {
    return bring_and_tell(p, FOTA_WEBUI_UPLOAD);
}

std::string run_update_tool(player& p) {
    const fota_device_info info = device_information();
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
    const uint64_t size = bring_package(p, TOOL_PACKAGE);
    device_write(FOTA_STAGING_SUA_PKG_NAME, "maintenance");
    device_write(FOTA_STAGING_SUA_PKG_DESC, "Maintenance release");
    device_write(FOTA_STAGING_SUA_PKG_VER, TOOL_VERSION);
    device_write(FOTA_STAGING_SUA_PKG_SIZE, std::to_string(size));
    device_write(FOTA_STAGING_SUA_PKG_TS, now_text());
    return size_text(size) + " in " + TOOL_PACKAGE;
}

std::string hand_over(player& p) {
    p.full_image = fs::exists(FOTA_STAGING_UPDATE_PRE_FULL_FOTA_INSTALL);
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::seconds(p.options.wait_secs) + HAND_OVER_LIMIT;
    std::string asked;
    while (asked.empty()) {
        if (std::chrono::steady_clock::now() > deadline) throw unexpected("nobody was asked to go on");
        std::this_thread::sleep_for(POLL_INTERVAL);
        asked = asked_to_install(p.full_image);
    }
    if (asked.starts_with("init") != p.options.no_state_manager)
        throw unexpected("the wrong one was asked: " + asked);
    if (!p.full_image) return asked;
    // Its script runs while the device is up; when it fails, the outcome is recorded before the reset.
    if (!fs::exists(FOTA_STAGING_UPDATE_PRE_FULL_FOTA_INSTALL)) throw unexpected("the upgrade script failed");
    const int32_t status = upgrade_status();
    if (status != 2) throw unexpected("upgrade status " + std::to_string(status));
    return asked + "; upgrade status 2";
}

std::string boot_full_image(player& p) {
    // The fail-safe acts before anything else.
    if (!p.full_image || p.options.revert_code) return "";
    if (!p.options.installer_code) write_firmware();
    const std::string firmware = reboot(p);
    start_daemon(p);
    const int32_t status = upgrade_status();
    if (status != 1) throw unexpected("upgrade status " + std::to_string(status));
    const std::string answer = ask_as_other(p);
    stop_daemon(p);
    return firmware + "; " + answer;
}

std::string install(player& p) {
    const play_options& options = p.options;
    const char* const flag =
        p.full_image ? FOTA_STAGING_UPDATE_PRE_FULL_FOTA_INSTALL : FOTA_STAGING_UPDATE_PRE_INSTALL;
    if (!fs::exists(flag) || !fs::exists(FOTA_STAGING_UPDATE_DLPKG_VERIFIED)) {
        throw unexpected("the staging folder does not call for an installation");
    }
    fs::remove(flag);
    p.target = target_version();
    if (options.installer_code) return fail_installation(options);
    const std::string written = "wrote " + escaped(p.target);
    device_write(FOTA_PREVIOUS_SRC_VER, source_version());
    device_write(FOTA_PREVIOUS_TARGET_VER, p.target);
    if (options.revert_code) return written + fall_back(options);
    write_firmware();
    device_write(FOTA_STAGING_UPDATE_SUCCESS, "");
    return written + install_configurations(options) + boot_text();
}

std::string reboot(player& p) {
    device_reboot();
    if (p.options.no_state_manager) fs::remove_all(DEVICE_DSM_FOLDER);
    return "firmware " + escaped(device_read_line(FOTA_OS_VERSION));
}
