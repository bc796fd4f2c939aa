#include "shell.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <vector>

#include "common/state_files.h"
#include "steps.h"
#include "tools/common/output.h"
#include "tools/play/device.h"
#include "tools/play/sandbox.h"

namespace {

namespace fs = std::filesystem;

// The shell's commands are scripts that leave a line "name process arguments" in this pipe and read the
// answer from one of their own, up to a line "end STATUS". An empty line is this program's: some process has
// ended.
constexpr char FOLDER[] = "/run/sim/shell";  // in SANDBOX_FOLDER
constexpr char REQUESTS[] = "/run/sim/shell/requests";
constexpr char ANSWER[] = "/run/sim/shell/answer.";  // and the process id of the script
constexpr char START_FILE[] = "/run/sim/shell/start";
constexpr char PATH_FILE[] = "/run/sim/shell/path";
constexpr char TMUX_FILE[] = "/run/sim/shell/tmux.conf";

constexpr char START_TEXT[] =
    "PS1='[simulated hotspot $PWD]# '\n"
    "unset HISTFILE TMUX\n"  // that of the outer one cannot be reached
    "alias tmux='tmux -f /run/sim/shell/tmux.conf'\n"
    "[ -z \"$BASH_VERSION\" ] || [ ! -r /run/sim/shell/completion ] || . /run/sim/shell/completion\n";

// Of process 1 once the shell can be joined. Another terminal finds it by this name.
constexpr char PROCESS_NAME[] = "fotasim shell";

struct shell_state {
    player device;
    bool booted_full_image = false;  // the daemon found a full image under way when it started
};

std::string boot(shell_state& shell) {
    shell.booted_full_image = fs::exists(FOTA_STAGING_UPDATE_PRE_FULL_FOTA_INSTALL);
    const std::string answer = start_daemon(shell.device);
    return "firmware " + escaped(device_read_line(FOTA_OS_VERSION)) + ", fotad " + answer;
}

std::string stop_and_boot(shell_state& shell, int signal_number) {
    player& p = shell.device;
    // With what it has started.
    if (p.daemon > 0) kill(signal_number == SIGKILL ? -p.daemon : p.daemon, signal_number);
    if (p.daemon > 0 && daemon_wait_end(p.daemon) < 0) throw unexpected("fotad does not end");
    p.daemon = -1;
    (void)reboot(p);  // what follows tells the firmware
    return boot(shell);
}

std::string reboot_device(shell_state& shell, const std::string&) {
    return stop_and_boot(shell, SIGTERM);
}

std::string cut_power(shell_state& shell, const std::string&) {
    return stop_and_boot(shell, SIGKILL);
}

std::string run_installer(shell_state& shell, const std::string& arguments) {
    player& p = shell.device;
    p.options = {};
    p.options.program_folder = sandbox_program_folder();
    if (!arguments.empty()) {
        const char* const end = arguments.data() + arguments.size();
        int32_t code = 0;
        const auto [rest, error] = std::from_chars(arguments.data(), end, code);
        if (error != std::errc() || (rest != end && *rest != ' ')) {
            throw unexpected(
                "the first argument is the code that the installer fails with, a number of 32 bits");
        }
        p.options.installer.code = code;
        if (rest != end) p.options.installer.reason = rest + 1;
    }
    p.full_image = fs::exists(FOTA_STAGING_UPDATE_PRE_FULL_FOTA_INSTALL);
    std::string answer = asked_to_install(p.full_image);
    if (answer.empty() && !(p.full_image && shell.booted_full_image)) {
        throw unexpected(
            "no update asks for the installer yet; 'fotactl install AGENT' starts one that is validated");
    }
    if (!answer.empty()) answer += "\n";
    if (p.daemon > 0 && daemon_end(p.daemon, SIGTERM) < 0) throw unexpected("fotad does not end");
    p.daemon = -1;
    try {
        answer += "installer: " + install(p) + "\n";
    } catch (const unexpected& error) {
        answer += std::string("installer: did nothing, ") + error.what() + "\n";
    }
    return answer + stop_and_boot(shell, SIGTERM);
}

struct shell_command {
    const char* name;
    const char* arguments;
    std::string (*run)(shell_state& shell, const std::string& arguments);
    const char* help;
};

// clang-format off
constexpr shell_command COMMANDS[] = {
    {"install",       " [CODE [REASON]]", run_installer, "the installer does its part, or fails, once an update has asked for it"},
    {"reboot-device", "",                 reboot_device, "restarts the device: /run and /tmp are lost, fotad ends and starts again"},
    {"power-cut",     "",                 cut_power,     "the same, but fotad and what it runs are killed"},
};
// clang-format on

constexpr char COMMAND_TEXT[] = R"(answer=/run/sim/shell/answer.$$
rm -f $answer && mkfifo $answer && exec 3<>$answer || exit 1
echo "${0##*/} $$ $*" >/run/sim/shell/requests
while read -r line <&3; do
    case $line in "end "*) exit "${line#end }" ;; esac
    printf '%s\n' "$line"
done
)";

constexpr char LOGS_TEXT[] = "follows the debug log until Ctrl-C; 'logs &' goes on beside the work";

// $SHELL, when its way of being started is known, or one that is.
std::string find_shell() {
    const char* const wanted = std::getenv("SHELL");
    if (wanted != nullptr && access(wanted, X_OK) == 0) {
        const std::string name = fs::path(wanted).filename();
        for (const char* known : {"bash", "dash", "ksh", "sh"}) {
            if (name == known) return wanted;
        }
    }
    return access("/bin/bash", X_OK) == 0 ? "/bin/bash" : "/bin/sh";
}

std::vector<std::string> shell_words(bool interactive) {
    std::vector<std::string> words = {find_shell()};
    if (!interactive) return words;
    if (fs::path(words.front()).filename() == "bash") words.insert(words.end(), {"--rcfile", START_FILE});
    words.emplace_back("-i");
    return words;
}

void make_command(const std::string& name, const std::string& text) {
    const std::string path = std::string(FOLDER) + "/" + name;
    device_write(path, "#!/bin/sh\n" + text);
    chmod(path.c_str(), 0755);
}

void make_commands(const std::string& program_folder) {
    std::error_code none;
    fs::create_directories(FOLDER);
    fs::copy_file(shell_completion_folder(program_folder) + "/fotactl", std::string(FOLDER) + "/completion",
                  none);
    device_write(START_FILE, START_TEXT);
    std::string shell;
    for (const std::string& word : shell_words(true)) shell += " " + word;
    // By itself it starts a login shell, which may set PATH anew.
    device_write(TMUX_FILE, "set -g default-command 'exec" + shell + "'\n");
    device_write(PATH_FILE, std::string(FOLDER) + ":" + std::getenv("PATH") + "\n");
    for (const shell_command& command : COMMANDS) make_command(command.name, COMMAND_TEXT);
    make_command("logs",
                 std::string("tail -n 20 -F ") + DEVICE_DEBUG_LOG + " | cat -v | sed -u 's/^/log: /'\n");
    if (mkfifo(REQUESTS, 0600) != 0) throw unexpected(std::string("cannot make ") + REQUESTS);
}

// Both ends, so that opening does not wait for the other side.
int open_requests(int flags) {
    const int fd = open(REQUESTS, O_RDWR | O_CLOEXEC | flags);
    if (fd < 0) throw unexpected(std::string("cannot open ") + REQUESTS);
    return fd;
}

int own_requests = -1;

void tell_of_end(int) {
    const int saved_errno = errno;
    [[maybe_unused]] const ssize_t ignored = write(own_requests, "\n", 1);
    errno = saved_errno;
}

pid_t start_shell(bool interactive) {
    const std::vector<std::string> words = shell_words(interactive);
    const std::string& shell = words.front();
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (const std::string& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    const pid_t started = fork();
    if (started < 0) throw unexpected("cannot start " + shell + ": " + std::strerror(errno));
    if (started > 0) return started;
    if (interactive) {
        // The terminal's signals are for the shell and its jobs, and not for the device.
        setpgid(0, 0);
        signal(SIGTTOU, SIG_IGN);
        tcsetpgrp(STDIN_FILENO, getpid());
        signal(SIGTTOU, SIG_DFL);
    }
    setenv("PATH", device_read_line(PATH_FILE).c_str(), 1);
    setenv("ENV", START_FILE, 1);
    execv(shell.c_str(), arguments.data());
    std::fprintf(stderr, "fotasim: cannot start %s: %s\n", shell.c_str(), std::strerror(errno));
    _exit(127);
}

// Nobody reads what a script that was interrupted had asked for.
void send_answer(long script, const std::string& answer) {
    const std::string pipe = ANSWER + std::to_string(script);
    const int fd = open(pipe.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    unlink(pipe.c_str());
    if (fd < 0) return;
    [[maybe_unused]] const ssize_t ignored = write(fd, answer.data(), answer.size());
    close(fd);
}

void answer_request(shell_state& shell, const std::string& line) {
    std::istringstream words(line);
    std::string name;
    long script = 0;
    std::string arguments;
    words >> name >> script >> std::ws;
    std::getline(words, arguments);
    std::string answer;
    int status = 0;
    try {
        for (const shell_command& command : COMMANDS) {
            if (name == command.name) answer = command.run(shell, arguments) + "\n";
        }
    } catch (const std::exception& error) {
        answer = name + ": " + error.what() + "\n";
        status = 1;
    }
    send_answer(script, answer + "end " + std::to_string(status) + "\n");
}

// Collects who has ended; returns whether the shell has, and then its status.
bool collect(shell_state& shell, pid_t shell_process, int& shell_status) {
    int status = 0;
    for (pid_t ended = 0; (ended = waitpid(-1, &status, WNOHANG | WUNTRACED)) > 0;) {
        if (WIFSTOPPED(status)) {
            // Nobody else could wake it up again.
            if (ended == shell_process) kill(ended, SIGCONT);
            continue;
        }
        if (ended == shell_process) {
            shell_status = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
            return true;
        }
        if (ended == shell.device.daemon) {
            shell.device.daemon = -1;
            std::fprintf(stderr, "\r\nfotasim: fotad has ended; 'reboot-device' starts it again\r\n");
        }
    }
    return false;
}

void greet(const std::string& booted) {
    std::printf(
        "This is the simulated hotspot: %s.\n"
        "Nothing here reaches your machine, whose files are read-only. 'exit' ends it. Try\n"
        "  fotactl status              where the device stands; 'fotactl --help' lists all\n"
        "  fotactl check PACKAGE       whether it would take a package\n"
        "  fotactl update PACKAGE      an update, up to the start of its installation; then\n"
        "%s"
        "  fotactl history             what became of it\n"
        "Another terminal comes in with 'fotasim join'.\n"
        "%s",
        booted.c_str(), shell_commands_text().c_str(),
        fs::exists(FOTA_DEVICE_KEY)
            ? ""
            : "The device has no keys, so that no package is valid; --keys DIR installs some.\n");
    std::fflush(stdout);
}

}  // namespace

bool shell_may_start() {
    return isatty(STDIN_FILENO) == 0 || tcgetpgrp(STDIN_FILENO) == getpgrp();
}

std::string shell_completion_folder(const std::string& program_folder) {
    return program_folder + "/../share/bash-completion/completions";
}

std::string shell_commands_text() {
    std::string text;
    const auto add_line = [&](std::string name, const char* help) {
        name.resize(28, ' ');
        text += "  " + name + help + "\n";
    };
    for (const shell_command& command : COMMANDS) {
        add_line(std::string(command.name) + command.arguments, command.help);
    }
    add_line("logs", LOGS_TEXT);
    return text;
}

void shell_follow_log(const std::string& log) {
    const std::string process = std::to_string(getpid());
    const char* const arguments[] = {
        "tmux", "split-window",  "-d",        "sh",   "-c", "tail --pid=\"$1\" -n 20 -F \"$2\" | cat -v",
        "log",  process.c_str(), log.c_str(), nullptr};
    pid_t tmux = -1;
    int status = -1;
    if (std::getenv("TMUX") != nullptr &&
        posix_spawnp(&tmux, "tmux", nullptr, nullptr, const_cast<char* const*>(arguments), environ) == 0) {
        waitpid(tmux, &status, 0);
    }
    if (status != 0) std::printf("The log, from another terminal: tail -F '%s'\n", escaped(log).c_str());
}

int shell_run(const std::string& program_folder) {
    const bool interactive = isatty(STDIN_FILENO) != 0;
    static constexpr play_path NO_PATH = {};
    play_options options;
    options.program_folder = program_folder;
    shell_state shell{player{options, NO_PATH, {}}};
    const std::string booted = boot(shell);
    make_commands(program_folder);
    const int requests = open_requests(0);
    own_requests = open_requests(O_NONBLOCK);
    if (interactive) greet(booted);

    struct sigaction action = {};
    action.sa_handler = tell_of_end;
    sigaction(SIGCHLD, &action, nullptr);
    prctl(PR_SET_NAME, PROCESS_NAME);
    const pid_t process = start_shell(interactive);

    std::string received;
    int status = 0;
    for (bool ended = false; !ended;) {
        char part[512];
        const ssize_t size = read(requests, part, sizeof part);
        if (size > 0) received.append(part, static_cast<size_t>(size));
        for (size_t end = 0; !ended && (end = received.find('\n')) != std::string::npos;) {
            const std::string line = received.substr(0, end);
            received.erase(0, end + 1);
            if (!line.empty()) answer_request(shell, line);
            ended = collect(shell, process, status);
        }
    }
    if (shell.device.daemon > 0 && daemon_end(shell.device.daemon, SIGTERM) != 0) {
        std::fprintf(stderr, "fotasim: fotad did not end well\n");
    }
    return status;
}

std::vector<pid_t> shells_running() {
    std::vector<pid_t> found;
    for (const auto& entry : fs::directory_iterator("/proc")) {
        struct stat owner {};
        const pid_t process = std::atoi(entry.path().filename().c_str());
        if (process <= 0 || stat(entry.path().c_str(), &owner) != 0 || owner.st_uid != geteuid()) continue;
        if (device_read_line((entry.path() / "comm").string()) != PROCESS_NAME) continue;
        // Not one of its children, which has the name until it runs another program.
        std::ifstream status(entry.path() / "status");
        for (std::string line; std::getline(status, line);) {
            if (line.starts_with("NSpid:") && line.ends_with("\t1")) found.push_back(process);
        }
    }
    return found;
}

int shell_join() {
    const pid_t process = start_shell(isatty(STDIN_FILENO) != 0);
    int status = 0;
    while (waitpid(process, &status, WUNTRACED) == process && WIFSTOPPED(status)) kill(process, SIGCONT);
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}
