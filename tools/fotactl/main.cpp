// Command-line client of the update daemon.
#include <CLI/CLI.hpp>

#include <cerrno>
#include <csignal>
#include <sstream>

#include "codes.h"
#include "commands.h"
#include "losses.h"
#include "report.h"
#include "suggestions.h"
#include "tools/common/command_line.h"
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

// Its examples, and what every command takes.
std::string footer_of(const command& command) {
    std::string examples;
    std::istringstream lines(command.example);
    for (std::string line; std::getline(lines, line);)
        examples += "  fotactl " + full_name(command) + (line.empty() ? "" : " ") + line + "\n";
    if (command.run != nullptr && examples.empty()) examples = "  fotactl " + full_name(command) + "\n";
    return (examples.empty() ? "" : "Example:\n" + examples) + "Takes --timeout SECONDS and --json as well.";
}

void add_command(CLI::App& app, const command_section& section, const command& command, options& options,
                 const struct command** chosen) {
    CLI::App& parent = command.group == nullptr ? app : *app.get_subcommand(command.group);
    CLI::App& added = *parent.add_subcommand(command.name, command.help);
    added.group(command.group == nullptr ? section.heading : "Commands");
    added.footer(footer_of(command));
    parent.require_subcommand(0, 1);
    command.add_arguments(added, options);
    if (command.run == nullptr) return;
    // A sub-command's callback runs before its parent's, which may be a command as well.
    added.callback([chosen, &command] {
        if (*chosen == nullptr) *chosen = &command;
    });
}

// What the command would throw away, told to the user; false when it is not to be.
bool is_granted(const command& command, const options& options, answer* refusal) {
    if (command.loses == nullptr || options.force) return true;
    const std::string loss = command.loses(options);
    if (loss.empty() || (!options.json && is_confirmed(loss))) return true;
    *refusal = {.problem = loss, .advice = "Nothing has been done; --force does it all the same."};
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("Sends requests to the firmware update daemon.", "fotactl");
    app.set_version_flag("--version", std::string(FOTA_VERSION) + "\n" + built_with(),
                         "Print the version, and what it is built with");
    // None is found out below: when it insists on one, CLI11 does not name a mistyped one.
    app.require_subcommand(0, 1);
    app.fallthrough();
    app.failure_message([argc, argv](const CLI::App* failed, const CLI::Error& error) {
        return misuse_text(*failed, error, argc, argv);
    });

    int timeout_secs = 0;
    app.add_option("--timeout", timeout_secs,
                   "How long to wait for an answer; 30, and 600 where a package is checked, when not given")
        ->check(CLI::Range(1, MAX_TIMEOUT_SECS))
        ->type_name("SECONDS");

    describe_events(all_commands());
    options options;
    options.agent = default_agent();
    if (options.agent.empty()) {
        fprintf(stderr, "fotactl: FOTA_AGENT must be the name of an agent, of 1 to %zu bytes.\n", MAX_TEXT);
        return EXIT_USAGE;
    }
    app.add_flag("--json", options.json, "Print JSON for scripts, an object a line");
    const command* chosen = nullptr;
    for (const command_section& section : all_commands()) {
        for (const command& command : section.commands) add_command(app, section, command, options, &chosen);
    }
    app.footer(
        "Example:\n  fotactl status\n  fotactl check upgrade.zip\n  fotactl update upgrade.zip\n"
        "Exit codes: 0 done, 1 refused, 2 wrong usage, 3 daemon not reachable.\n"
        "$FOTA_AGENT is the agent where none is given.\n"
        "'fotactl COMMAND --help' shows the arguments of a command.");
    add_help_command(app);
    if (complete(app, argc, argv, suggest_values)) return EXIT_DONE;
    fit_help(app);
    try {
        app.parse(command_words(argc, argv));
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
    answer answer;
    if (is_granted(*chosen, options, &answer)) answer = chosen->run(options);
    return report(*chosen, options, answer, errno);
}
