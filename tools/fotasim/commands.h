// The commands of fotasim: each enters the sandbox and does not come back to the caller's process. They
// return exit codes, and throw std::exception with one sentence when something cannot be started.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include "play.h"
#include "tools/play/sandbox.h"
#include "web.h"

// What the machine outside gives to the device.
struct surroundings {
    std::string keys_folder;
    std::string device_folder;  // empty: the device is new, and gone afterwards
    sandbox_options folders;
};

struct exec_options {
    surroundings outside;
    bool no_daemon = false;
    std::vector<std::string> command;
};

struct shell_options {
    surroundings outside;
    bool logs = false;
};

struct web_options {
    surroundings outside;
    web_play play;
};

struct played_update {
    play_options options;
    std::string package;
    std::string faults;       // list of them; empty: none
    bool all_faults = false;  // each by itself, in a table
    surroundings outside;
};

// What the user asked for cannot be.
struct wrong_usage : std::runtime_error {
    using std::runtime_error::runtime_error;
};

[[nodiscard]] int run_exec(const exec_options& options, const std::string& program_folder);
[[nodiscard]] int run_shell(const shell_options& options, const std::string& program_folder);
[[nodiscard]] int run_web(const web_options& options, const std::string& program_folder);
// `process`: one of shells_running, or 0 for the only one.
[[nodiscard]] int run_join(pid_t process);
[[nodiscard]] int run_update(played_update& played, const std::string& program_folder);
