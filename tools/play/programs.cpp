#include "tools/play/programs.h"

#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <stdexcept>
#include <thread>
#include <tuple>

#include "common/state_files.h"
#include "tools/play/device.h"
#include "tools/play/sandbox.h"

namespace {

namespace fs = std::filesystem;

constexpr size_t BLOCK_SIZE = 256UL * 1024;
constexpr std::chrono::milliseconds POLL_INTERVAL{5};

void need(bool done, const char* otherwise) {
    if (!done) throw std::runtime_error(otherwise);
}

// A script-driven update has no version files.
std::string first_of(const char* path, const char* other_path) {
    return device_read_line(fs::exists(path) ? path : other_path);
}

void leave_code(const char* path, long code, const char* reason_path, const std::string& reason) {
    device_write(path, std::to_string(code));
    if (!reason.empty()) device_write(reason_path, reason);
}

}  // namespace

void bring_package(int fd, const std::string& path, int parts, void (*progress)(int percent)) {
    struct stat package {};
    fstat(fd, &package);
    package.st_size /= parts;
    lseek(fd, 0, SEEK_SET);
    fs::create_directories(fs::path(path).parent_path());
    const int copy = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    need(copy >= 0, "cannot make the package file");
    off_t done = 0;
    ssize_t size = 0;
    while ((size = sendfile(copy, fd, nullptr,
                            std::min(BLOCK_SIZE, static_cast<size_t>(package.st_size - done)))) > 0) {
        done += size;
        if (progress != nullptr) progress(static_cast<int>(done * 100 / package.st_size));
    }
    fsync(copy);
    close(copy);
    need(size == 0, "cannot write the package");
    need(done == package.st_size, "cannot read the package");
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

void run_update_tool(int fd) {
    bring_package(fd, TOOL_PACKAGE);
    const std::time_t now = std::time(nullptr);
    char date[32];
    std::strftime(date, sizeof date, "%m-%d-%Y-%H:%M:%S", std::localtime(&now));
    device_write(FOTA_STAGING_SUA_PKG_NAME, "maintenance");
    device_write(FOTA_STAGING_SUA_PKG_DESC, "Maintenance release");
    device_write(FOTA_STAGING_SUA_PKG_VER, "VX-MDM2.1.07-5.3.0");
    device_write(FOTA_STAGING_SUA_PKG_SIZE, std::to_string(fs::file_size(TOOL_PACKAGE)));
    device_write(FOTA_STAGING_SUA_PKG_TS, date);
}

// The device state manager is to do it, or init when that one refuses.
std::string asked_to_install(bool full_image) {
    const std::string meaning = full_image ? "reset" : "run level 5";
    const char* const service_file = full_image ? "/reset_device" : "/persistent_mode";
    if (device_read_line(std::string(DEVICE_DSM_FOLDER) + service_file) == (full_image ? "1" : "5")) {
        return "device state manager: " + meaning;
    }
    const char* const command = full_image ? "telinit 6\n" : "telinit 5\n";
    return device_read(SANDBOX_COMMAND_LOG).find(command) != std::string::npos ? "init: " + meaning : "";
}

std::string await_installation(bool full_image, int timeout_ms) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    std::string asked;
    while ((asked = asked_to_install(full_image)).empty() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(POLL_INTERVAL);
    }
    return asked;
}

void leave_result(const installer_outcome& outcome) {
    if (outcome.code) {
        leave_code(FOTA_STAGING_UPDATE_FAILURE, *outcome.code, FOTA_STAGING_UPDATE_FAILURE_REASON,
                   outcome.reason);
        return;
    }
    if (outcome.revert_code) {
        device_write(FOTA_REVERT_MARKER, "");
        leave_code(FOTA_REVERT_ERROR_CODE, *outcome.revert_code, FOTA_REVERT_REASON, outcome.reason);
        return;
    }
    device_write(FOTA_STAGING_UPDATE_SUCCESS, "");
    for (const auto& [became, success, failure, text] :
         {std::tuple{outcome.modem_pri, FOTA_STAGING_PRI_MODEM_SUCCESS, FOTA_STAGING_PRI_MODEM_FAILURE,
                     PRI_MODEM_TEXT},
          std::tuple{outcome.linux_pri, FOTA_STAGING_PRI_LINUX_SUCCESS, FOTA_STAGING_PRI_LINUX_FAILURE,
                     PRI_LINUX_TEXT}}) {
        if (became == configuration::UPDATED) device_write(success, "");
        if (became == configuration::FAILED) device_write(failure, text);
    }
}

std::string staged_version() {
    return first_of(FOTA_STAGING_TARGET_VER, FOTA_STAGING_SUA_PKG_VER);
}

// Every form of a version ends with that of the operating system.
void write_firmware() {
    const std::string target = staged_version();
    device_write(FOTA_OS_VERSION, target.substr(target.rfind('-') + 1) + "\n");
}

bool run_installer(const installer_outcome& outcome, bool full_image) {
    const char* const flag =
        full_image ? FOTA_STAGING_UPDATE_PRE_FULL_FOTA_INSTALL : FOTA_STAGING_UPDATE_PRE_INSTALL;
    if (!fs::exists(flag) || !fs::exists(FOTA_STAGING_UPDATE_DLPKG_VERIFIED)) return false;
    fs::remove(flag);
    if (!outcome.code) {
        device_write(FOTA_PREVIOUS_SRC_VER, first_of(FOTA_STAGING_SRC_VER, FOTA_DEVICE_DETAILS_SWV));
        device_write(FOTA_PREVIOUS_TARGET_VER, staged_version());
        if (!outcome.revert_code) write_firmware();
    }
    leave_result(outcome);
    return true;
}
