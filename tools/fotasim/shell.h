// A person's shell on the running simulated device.
#pragma once

#include <string>

// Runs a shell beside the daemon that of the tools in `program_folder`, on the terminal when there is one,
// and returns its exit status when it ends, or 128 and the number of the signal that ended it. Call it inside
// the sandbox, from its process 1, with the device booted. Throws std::exception when the daemon or the shell
// does not start.
[[nodiscard]] int shell_run(const std::string& program_folder);

// Whether a shell could have the terminal: false while this process runs in its background.
[[nodiscard]] bool shell_may_start();

// The shell's own commands, a line each.
[[nodiscard]] std::string shell_commands_text();

// Opens a pane of tmux, when this process runs in one, that follows a log until this process ends. Otherwise
// prints the command that follows it from another terminal. Call it outside the sandbox.
void shell_follow_log(const std::string& log);
