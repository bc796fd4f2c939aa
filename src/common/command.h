// External commands and the package's scripts, through the shell. Each call waits for the command to end;
// none of the daemon's descriptors reaches it. Any thread.
#pragma once

#include "core/result_codes.h"

// Runs a command line with popen(). Nobody reads its standard output: a command that prints has to send that
// elsewhere, or its writes fail. Returns its exit code, 0 to 255: 255 also when the shell cannot be started,
// 128 and its number for a signal that killed it.
[[nodiscard]] int run_command(const char* command_line);

// Runs a command line with system(). Returns as run_command does; most callers have no use for it.
int run_in_shell(const char* command_line);

// Makes a script of the package executable (mode 0755) and runs it. Returns as run_command does.
int run_script(const char* path);

// False when `path` would not reach a command as the one word it is: it holds a blank, a character that means
// something to the shell or to unzip, or begins with "-". The second then also names it in an error line.
[[nodiscard]] bool is_plain_path(const char* path);
[[nodiscard]] bool is_shell_safe(const char* path);
