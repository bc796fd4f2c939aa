// A simulated hotspot around a real daemon.
#include <CLI/CLI.hpp>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <map>
#include <string>

#include "commands.h"
#include "faults.h"
#include "fota/request.h"
#include "shell.h"
#include "tools/common/command_line.h"
#include "tools/common/completion.h"
#include "tools/common/output.h"
#include "tools/play/sandbox.h"

namespace {

constexpr int EXIT_USAGE = 2;
constexpr int EXIT_NOT_STARTED = 127;
constexpr char FAULT_COMMAND[] = "fault";

std::string installer_problem(const std::string& text) {
    int32_t code = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, code);
    if (text == "success" || (error == std::errc() && rest == end)) return "";
    return escaped(text) + " is neither 'success' nor a number of 32 bits";
}

std::string keys_problem(const std::string& folder) {
    for (const char* key : {"device.pem", "build_cert.pem", "build_pubkey.pem"}) {
        if (access((folder + "/" + key).c_str(), R_OK) == 0) continue;
        return "no " + std::string(key) + " can be read in " + escaped(folder) +
               "; 'fotapkg keys DIR' makes keys";
    }
    return "";
}

CLI::Option* add_keys(CLI::App* command, std::string& folder, const char* help) {
    return command->add_option("--keys", folder, help)
        ->check(CLI::Validator(keys_problem, ""))
        ->type_name("DIR");
}

CLI::Option* add_device(CLI::App* command, surroundings& outside) {
    return command
        ->add_option("--device", outside.device_folder,
                     "Folder that keeps the device from run to run; made when missing")
        ->type_name("DIR");
}

// The options of a command that somebody works in.
CLI::Option* add_surroundings(CLI::App* command, surroundings& outside) {
    // One folder an option: what follows the last one may be a command.
    const auto add_folders = [command](const char* name, std::vector<std::string>& folders,
                                       const char* help) {
        command->add_option(name, folders, help)->check(CLI::ExistingDirectory)->allow_extra_args(false);
    };
    add_keys(command, outside.keys_folder, "Folder of keys to install on the device");
    CLI::Option* const device = add_device(command, outside);
    add_folders("--keep", outside.folders.keep, "Folder to keep in sight, read-only; may be given again");
    add_folders("--rw", outside.folders.keep_writable, "Folder that may be written to; may be given again");
    return device;
}

// How the installation ends.
void add_installer(CLI::App* command, installer_outcome& outcome) {
    CLI::Option* const installer = command->add_option_function<std::string>(
        "--installer",
        [&outcome](const std::string& text) {
            if (text != "success") outcome.code = std::stol(text);
        },
        "How the installer ends: 'success', or its failure code");
    installer->check(CLI::Validator(installer_problem, ""))->type_name("success|CODE");
    command->add_option("--installer-reason", outcome.reason, "Text that goes with the failure code")
        ->needs(installer);
    CLI::Option* const revert = command->add_option(
        "--revert", outcome.revert_code, "The boot fail-safe rejects the new firmware, with this code");
    revert->excludes(installer)->type_name("CODE");
    command->add_option("--revert-reason", outcome.reason, "Text that goes with the code")->needs(revert);
}

// The options of an update, for `play` and for `fault`.
CLI::App* add_update(CLI::App& app, const char* name, const char* help, played_update& played) {
    CLI::App* const command = app.add_subcommand(name, help);
    play_options& options = played.options;
    update_session& session = options.session;
    installer_outcome& outcome = options.installer;
    command->add_option("--path", options.path, "How the update comes to the device: see below")
        ->default_val(play_paths().front())
        ->check(CLI::IsMember(play_paths()));
    command->add_option("--package", played.package, "Update package, or bundle, as fotapkg makes it")
        ->required()
        ->check(CLI::ExistingFile);
    add_keys(command, played.outside.keys_folder, "Folder of keys that the package was made with")
        ->required();
    add_device(command, played.outside);
    command->add_option("--agent", session.agent, "Who drives the update");
    command->add_option("--wait", session.wait_secs, "Time from the start request to the installation")
        ->check(CLI::Range(0, 3600))
        ->type_name("SECONDS");
    const std::map<std::string, uint32_t> preferences = {
        {"online", FOTA_BOOT_ONLINE}, {"shutdown", FOTA_BOOT_SHUTDOWN}, {"lpm", FOTA_BOOT_LPM}};
    command->add_option("--boot", session.boot_preference, "How to come back after the installation")
        ->transform(CLI::CheckedTransformer(preferences));
    add_installer(command, outcome);
    command->add_option("--expect-status", options.expected_status,
                        "Status that has to be recorded; any other is unexpected");
    command->add_option("--show", options.shown_files, "Print this file of the device at the end")
        ->allow_extra_args(false);
    command->footer(
        play_paths_text() + faults_text() +
        "Exit codes: 0 updated, 10 installer failed, 11 reverted, 12 package refused, 13 ended by a "
        "factory reset, each recorded as such; 14 nothing of the update left but a pending record, for want "
        "of room; 1 anything unexpected, 2 wrong usage, 3 no sandbox on this machine.");
    command->callback([command, &played] {
        if (command->get_name() == FAULT_COMMAND && !played.all_faults && played.faults.empty()) {
            throw CLI::ValidationError("fault", "name faults, such as power-cut=validate, or give --all");
        }
        for (const std::string& unused : play_unused_options(played.options.path)) {
            if (command->count(unused) == 0) continue;
            throw CLI::ValidationError(unused, "has no meaning with --path " + played.options.path);
        }
    });
    return command;
}

CLI::App* add_play(CLI::App& app, played_update& played) {
    CLI::App* const command = add_update(app, "play", "Plays one update", played);
    command->add_option("--fault", played.faults, "What goes wrong: faults, separated by commas; see below")
        ->type_name("LIST");
    return command;
}

CLI::App* add_fault(CLI::App& app, played_update& played) {
    CLI::App* const command = add_update(
        app, "fault", "Plays one update in which something goes wrong, or --all of what can", played);
    CLI::Option* const list =
        command->add_option("faults", played.faults, "Faults, separated by commas: see below")
            ->type_name("LIST");
    CLI::Option* const all = command->add_flag("--all", played.all_faults,
                                               "Play each by itself, and print a table of how they ended");
    all->excludes(list);
    for (const char* name : {"--device", "--installer", "--revert", "--expect-status", "--show"}) {
        all->excludes(command->get_option(name));
    }
    return command;
}

CLI::App* add_exec(CLI::App& app, exec_options& options) {
    CLI::App* const command = app.add_subcommand(
        "exec", "Runs a command beside a running daemon, with the build's programs in PATH");
    add_surroundings(command, options.outside);
    command->add_flag("--no-daemon", options.no_daemon, "Do not start the daemon");
    command->add_option("command", options.command, "After --: the command and its arguments")
        ->required()
        ->type_name("");
    command->footer(
        "Exit code: the command's; 2 wrong usage, 3 no sandbox on this machine, 127 not started.");
    return command;
}

CLI::App* add_shell(CLI::App& app, shell_options& options) {
    CLI::App* const command = app.add_subcommand("shell", "Opens a shell on the running device");
    CLI::Option* const device = add_surroundings(command, options.outside);
    command->add_flag("--logs", options.logs, "Follow the debug log in another pane of tmux, or say how")
        ->needs(device);
    command->footer(
        "The shell is $SHELL when that is bash, dash, ksh or sh, otherwise bash or sh. It has also\n" +
        shell_commands_text() +
        "Exit code: the shell's; 2 wrong usage, 3 no sandbox on this machine, 127 not started.");
    return command;
}

CLI::App* add_web(CLI::App& app, web_options& options) {
    CLI::App* const command =
        app.add_subcommand("web", "Serves the page for bringing an update with a browser on the device");
    add_keys(command, options.outside.keys_folder, "Folder of keys to install on the device");
    add_device(command, options.outside);
    command->add_option("--listen", options.play.listen, "Where the page listens, in numbers")
        ->type_name("ADDRESS:PORT")
        ->capture_default_str();
    add_installer(command, options.play.installer);
    command->add_option("--downtime", options.play.downtime_secs, "How long a restart takes")
        ->check(CLI::Range(0, 3600))
        ->type_name("SECONDS")
        ->capture_default_str();
    command->footer(
        "It prints the address and the password, and goes on until Ctrl-C. Exit code: 2 wrong usage, 3 no "
        "sandbox on this machine, 127 not started.");
    return command;
}

CLI::App* add_join(CLI::App& app, pid_t& process) {
    CLI::App* const command =
        app.add_subcommand("join", "Opens one more shell on the device of a 'fotasim shell' that runs");
    command->add_option("PROCESS", process, "Which, where several run; without it, 'fotasim join' lists them")
        ->type_name("");
    command->footer(
        "It ends with the other shell. Exit code: the shell's; 2 wrong usage, or none runs, 3 cannot enter.");
    return command;
}

std::vector<suggestion> suggest_values(const std::string& name, const std::string& begun) {
    std::vector<suggestion> found;
    if (name == "fault" || name == "faults") {
        for (const std::string& list : faults_after(begun)) found.push_back({list, ""});
    }
    if (name == "process") {
        for (const pid_t process : shells_running()) found.push_back({std::to_string(process), ""});
    }
    return found;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("Runs the update daemon on a simulated hotspot that cannot touch this machine.", "fotasim");
    app.footer("'fotasim COMMAND --help' shows the options and exit codes of a command.");
    app.set_version_flag("--version", std::string(FOTA_VERSION) + "\n" + built_with(),
                         "Print the version, and what it is built with");
    // None is found out below: when it insists on one, CLI11 does not name a mistyped one.
    app.require_subcommand(0, 1);
    played_update played;
    played_update faulty;
    shell_options shell;
    exec_options exec;
    const CLI::App* const play_command = add_play(app, played);
    const CLI::App* const fault_command = add_fault(app, faulty);
    const CLI::App* const shell_command = add_shell(app, shell);
    web_options web;
    const CLI::App* const web_command = add_web(app, web);
    pid_t process = 0;
    const CLI::App* const join_command = add_join(app, process);
    add_exec(app, exec);
    add_help_command(app);
    if (complete(app, argc, argv, suggest_values)) return 0;
    fit_help(app);
    app.failure_message([argc, argv](const CLI::App* failed, const CLI::Error& error) {
        return misuse_text(*failed, error, argc, argv);
    });
    try {
        app.parse(command_words(argc, argv));
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : EXIT_USAGE;
    }
    if (app.get_subcommands().empty()) {
        std::fprintf(stderr, "fotasim: no command given\n%s", app.help().c_str());
        return EXIT_USAGE;
    }

    try {
        const std::string program_folder = sandbox_program_folder();
        if (play_command->parsed()) return run_update(played, program_folder);
        if (fault_command->parsed()) return run_update(faulty, program_folder);
        if (shell_command->parsed()) return run_shell(shell, program_folder);
        if (web_command->parsed()) return run_web(web, program_folder);
        if (join_command->parsed()) return run_join(process);
        return run_exec(exec, program_folder);
    } catch (const wrong_usage& error) {
        std::fprintf(stderr, "fotasim: %s\n", escaped(error.what()).c_str());
        return EXIT_USAGE;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "fotasim: %s\n", escaped(error.what()).c_str());
        return EXIT_NOT_STARTED;
    }
}
