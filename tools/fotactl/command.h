// A command, one row: its arguments, and the request that it makes; and what comes of it.
#pragma once

#include <nlohmann/json.hpp>

#include <span>
#include <string>
#include <vector>

#include "arguments.h"
#include "tools/common/output.h"

// What came of a command, not yet escaped. `message` belongs to success, and stands for a table that is
// empty; `lines` are shown with every result. `data` says the same to scripts, with every result too: an
// object whose field names docs/fotactl.md promises, or null for none. A `problem` is one that the daemon has
// no part in; the result then only says whether it is one of usage. `advice` says what to do where the usual
// one does not fit.
struct answer {
    int result = FOTA_RC_SUCCESS;
    std::string message = {};
    std::vector<output_line> lines = {};
    output_table table = {};
    nlohmann::ordered_json data = nullptr;
    std::string problem = {};
    std::string advice = {};
    bool is_printed = false;  // the command itself has printed what there is for people
};

struct command {
    const char* group;  // the command that it is a sub-command of, or null; that one's row comes first
    const char* name;
    const char* help;
    const char* example;  // what may follow the name, a line each
    fota_event event = {};
    void (*add_arguments)(CLI::App& app, options& options) = add_nothing;
    answer (*run)(const options& options) = nullptr;  // null: it has sub-commands only
    int timeout_secs = 30;
    // What it would throw away now beside what it is for: a sentence without its full stop, or nothing. It is
    // asked for leave then, and takes --force. Null: never anything.
    std::string (*loses)(const options& options) = nullptr;
};

// How long the commands that check a package wait, when no other time is given.
inline constexpr int PACKAGE_TIMEOUT_SECS = 600;

// To a command that only looks, and had no answer in time.
inline constexpr char BUSY_ADVICE[] =
    "It may be busy, for instance with the check of a package: try again later, or with a longer --timeout. "
    "If "
    "fotad is not running, start it.";

struct command_section {
    const char* heading;
    std::span<const command> commands;
};

// "sideload start".
[[nodiscard]] std::string full_name(const command& command);
