// A simulated hotspot around a real daemon.
#include <CLI/CLI.hpp>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "core/request.h"
#include "device.h"
#include "fotactl/output.h"
#include "play.h"
#include "sandbox.h"
#include "steps.h"

namespace {

constexpr int EXIT_USAGE = 2;
constexpr int EXIT_NOT_STARTED = 127;

struct exec_options {
    std::string keys_folder;
    sandbox_options folders;
    bool no_daemon = false;
    std::vector<std::string> command;
};

void enter(const std::string& program_folder, const std::string& keys_folder, sandbox_options folders) {
    const std::string daemon_folder = std::filesystem::path(daemon_program(program_folder)).parent_path();
    std::string programs = program_folder + ":" + daemon_folder + ":";
    const char* const path = std::getenv("PATH");
    setenv("PATH", programs.append(path != nullptr ? path : "/usr/bin:/bin").c_str(), 1);
    for (const std::string& folder : {program_folder, daemon_folder}) folders.keep.push_back(folder);
    if (!keys_folder.empty()) folders.keep.push_back(keys_folder);
    sandbox_enter(folders);
}

// Waits for the command, and for whatever else ends meanwhile: all orphans of the sandbox are this process's.
int wait_for_command(pid_t command, pid_t& daemon) {
    for (;;) {
        int status = 0;
        const pid_t ended = waitpid(-1, &status, 0);
        if (ended == command) return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
        if (ended == daemon) daemon = -1;
    }
}

pid_t start_command(const std::vector<std::string>& command) {
    std::vector<char*> arguments;
    arguments.reserve(command.size() + 1);
    for (const std::string& argument : command) arguments.push_back(const_cast<char*>(argument.c_str()));
    arguments.push_back(nullptr);
    pid_t started = -1;
    const int error = posix_spawnp(&started, arguments[0], nullptr, nullptr, arguments.data(), environ);
    if (error != 0) throw std::runtime_error("cannot start " + command[0] + ": " + std::strerror(error));
    return started;
}

int run_exec(const exec_options& options, const std::string& program_folder) {
    enter(program_folder, options.keys_folder, options.folders);
    device_seed(options.keys_folder);
    pid_t daemon = -1;
    if (!options.no_daemon) {
        daemon = daemon_launch(daemon_program(program_folder));
        if (daemon < 0 || !daemon_wait_ready(daemon)) {
            for (const std::string& line : last_lines(DEVICE_DEBUG_LOG))
                std::printf("    %s\n", line.c_str());
            throw std::runtime_error("fotad does not start");
        }
    }
    const int status = wait_for_command(start_command(options.command), daemon);
    if (daemon > 0 && daemon_end(daemon, SIGTERM) != 0) {
        std::fprintf(stderr, "fotasim: fotad did not end well\n");
    }
    return status;
}

int run_play(play_options& options, const std::string& package, const std::string& program_folder) {
    // The package may lie anywhere, also where the sandbox covers it.
    options.package_fd = open(package.c_str(), O_RDONLY | O_CLOEXEC);
    if (options.package_fd < 0) {
        std::fprintf(stderr, "fotasim: cannot read %s: %s\n", escaped(package).c_str(), std::strerror(errno));
        return EXIT_USAGE;
    }
    options.program_folder = program_folder;
    enter(program_folder, options.keys_folder, {});
    return play(options);
}

std::string installer_problem(const std::string& text) {
    int32_t code = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, code);
    if (text == "success" || (error == std::errc() && rest == end)) return "";
    return escaped(text) + " is neither 'success' nor a number of 32 bits";
}

CLI::App* add_play(CLI::App& app, play_options& options, std::string& package) {
    CLI::App* const command = app.add_subcommand("play", "Plays one update");
    command->add_option("--path", options.path, "How the update comes to the device: see below")
        ->default_val(play_paths().front())
        ->check(CLI::IsMember(play_paths()));
    command->add_option("--package", package, "Update package, or bundle, as fotapkg makes it")
        ->required()
        ->check(CLI::ExistingFile);
    command->add_option("--keys", options.keys_folder, "Folder of keys that the package was made with")
        ->required()
        ->check(CLI::ExistingDirectory);
    command->add_option("--agent", options.agent, "Who drives the update");
    command->add_option("--wait", options.wait_secs, "Time from the start request to the installation")
        ->check(CLI::Range(0, 3600))
        ->type_name("SECONDS");
    const std::map<std::string, uint32_t> preferences = {
        {"online", FOTA_BOOT_ONLINE}, {"shutdown", FOTA_BOOT_SHUTDOWN}, {"lpm", FOTA_BOOT_LPM}};
    command->add_option("--boot", options.boot_preference, "How to come back after the installation")
        ->transform(CLI::CheckedTransformer(preferences));
    CLI::Option* const installer = command->add_option_function<std::string>(
        "--installer",
        [&options](const std::string& text) {
            if (text != "success") options.installer_code = std::stol(text);
        },
        "How the installer ends: 'success', or its failure code");
    installer->check(CLI::Validator(installer_problem, ""))->type_name("success|CODE");
    command->add_option("--installer-reason", options.reason, "Text that goes with the failure code")
        ->needs(installer);
    CLI::Option* const revert = command->add_option(
        "--revert", options.revert_code, "The boot fail-safe rejects the new firmware, with this code");
    revert->excludes(installer)->type_name("CODE");
    command->add_option("--revert-reason", options.reason, "Text that goes with the code")->needs(revert);
    command->add_option("--expect-status", options.expected_status,
                        "Status that has to be recorded; any other is unexpected");
    command->add_option("--show", options.shown_files, "Print this file of the device at the end")
        ->allow_extra_args(false);
    command->footer(
        play_paths_text() +
        "Exit codes: 0 updated, 10 installer failed, 11 reverted, 12 package refused, 13 ended by a "
        "factory reset,\n"
        "each recorded as such; 1 anything unexpected, 2 wrong usage, 3 no sandbox on this machine.");
    command->callback([command, &options] {
        for (const std::string& name : play_unused_options(options.path)) {
            if (command->count(name) == 0) continue;
            throw CLI::ValidationError(name, "has no meaning with --path " + options.path);
        }
    });
    return command;
}

CLI::App* add_exec(CLI::App& app, exec_options& options) {
    CLI::App* const command = app.add_subcommand(
        "exec", "Runs a command beside a running daemon, with the build's programs in PATH");
    // One folder an option: what follows the last one is the command.
    const auto add_folder = [command](const char* name, auto& value, const char* help) {
        command->add_option(name, value, help)->check(CLI::ExistingDirectory)->allow_extra_args(false);
    };
    add_folder("--keys", options.keys_folder, "Folder of keys to install on the device");
    add_folder("--keep", options.folders.keep, "Folder to keep in sight, read-only; may be given again");
    add_folder("--rw", options.folders.keep_writable, "Folder that may be written to; may be given again");
    command->add_flag("--no-daemon", options.no_daemon, "Do not start the daemon");
    command->add_option("command", options.command, "After --: the command and its arguments")
        ->required()
        ->type_name("");
    command->footer(
        "Exit code: the command's; 2 wrong usage, 3 no sandbox on this machine, 127 not started.");
    return command;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("Runs the update daemon on a simulated hotspot that cannot touch this machine.", "fotasim");
    app.footer("'fotasim COMMAND --help' shows the options and exit codes of a command.");
    app.set_version_flag("--version", FOTA_VERSION);
    app.require_subcommand(1);
    play_options play_options;
    exec_options exec_options;
    std::string package;
    const CLI::App* const play_command = add_play(app, play_options, package);
    add_exec(app, exec_options);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : EXIT_USAGE;
    }

    try {
        const std::string program_folder = sandbox_program_folder();
        return play_command->parsed() ? run_play(play_options, package, program_folder)
                                      : run_exec(exec_options, program_folder);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "fotasim: %s\n", escaped(error.what()).c_str());
        return EXIT_NOT_STARTED;
    }
}
