// The commands, one row each: its arguments, and the request that it makes.
#pragma once

#include <CLI/CLI.hpp>

#include <span>
#include <string>
#include <vector>

#include "fota_client.h"
#include "output.h"

// The arguments of all commands; each uses its own.
struct options {
    int timeout_ms = 0;
    std::string agent;
    std::string path;
    std::string text;
    fota_pkg_info info{};
    std::string boot_state = "online";
    uint32_t wait_secs = 0;
    uint32_t status = 0;
    std::string reason;
    std::string recovery_state;
};

// What came of a command, not yet escaped. `message` belongs to success; `lines` are shown with every result.
struct answer {
    int result = FOTA_RC_SUCCESS;
    std::string message = {};
    std::vector<output_line> lines = {};
};

struct command {
    const char* group;  // the command that it is a sub-command of, or null
    const char* name;
    const char* help;
    fota_event event;
    void (*add_arguments)(CLI::App& app, options& options);
    answer (*run)(const options& options);
    int timeout_secs = 30;
};

std::span<const command> all_commands();
