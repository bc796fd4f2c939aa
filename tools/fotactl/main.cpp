// Command-line client of the update daemon.
#include <CLI/CLI.hpp>

#include <algorithm>
#include <cerrno>
#include <csignal>

#include "codes.h"
#include "commands.h"
#include "report.h"
#include "suggestions.h"
#include "tools/common/completion.h"

namespace {

constexpr int MAX_TIMEOUT_SECS = 86400;

void on_end_signal(int signal_number) {
    fota_client_remove_reply_queues();
    raise(signal_number);  // the default action, as soon as this returns
}

void clean_up_on_end_signals() {
    struct sigaction action {};
    action.sa_handler = on_end_signal;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    for (const int signal_number : {SIGHUP, SIGINT, SIGQUIT, SIGTERM}) {
        sigaction(signal_number, &action, nullptr);
    }
}

void add_command(CLI::App& app, const command_section& section, const command& command, options& options,
                 const struct command** chosen) {
    CLI::App& parent = command.group == nullptr ? app : *app.get_subcommand(command.group);
    CLI::App& added = *parent.add_subcommand(command.name, command.help);
    added.group(command.group == nullptr ? section.heading : "Commands");
    parent.require_subcommand(0, 1);
    command.add_arguments(added, options);
    if (command.run == nullptr) return;
    // A sub-command's callback runs before its parent's, which may be a command as well.
    added.callback([chosen, &command] {
        if (*chosen == nullptr) *chosen = &command;
    });
}

// The first word that no command takes. CLI11 names all of them, the last one first.
std::string first_extra(const CLI::App& app, int argc, char** argv) {
    const std::vector<std::string> extras = app.remaining(true);
    for (int i = 1; i < argc; ++i) {
        if (std::find(extras.begin(), extras.end(), argv[i]) != extras.end()) return argv[i];
    }
    return "";
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("Sends requests to the firmware update daemon.", "fotactl");
    app.footer("Takes --timeout SECONDS and --json as well.");
    app.set_version_flag("--version", FOTA_VERSION);
    // None is found out below: when it insists on one, CLI11 does not name a mistyped one.
    app.require_subcommand(0, 1);
    app.fallthrough();
    app.failure_message([argc, argv](const CLI::App* failed, const CLI::Error& error) {
        const std::string extra = first_extra(*failed, argc, argv);
        const bool is_command = failed->get_subcommands().empty() && !extra.starts_with('-');
        const std::string problem = extra.empty() ? error.what()
                                    : is_command  ? "there is no command '" + extra + "'"
                                                  : "'" + extra + "' is not expected here";
        return "fotactl: " + escaped(problem) + "\nRun 'fotactl --help', or 'fotactl COMMAND --help'.\n";
    });

    int timeout_secs = 0;
    app.add_option("--timeout", timeout_secs,
                   "How long to wait for an answer; 30, and 600 where a package is checked, when not given")
        ->check(CLI::Range(1, MAX_TIMEOUT_SECS))
        ->type_name("SECONDS");

    describe_events(all_commands());
    options options;
    app.add_flag("--json", options.json, "Print JSON for scripts, an object a line");
    const command* chosen = nullptr;
    for (const command_section& section : all_commands()) {
        for (const command& command : section.commands) add_command(app, section, command, options, &chosen);
    }
    if (complete(app, argc, argv, suggest_values)) return EXIT_DONE;
    app.footer(
        "Exit codes: 0 done, 1 refused, 2 wrong usage, 3 daemon not reachable.\n"
        "'fotactl COMMAND --help' shows the arguments of a command.");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? EXIT_DONE : EXIT_USAGE;
    }
    if (chosen == nullptr) {
        fprintf(stderr, "fotactl: no command given\n%s", app.help().c_str());
        return EXIT_USAGE;
    }

    clean_up_on_end_signals();
    options.timeout_ms = 1000 * (timeout_secs != 0 ? timeout_secs : chosen->timeout_secs);
    errno = 0;
    const answer answer = chosen->run(options);
    return report(*chosen, options, answer, errno);
}
