// External commands and the package's scripts, through the shell. A command starts as from a plain shell:
// signals as they are by default, no descriptor of the daemon's but standard input, a process group of its
// own. What it prints, on both streams, goes to the debug log file. Each call waits for the command to end,
// and leaves the daemon's own signals as they are meanwhile. Any thread.
#pragma once

#include "fota/result_codes.h"

// The exit code of a command that could not be started.
inline constexpr int COMMAND_NOT_STARTED = 255;

// Runs a command line. Returns its exit code, 0 to 255: COMMAND_NOT_STARTED also when the shell cannot be
// started, 128 and its number for a signal that killed it. Some callers have no use for it: what
// counts is done, or shows elsewhere.
[[nodiscard]] int run_command(const char* command_line);

// Makes a script of the package executable (mode 0755) and runs it under the file-creation mask 022, as a
// plain shell would. Returns as run_command does.
[[nodiscard]] int run_script(const char* path);

// False when `path` would not reach a command as the one word it is: it holds a blank, a character that means
// something to the shell or to unzip, or begins with "-". The second then also names it in an error line.
[[nodiscard]] bool is_plain_path(const char* path);
[[nodiscard]] bool is_shell_safe(const char* path);
