#include "common/command.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "common/state_files.h"
#include "common/text.h"
#include "core/log.h"

namespace {

// Where a command's output goes. A log that is no file, or cannot be opened, must not end a script that
// writes.
int open_command_log() {
    const int log = open(FOTA_COMMAND_LOG, O_WRONLY | O_APPEND | O_CREAT | O_NONBLOCK | O_CLOEXEC, 0644);
    struct stat info = {};
    if (log >= 0 && fstat(log, &info) == 0 && S_ISREG(info.st_mode)) return log;
    if (log >= 0) close(log);
    return open("/dev/null", O_WRONLY | O_CLOEXEC);
}

// Starts the shell with what a plain shell would give it, and not what this process and its threads have.
// Returns its process id, or -1.
pid_t start_shell(const char* command_line, int output) {
    posix_spawn_file_actions_t files;
    posix_spawnattr_t attributes;
    if (posix_spawn_file_actions_init(&files) != 0) return -1;
    if (posix_spawnattr_init(&attributes) != 0) {
        posix_spawn_file_actions_destroy(&files);
        return -1;
    }
    sigset_t every, none;
    sigfillset(&every);
    sigemptyset(&none);
    posix_spawnattr_setsigdefault(&attributes, &every);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setflags(&attributes,
                             POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETPGROUP);
    const char* const words[] = {"sh", "-c", command_line, nullptr};
    pid_t child = -1;
    const bool redirected =
        output < 0 || (posix_spawn_file_actions_adddup2(&files, output, STDOUT_FILENO) == 0 &&
                       posix_spawn_file_actions_adddup2(&files, output, STDERR_FILENO) == 0);
    const bool started =
        redirected && posix_spawn_file_actions_addclosefrom_np(&files, STDERR_FILENO + 1) == 0 &&
        posix_spawn(&child, "/bin/sh", &files, &attributes, const_cast<char* const*>(words), environ) == 0;
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&files);
    return started ? child : -1;
}

// Some shells stay to report a command that a signal killed, others become the command: both count as a
// failure.
int exit_code(int status) {
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

}  // namespace

int run_command(const char* command_line) {
    const int output = open_command_log();
    const pid_t child = start_shell(command_line, output);
    if (output >= 0) close(output);
    if (child < 0) return COMMAND_NOT_STARTED;
    int status = 0;
    while (waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) return COMMAND_NOT_STARTED;
    }
    return exit_code(status);
}

int run_script(const char* path) {
    chmod(path, 0755);
    char command[1024];
    if (!text_format(command, sizeof command, "umask 022; %s", path)) return COMMAND_NOT_STARTED;
    return run_command(command);
}

bool is_plain_path(const char* path) {
    static constexpr char PLAIN[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789/._-+,:@%=";
    bool safe = path[0] != '\0' && path[0] != '-';
    for (const char* c = path; safe && *c != '\0'; ++c) {
        safe = strchr(PLAIN, *c) != nullptr || static_cast<unsigned char>(*c) >= 0x80;
    }
    return safe;
}

bool is_shell_safe(const char* path) {
    if (is_plain_path(path)) return true;
    LOG_ERROR("Refused, not a plain path for a command:%s\n", path);
    return false;
}
