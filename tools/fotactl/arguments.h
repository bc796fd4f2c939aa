// The values of all arguments, and those arguments that several commands take.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "fota/fota_client.h"

namespace CLI {
class App;
class Option;
class Validator;
}  // namespace CLI

// Each command uses its own.
struct options {
    int timeout_ms = 0;
    bool sideload = false;
    bool json = false;  // for scripts: JSON instead of text, an object a line
    bool force = false;
    bool follow = false;
    uint32_t lines = 0;
    std::string agent;
    std::string path;
    std::string first_word;  // an agent, or the path when no other follows
    std::string text;
    std::vector<std::function<void(fota_pkg_info&)>> edits;  // one for each field of a package that was given
    std::string boot_state = "online";
    uint32_t wait_secs = 0;
    uint32_t status = 0;
    std::string reason;
    std::string recovery_state;
    uint32_t number = 0;  // id or position of a record
    std::string date;
    std::string version;
    std::string firmware;
    fota_device_info device{};
    bool list = false;
    bool no_install = false;
};

inline constexpr size_t MAX_TEXT = FOTA_TEXT_SIZE - 1;

// Refuses a text of another length, in bytes, here, where the message can name the argument.
[[nodiscard]] CLI::Validator sized_text(size_t least, size_t most);

// A text that the command cannot do without, of `least` bytes and at most `most`. `type` is what the help
// shows behind the name of an option.
CLI::Option* add_required(CLI::App& app, const char* name, std::string& text, const char* help, size_t least,
                          const char* type = "", size_t most = MAX_TEXT);

void add_nothing(CLI::App& app, options& options);

// The agent in whose name a command speaks, where none is given: $FOTA_AGENT, or "fotactl". Empty when the
// variable's text is none that the daemon takes.
[[nodiscard]] std::string default_agent();

// --agent alone, and with the agent's name as an argument too, which may be empty where `least` is 0.
void add_agent_option(CLI::App& app, options& options);
void add_agent(CLI::App& app, options& options, size_t least);
void add_agent(CLI::App& app, options& options);

// For commands that may throw something away.
void add_force(CLI::App& app, options& options);

void add_path(CLI::App& app, options& options);
// A path, before which the agent's name may stand.
void add_agent_and_path(CLI::App& app, options& options);

// What a client knows of a package. Each option that is given becomes an edit.
void add_pkg_info(CLI::App& app, options& options);
[[nodiscard]] fota_pkg_info pkg_info_of(const options& options, const std::string& agent);

// How and when to install.
void add_boot_and_wait(CLI::App& app, options& options);
[[nodiscard]] uint32_t boot_preference_of(const options& options);
