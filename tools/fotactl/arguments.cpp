#include "arguments.h"

#include <CLI/CLI.hpp>

#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace {

// The daemon's working folder is not the user's.
std::string make_absolute(std::string& path) {
    std::error_code error;
    if (!path.empty()) path = std::filesystem::absolute(path, error).string();
    return error ? "has no absolute form: " + error.message() : std::string();
}

template <size_t N>
void add_text(CLI::App& app, options& options, const char* name, char (fota_pkg_info::*field)[N],
              const char* help) {
    const auto add_edit = [&options, field](const std::string& text) {
        options.edits.emplace_back([field, text](fota_pkg_info& info) {
            memset(info.*field, 0, N);
            text.copy(info.*field, N - 1);
        });
    };
    app.add_option_function<std::string>(name, add_edit, help)
        ->check(sized_text(0, MAX_TEXT))
        ->type_name("TEXT");
}

void add_number(CLI::App& app, options& options, const char* name, uint32_t fota_pkg_info::*field,
                const char* unit, const char* help) {
    const auto add_edit = [&options, field](const uint32_t& number) {
        options.edits.emplace_back([field, number](fota_pkg_info& info) { info.*field = number; });
    };
    app.add_option_function<uint32_t>(name, add_edit, help)->type_name(unit);
}

}  // namespace

CLI::Validator sized_text(size_t least, size_t most) {
    return {[least, most](std::string& text) {
                if (text.size() < least) return std::string("must not be empty");
                return text.size() > most ? "is longer than " + std::to_string(most) + " bytes"
                                          : std::string();
            },
            ""};
}

void add_nothing(CLI::App&, options&) {}

CLI::Option* add_required(CLI::App& app, const char* name, std::string& text, const char* help, size_t least,
                          const char* type, size_t most) {
    return app.add_option(name, text, help)->required()->check(sized_text(least, most))->type_name(type);
}

std::string default_agent() {
    const char* const agent = getenv("FOTA_AGENT");
    if (agent == nullptr) return "fotactl";
    return strlen(agent) <= MAX_TEXT ? agent : "";
}

void add_agent_option(CLI::App& app, options& options) {
    app.add_option("--agent", options.agent,
                   "Name of the agent that drives the update; $FOTA_AGENT when not given, or fotactl")
        ->check(sized_text(1, MAX_TEXT))
        ->type_name("TEXT");
}

void add_agent(CLI::App& app, options& options, size_t least) {
    add_agent_option(app, options);
    app.add_option("AGENT", options.agent, "The same as --agent")
        ->check(sized_text(least, MAX_TEXT))
        ->excludes(app.get_option("--agent"))
        ->type_name("");
}

void add_agent(CLI::App& app, options& options) {
    add_agent(app, options, 1);
}

void add_force(CLI::App& app, options& options) {
    app.add_flag("--force", options.force, "Do it, whatever is thrown away");
}

void add_path(CLI::App& app, options& options) {
    // transform() puts its validator in front: the length that counts is the absolute path's.
    add_required(app, "PATH", options.path, "File on the device", 1)
        ->transform(CLI::Validator(make_absolute, ""));
}

void add_agent_and_path(CLI::App& app, options& options) {
    add_agent_option(app, options);
    app.add_option("AGENT", options.first_word, "The same as --agent; may be left out")
        ->check(sized_text(1, MAX_TEXT))
        ->type_name("");
    app.add_option("PATH", options.path, "File on the device")->type_name("");
    app.parse_complete_callback([&app, &options] {
        if (options.first_word.empty()) throw CLI::RequiredError("PATH");
        if (options.path.empty()) {
            options.path = options.first_word;
        } else if (app.count("--agent") > 0) {
            throw CLI::ExcludesError("AGENT", "--agent");
        } else {
            options.agent = options.first_word;
        }
        std::string problem = make_absolute(options.path);
        if (problem.empty()) problem = sized_text(1, MAX_TEXT)(options.path);
        if (!problem.empty()) throw CLI::ValidationError("PATH", problem);
    });
}

void add_pkg_info(CLI::App& app, options& options) {
    add_text(app, options, "--name", &fota_pkg_info::pkg_name, "Name of the package");
    add_text(app, options, "--version", &fota_pkg_info::pkg_ver, "Version that the package brings");
    add_text(app, options, "--description", &fota_pkg_info::pkg_description, "Description of the package");
    add_text(app, options, "--method", &fota_pkg_info::update_method, "How the package got here");
    add_text(app, options, "--manufacturer", &fota_pkg_info::manufacturer, "Manufacturer of the device");
    add_number(app, options, "--size", &fota_pkg_info::pkg_size, "BYTES", "Size of the package");
    add_number(app, options, "--estimate", &fota_pkg_info::est_update_time, "SECONDS",
               "Estimated time of the installation");
}

fota_pkg_info pkg_info_of(const options& options, const std::string& agent) {
    fota_pkg_info info{};
    for (const auto& edit : options.edits) edit(info);
    agent.copy(info.agent_name, sizeof info.agent_name - 1);
    return info;
}

void add_boot_and_wait(CLI::App& app, options& options) {
    app.add_option("--boot", options.boot_state,
                   "How the device comes up afterwards: online (default), shutdown or lpm (low power)")
        ->check(CLI::IsMember({"online", "shutdown", "lpm"}))
        ->type_name("STATE");
    app.add_option("--wait", options.wait_secs, "Wait before the installation starts; 0 when not given")
        ->type_name("SECONDS");
}

uint32_t boot_preference_of(const options& options) {
    if (options.boot_state == "lpm") return FOTA_BOOT_LPM;
    return options.boot_state == "shutdown" ? FOTA_BOOT_SHUTDOWN : FOTA_BOOT_ONLINE;
}
