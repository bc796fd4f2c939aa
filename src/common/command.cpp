#include "common/command.h"

#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/log.h"

namespace {

// Some shells stay to report a command that a signal killed, others become the command: both count as a
// failure.
int exit_code(int status) {
    if (status != -1 && WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return static_cast<int>(static_cast<unsigned>(status) >> 8 & 0xFF);
}

}  // namespace

int run_command(const char* command_line) {
    FILE* pipe = popen(command_line, "re");
    return exit_code(pipe == nullptr ? -1 : pclose(pipe));
}

int run_in_shell(const char* command_line) {
    return exit_code(system(command_line));
}

int run_script(const char* path) {
    chmod(path, 0755);
    return run_in_shell(path);
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
