#include "tools/play/device.h"

#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <mqueue.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "common/state_files.h"
#include "fota/fota_client.h"
#include "tools/play/sandbox.h"

namespace {

namespace fs = std::filesystem;
using clock_type = std::chrono::steady_clock;

constexpr std::chrono::milliseconds POLL_INTERVAL{2};
constexpr int ANSWER_TIMEOUT_MS = 500;

struct device_file {
    const char* path;
    const char* content;
};

// clang-format off
constexpr device_file IMAGE_FILES[] = {
    {FOTA_CONFIG_FILE,
     "<Config>\n"
     "  <MaxPkgSizeAllowed>36700160</MaxPkgSizeAllowed>\n"
     "  <SideloadMaxPkgSizeAllowed>36700160</SideloadMaxPkgSizeAllowed>\n"
     "  <preInstallWaitSecs>1</preInstallWaitSecs>\n"
     "  <version><platformPrefix>VX</platformPrefix></version>\n"
     "</Config>\n"},
    {"/opt/qast/etc/features.xml", "<Features><PowerSave>1</PowerSave><Fota>1</Fota></Features>\n"},
    {FOTA_KERNEL_MINOR_VERSION,    "98\n"},
    // The last: a device whose making was cut short is made anew.
    {FOTA_OS_VERSION,              "5.2.1\n"},
};
// clang-format on

constexpr char MODEM_VERSION[] = "/run/vexa/modem/fw_version";
constexpr char KERNEL_RELEASE[] = "4.14.117";

// Goes on until `done` or until the time is over; returns the last answer of `done`.
template <typename Condition>
bool wait_until(int timeout_ms, Condition done) {
    const auto deadline = clock_type::now() + std::chrono::milliseconds(timeout_ms);
    while (!done()) {
        if (clock_type::now() >= deadline) return false;
        std::this_thread::sleep_for(POLL_INTERVAL);
    }
    return true;
}

// Emptying /tmp and /run, or starting a daemon that may reboot the machine, is nothing for the machine
// itself.
void need_sandbox() {
    if (!sandbox_is_entered()) throw std::runtime_error("the simulated device works in the sandbox only");
}

int remove_entry(const char* path, const struct stat*, int, struct FTW*) {
    const std::string_view entry = path;
    const std::string_view kept = SANDBOX_FOLDER;
    if (!entry.starts_with(kept)) remove(path);  // a folder that still holds something stays
    return 0;
}

// Stops where another file system begins: that is a kept folder of the host.
void empty_folder(const char* folder) {
    nftw(folder, remove_entry, 16, FTW_DEPTH | FTW_MOUNT | FTW_PHYS);
}

// Packages name the kernel of the device, not that of the machine that plays it.
void set_kernel_release() {
    if (device_read_line(FOTA_KERNEL_RELEASE) == KERNEL_RELEASE) return;
    const std::string file = std::string(SANDBOX_FOLDER) + "/osrelease";
    device_write(file, std::string(KERNEL_RELEASE) + "\n");
    if (mount(file.c_str(), FOTA_KERNEL_RELEASE, nullptr, MS_BIND, nullptr) != 0) {
        throw std::runtime_error(std::string("cannot set the kernel's release: ") + std::strerror(errno));
    }
}

void install_keys(const std::string& folder) {
    if (folder.empty()) return;
    for (const char* key : {FOTA_DEVICE_KEY, FOTA_BUILD_CERT, FOTA_BUILD_PUBKEY}) {
        fs::create_directories(fs::path(key).parent_path());
        fs::copy_file(fs::path(folder) / fs::path(key).filename(), key, fs::copy_options::overwrite_existing);
    }
}

struct process_entry {
    std::string folder{};
    pid_t id = -1;  // inside the sandbox
    pid_t parent = -1;
    std::string name{};
};

// /proc may be one from outside the sandbox; then its folders have the numbers of outside, and NSpid ends
// with ours.
template <typename Condition>
process_entry find_process(Condition is_it) {
    for (const fs::directory_entry& folder : fs::directory_iterator("/proc")) {
        if (std::strspn(folder.path().filename().c_str(), "0123456789") == 0) continue;
        process_entry entry = {.folder = folder.path()};
        std::ifstream status(entry.folder + "/status");
        for (std::string line; std::getline(status, line);) {
            if (line.starts_with("Name:\t")) entry.name = line.substr(6);
            if (line.starts_with("PPid:\t")) entry.parent = std::atoi(line.c_str() + 6);
            if (line.starts_with("NSpid:\t")) entry.id = std::atoi(line.c_str() + line.rfind('\t') + 1);
        }
        if (is_it(entry)) return entry;
    }
    return {};
}

pid_t find_child(const std::string& name) {
    const pid_t self = std::atoi(fs::read_symlink("/proc/self").c_str());
    return find_process([&](const process_entry& p) { return p.parent == self && p.name == name; }).id;
}

bool has_ended(pid_t process) {
    siginfo_t info = {};
    return waitid(P_PID, static_cast<id_t>(process), &info, WEXITED | WNOHANG | WNOWAIT) != 0 ||
           info.si_pid != 0;
}

int exit_status(int status) {
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

}  // namespace

void device_write(const std::string& path, const std::string& content) {
    need_sandbox();
    fs::create_directories(fs::path(path).parent_path());
    const std::string written = path + ".new";
    std::ofstream file(written, std::ios::binary);
    file << content;
    file.close();
    if (!file) throw std::runtime_error("cannot write " + written);
    fs::rename(written, path);
}

std::string device_read(const std::string& path) {
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return content.str();
}

std::string device_read_line(const std::string& path) {
    const std::string content = device_read(path);
    return content.substr(0, content.find('\n'));
}

std::vector<fota_history_rec> device_history() {
    const std::string bytes = device_read(FOTA_HISTORY_DB);
    std::vector<fota_history_rec> records(bytes.size() / sizeof(fota_history_rec));
    if (!records.empty()) std::memcpy(records.data(), bytes.data(), records.size() * sizeof records[0]);
    std::erase_if(records, [](const fota_history_rec& record) { return record.rec_id == 0; });
    return records;
}

void device_seed(const std::string& keys_folder) {
    need_sandbox();
    set_kernel_release();
    for (const char* folder : {"/opt", "/var/log"}) empty_folder(folder);
    for (const char* folder : {"/opt/qast/data", "/opt/qast/log"}) fs::create_directories(folder);
    install_keys(keys_folder);
    for (const device_file& file : IMAGE_FILES) device_write(file.path, file.content);
    device_reboot();
}

bool device_boot(const std::string& keys_folder) {
    need_sandbox();
    if (!fs::exists(FOTA_OS_VERSION)) {
        device_seed(keys_folder);
        return false;
    }
    set_kernel_release();
    install_keys(keys_folder);
    device_reboot();
    return true;
}

void device_reboot() {
    need_sandbox();
    for (const char* folder : {"/run", "/tmp", FOTA_SIDELOAD_TMP_DIR}) empty_folder(folder);
    for (const fs::directory_entry& queue : fs::directory_iterator("/dev/mqueue")) {
        mq_unlink(std::string("/").append(queue.path().filename()).c_str());
    }
    device_write(MODEM_VERSION, "MDM2.1.07\n");
    fs::create_directories(DEVICE_DSM_FOLDER);
    device_write(DEVICE_MSGBUS_FOLDER + std::string("/settings.ready"), std::string("\1\0\0\0\0\0\0\0", 8));
}

std::string process_folder(pid_t id) {
    return find_process([id](const process_entry& p) { return p.id == id; }).folder;
}

void device_cut_power() {
    need_sandbox();
    if (getpid() != 1) throw std::runtime_error("only process 1 of the sandbox can cut the power");
    kill(-1, SIGKILL);
    while (waitpid(-1, nullptr, 0) > 0 || errno == EINTR) {
    }
}

std::string installed_daemons(const std::string& folder) {
    return fs::path(folder).parent_path() / "sbin";
}

std::string daemon_program(const std::string& folder) {
    const std::string of_its_own = fs::path(folder).parent_path() / "libexec/fotasim/fotad";
    for (const std::string& program : {folder + "/simulated/fotad", of_its_own, folder + "/fotad"}) {
        if (fs::exists(program)) return program;
    }
    return installed_daemons(folder) + "/fotad";
}

pid_t daemon_launch(const std::string& program) {
    need_sandbox();
    char* const arguments[] = {const_cast<char*>(program.c_str()), nullptr};
    pid_t launcher = -1;
    if (posix_spawn(&launcher, program.c_str(), nullptr, nullptr, arguments, environ) != 0) return -1;
    int status = 0;
    while (waitpid(launcher, &status, 0) < 0) {
        if (errno != EINTR) return -1;
    }
    // The kernel keeps 15 characters of a name.
    return exit_status(status) == 0 ? find_child(fs::path(program).filename().string().substr(0, 15)) : -1;
}

bool daemon_wait_ready(pid_t daemon, int timeout_ms) {
    // A queue may be left from a daemon that was killed, so that only an answer counts.
    bool answered = false;
    const bool decided = wait_until(timeout_ms, [&] {
        int32_t ignored = 0;
        answered = fota_client_get_upgrade_status(&ignored, ANSWER_TIMEOUT_MS) > 0;
        return answered || has_ended(daemon);
    });
    return decided && answered;
}

int daemon_wait_end(pid_t daemon, int timeout_ms) {
    int status = 0;
    return wait_until(timeout_ms, [&] { return waitpid(daemon, &status, WNOHANG) == daemon; })
               ? exit_status(status)
               : -1;
}

int daemon_end(pid_t daemon, int signal_number, int timeout_ms) {
    kill(daemon, signal_number);
    return daemon_wait_end(daemon, timeout_ms);
}
