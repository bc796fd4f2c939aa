// A person's shell on the running simulated device.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

// Runs a shell beside the daemon that of the tools in `program_folder`, on the terminal when there is one,
// and returns its exit status when it ends, or 128 and the number of the signal that ended it. Call it inside
// the sandbox, from its process 1, with the device booted. Throws std::exception when the daemon or the shell
// does not start.
[[nodiscard]] int shell_run(const std::string& program_folder);

// The processes 1, as numbers out here, of this user's sandboxes that have such a shell.
[[nodiscard]] std::vector<pid_t> shells_running();

// Runs one more shell, and returns as shell_run does. Call it in such a sandbox that has been joined.
[[nodiscard]] int shell_join();

// Where bash's completion of the tools in `program_folder` lies, if it does.
[[nodiscard]] std::string shell_completion_folder(const std::string& program_folder);

// Whether a shell could have the terminal: false while this process runs in its background.
[[nodiscard]] bool shell_may_start();

// The shell's own commands, a line each.
[[nodiscard]] std::string shell_commands_text();

// Opens a pane of tmux, when this process runs in one, that follows a log until this process ends. Otherwise
// prints the command that follows it from another terminal. Call it outside the sandbox.
void shell_follow_log(const std::string& log);
