// Command-line client of the update daemon.
#include <cerrno>
#include <csignal>

#include "commands.h"
#include "report.h"

namespace {

constexpr int MAX_TIMEOUT_SECS = 86400;

void on_end_signal(int signal_number) {
    fota_client_remove_reply_queues();
    raise(signal_number);  // the default action, as soon as this returns
}

void clean_up_on_end_signals() {
    struct sigaction action {};
    action.sa_handler = on_end_signal;
    action.sa_flags = SA_RESETHAND;
    for (const int signal_number : {SIGHUP, SIGINT, SIGQUIT, SIGTERM}) {
        sigaction(signal_number, &action, nullptr);
    }
}

CLI::App* find_parent(CLI::App& app, const char* group) {
    if (group == nullptr) return &app;
    for (CLI::App* const subcommand : app.get_subcommands([](CLI::App*) { return true; })) {
        if (subcommand->get_name() == group) return subcommand;
    }
    return app.add_subcommand(group, "Small files, through the daemon")->require_subcommand(0, 1);
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("Sends requests to the firmware update daemon.", "fotactl");
    app.footer("Takes --timeout SECONDS as well.");
    app.set_version_flag("--version", FOTA_VERSION);
    // None is found out below: when it insists on one, CLI11 does not name a mistyped one.
    app.require_subcommand(0, 1);
    app.fallthrough();
    app.failure_message([](const CLI::App*, const CLI::Error& error) {
        return "fotactl: " + escaped(error.what()) + "\nRun 'fotactl --help', or 'fotactl COMMAND --help'.\n";
    });

    int timeout_secs = 0;
    app.add_option("--timeout", timeout_secs,
                   "How long to wait for the answer; 30, and 600 for validate, when not given")
        ->check(CLI::Range(1, MAX_TIMEOUT_SECS))
        ->type_name("SECONDS");

    options options;
    const command* chosen = nullptr;
    for (const command& command : all_commands()) {
        CLI::App* const subcommand =
            find_parent(app, command.group)->add_subcommand(command.name, command.help);
        subcommand->callback([&chosen, &command] { chosen = &command; });
        command.add_arguments(*subcommand, options);
    }
    app.footer(
        "Exit codes: 0 done, 1 refused by the daemon, 2 wrong usage, 3 daemon not reachable.\n"
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
