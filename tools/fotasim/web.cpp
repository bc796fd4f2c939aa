#include "web.h"

#include <signal.h>
#include <spawn.h>
#include <sys/random.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <filesystem>

#include "common/state_files.h"
#include "steps.h"
#include "tools/play/device.h"

namespace {

namespace fs = std::filesystem;

constexpr int POLL_MS = 200;

// Letters that nobody mistakes for others.
std::string make_password() {
    constexpr char LETTERS[] = "abcdefghijkmnpqrstuvwxyz23456789";
    std::array<unsigned char, 12> random{};
    if (getrandom(random.data(), random.size(), 0) != static_cast<ssize_t>(random.size()))
        throw unexpected("no random numbers");
    std::string password;
    for (const unsigned char byte : random) password += LETTERS[byte % (sizeof LETTERS - 1)];
    return password;
}

// As built, beside the tools; as installed, where the device's daemons are.
std::string web_program(const std::string& program_folder) {
    std::string built = program_folder + "/fotaweb";
    if (fs::exists(built)) return built;
    return installed_daemons(program_folder) + "/fotaweb";
}

pid_t start_web(const std::string& program, const std::string& listen) {
    // The sandbox knows no user but one.
    std::array<std::string, 5> words = {program, "--user", "root", "--listen", listen};
    char* arguments[] = {words[0].data(), words[1].data(), words[2].data(),
                         words[3].data(), words[4].data(), nullptr};
    pid_t started = -1;
    if (posix_spawn(&started, program.c_str(), nullptr, nullptr, arguments, environ) != 0)
        throw unexpected("cannot start " + program + "; is it built with FOTA_BUILD_WEB?");
    usleep(POLL_MS * 1000);
    if (waitpid(started, nullptr, WNOHANG) == started) throw unexpected("fotaweb does not start");
    return started;
}

void set_password(const std::string& program, const std::string& password) {
    FILE* const pipe = popen(("'" + program + "' --set-password").c_str(), "w");
    const bool written = pipe != nullptr && std::fputs((password + "\n").c_str(), pipe) >= 0;
    if (pipe == nullptr || pclose(pipe) != 0 || !written)
        throw unexpected("cannot set a password for fotaweb");
}

}  // namespace

void web_run(const web_play& options, const std::string& program_folder) {
    static constexpr play_path NO_PATH = {};
    play_options device_options;
    device_options.program_folder = program_folder;
    device_options.installer = options.installer;
    player device{device_options, NO_PATH, {}};
    const std::string program = web_program(program_folder), password = make_password();
    set_password(program, password);
    for (bool first = true;; first = false) {
        (void)start_daemon(device);
        const pid_t web = start_web(program, options.listen);
        if (first) {
            std::printf("The page of the simulated hotspot: http://%s/\npassword: %s\nCtrl-C ends it.\n",
                        options.listen.c_str(), password.c_str());
        } else {
            std::printf("back: firmware %s\n", device_read_line(FOTA_OS_VERSION).c_str());
        }
        std::fflush(stdout);
        std::string asked;
        while (asked.empty()) {
            usleep(POLL_MS * 1000);
            device.full_image = fs::exists(FOTA_STAGING_UPDATE_PRE_FULL_FOTA_INSTALL);
            asked = asked_to_install(device.full_image);
            if (waitpid(web, nullptr, WNOHANG) == web) throw unexpected("fotaweb has ended");
        }
        std::printf("%s; the device restarts\n", asked.c_str());
        std::fflush(stdout);
        kill(web, SIGTERM);
        (void)waitpid(web, nullptr, 0);
        (void)daemon_end(device.daemon, SIGTERM);
        std::printf("installer: %s\n", install(device).c_str());
        sleep(options.downtime_secs);
        (void)reboot(device);
    }
}
