#include "commands.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "device_folder.h"
#include "faults.h"
#include "mishaps.h"
#include "shell.h"
#include "steps.h"
#include "tools/common/output.h"
#include "tools/play/device.h"

namespace {

void enter(const std::string& program_folder, surroundings outside) {
    const std::string daemon_folder = std::filesystem::path(daemon_program(program_folder)).parent_path();
    std::string programs = daemon_folder + ":" + program_folder + ":";
    const char* const path = std::getenv("PATH");
    setenv("PATH", programs.append(path != nullptr ? path : "/usr/bin:/bin").c_str(), 1);
    try {
        if (!outside.device_folder.empty()) device_folder_open(outside.device_folder, outside.folders);
    } catch (const std::exception& error) {
        throw wrong_usage(error.what());
    }
    for (const std::string& folder : {program_folder, daemon_folder, installed_daemons(program_folder)}) {
        if (std::filesystem::exists(folder)) outside.folders.keep.push_back(folder);
    }
    if (!outside.keys_folder.empty()) outside.folders.keep.push_back(outside.keys_folder);
    sandbox_enter(outside.folders);
}

// Waits for the command, and for whatever else ends meanwhile: all orphans of the sandbox are this process's.
int wait_for_command(pid_t command, pid_t& daemon) {
    for (;;) {
        int status = 0;
        const pid_t ended = waitpid(-1, &status, 0);
        if (ended == command) return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
        if (ended == daemon) daemon = -1;
    }
}

pid_t start_command(const std::vector<std::string>& command) {
    std::vector<char*> arguments;
    arguments.reserve(command.size() + 1);
    for (const std::string& argument : command) arguments.push_back(const_cast<char*>(argument.c_str()));
    arguments.push_back(nullptr);
    pid_t started = -1;
    const int error = posix_spawnp(&started, arguments[0], nullptr, nullptr, arguments.data(), environ);
    if (error != 0) throw std::runtime_error("cannot start " + command[0] + ": " + std::strerror(error));
    return started;
}

int run_play(const played_update& played, const std::string& program_folder) {
    play_options options = played.options;
    options.program_folder = program_folder;
    options.keys_folder = played.outside.keys_folder;
    enter(program_folder, played.outside);
    return play(options);
}

// The table has no room for what each play prints; that is shown where one goes wrong.
bool play_case(played_update played, const fault_case& wanted, const std::string& program_folder) {
    faults_apply(wanted.list, played.options);
    void* const shared =
        mmap(nullptr, sizeof(uint32_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    const int output = memfd_create("output", MFD_CLOEXEC);
    if (shared == MAP_FAILED || output < 0) throw std::runtime_error("no memory for the output of a play");
    played.options.recorded_status = static_cast<uint32_t*>(shared);
    std::fflush(stdout);  // or the child has it, too
    const pid_t player = fork();
    if (player < 0) throw std::runtime_error("cannot start a process");
    if (player == 0) {
        dup2(output, STDOUT_FILENO);
        std::exit(run_play(played, program_folder));
    }
    pid_t nobody = -1;
    const int outcome = wait_for_command(player, nobody);
    if (outcome == SANDBOX_UNAVAILABLE) std::exit(outcome);
    const uint32_t status = *played.options.recorded_status;
    const bool as_expected = outcome == wanted.outcome && status == wanted.status;
    const std::string code = outcome == PLAY_UNEXPECTED      ? "-"
                             : status == FOTA_STATUS_PENDING ? "pending"
                                                             : std::to_string(status);
    std::printf("%-34s %-14s %-10s %s\n", wanted.list.c_str(),
                play_outcome_name(static_cast<play_outcome>(outcome)), code.c_str(),
                as_expected ? "as it should" : "NOT as it should");
    munmap(shared, sizeof(uint32_t));
    if (!as_expected) {
        lseek(output, 0, SEEK_SET);
        char part[4096];
        for (ssize_t size = 0; (size = read(output, part, sizeof part)) > 0;) {
            std::fwrite(part, 1, static_cast<size_t>(size), stdout);
        }
    }
    close(output);
    return as_expected;
}

int run_all_faults(const played_update& played, const std::string& program_folder) {
    std::printf("%-34s %-14s %-10s %s\n", "fault", "outcome", "FUMO code", "verdict");
    std::fflush(stdout);
    const std::vector<fault_case> cases = fault_cases(played.options.path);
    size_t failed = 0;
    for (const fault_case& wanted : cases) failed += play_case(played, wanted, program_folder) ? 0 : 1;
    const std::string verdict = failed == 0 ? "all" : std::to_string(failed) + " NOT";
    std::printf("%zu played with --path %s, %s as they should end\n", cases.size(),
                played.options.path.c_str(), verdict.c_str());
    return failed == 0 ? PLAY_UPDATED : PLAY_UNEXPECTED;
}

// Where the user is, for a look from inside.
struct user_folder {
    std::string path;
    struct stat status {};
};

user_folder find_user_folder() {
    std::error_code none;
    user_folder folder = {std::filesystem::current_path(none)};
    (void)stat(".", &folder.status);
    return folder;
}

void say_if_out_of_sight(const user_folder& folder) {
    struct stat here {};
    const bool same =
        stat(".", &here) == 0 && here.st_dev == folder.status.st_dev && here.st_ino == folder.status.st_ino;
    if (same) return;
    std::fprintf(
        stderr,
        "fotasim: your folder %s is not in sight here, since the device has its own; start the shell "
        "in a folder below it, or with --keep FOLDER\n",
        escaped(folder.path).c_str());
}

void need_terminal() {
    if (!shell_may_start())
        throw wrong_usage("the shell needs the terminal; do not start it in the background");
}

}  // namespace

int run_exec(const exec_options& options, const std::string& program_folder) {
    enter(program_folder, options.outside);
    (void)device_boot(options.outside.keys_folder);  // a new device will do as well
    pid_t daemon = options.no_daemon ? -1 : start_fotad(program_folder);
    const int status = wait_for_command(start_command(options.command), daemon);
    if (daemon > 0 && daemon_end(daemon, SIGTERM) != 0) {
        std::fprintf(stderr, "fotasim: fotad did not end well\n");
    }
    return status;
}

int run_shell(const shell_options& options, const std::string& program_folder) {
    need_terminal();
    const user_folder folder = find_user_folder();
    if (options.logs) shell_follow_log(device_folder_log(options.outside.device_folder));
    surroundings outside = options.outside;
    outside.folders.keep_working_folder = true;
    const std::string completion = shell_completion_folder(program_folder);
    if (std::filesystem::exists(completion)) outside.folders.keep.push_back(completion);
    enter(program_folder, outside);
    say_if_out_of_sight(folder);
    (void)device_boot(outside.keys_folder);  // a new device will do as well
    return shell_run(program_folder);
}

int run_web(const web_options& options, const std::string& program_folder) {
    enter(program_folder, options.outside);
    (void)device_boot(options.outside.keys_folder);  // a new device will do as well
    web_run(options.play, program_folder);
}

int run_join(pid_t process) {
    need_terminal();
    const std::vector<pid_t> running = shells_running();
    if (running.empty()) throw wrong_usage("no 'fotasim shell' of yours is running");
    if (process == 0 && running.size() == 1) process = running.front();
    if (std::ranges::find(running, process) == running.end()) {
        std::string text = "name one of the shells that run:";
        for (const pid_t shell : running) text += " 'fotasim join " + std::to_string(shell) + "'";
        throw wrong_usage(text);
    }
    const user_folder folder = find_user_folder();
    sandbox_join(process);
    say_if_out_of_sight(folder);
    return shell_join();
}

int run_update(played_update& played, const std::string& program_folder) {
    // The package may lie anywhere, also where the sandbox covers it.
    played.options.session.package_fd = open(played.package.c_str(), O_RDONLY | O_CLOEXEC);
    if (played.options.session.package_fd < 0) {
        throw wrong_usage("cannot read " + played.package + ": " + std::strerror(errno));
    }
    if (played.all_faults) return run_all_faults(played, program_folder);
    try {
        faults_apply(played.faults, played.options);
    } catch (const std::exception& error) {
        throw wrong_usage(error.what());
    }
    const bool fills = std::ranges::any_of(
        played.options.mishaps, [](const mishap* m) { return m->fault == std::string("full-flash"); });
    if (fills && !played.outside.device_folder.empty()) {
        throw wrong_usage("full-flash cannot fill the disk that --device lies on; leave --device away");
    }
    return run_play(played, program_folder);
}
