#include "tools/common/command_line.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <vector>

#include "tools/common/nearest_word.h"
#include "tools/common/output.h"

namespace {

constexpr size_t TEXT_COLUMNS = 50;  // CLI11 leaves the first 30 to the names

std::vector<CLI::App*> commands_of(const CLI::App& app) {
    // Those that are known, not only those that were given; CLI11 has this for changing alone.
    return const_cast<CLI::App&>(app).get_subcommands([](const CLI::App*) { return true; });
}

// The innermost command that was given.
const CLI::App& given_command(const CLI::App& app) {
    const std::vector<CLI::App*> given = app.get_subcommands();
    return given.empty() ? app : given_command(*given.back());
}

}  // namespace

void fit_help(CLI::App& app) {
    for (CLI::Option* option : app.get_options()) {
        option->description(folded(option->get_description(), TEXT_COLUMNS));
    }
    for (CLI::App* command : commands_of(app)) {
        if (commands_of(*command).empty())
            command->description(folded(command->get_description(), TEXT_COLUMNS));
        fit_help(*command);
    }
}

std::string misuse_text(const CLI::App& app, const CLI::Error& error, int argc, char** argv) {
    const CLI::App& command = given_command(app);
    const std::string program = app.get_name();
    const std::string help =
        "\nRun '" + program + (&command == &app ? "" : " " + command.get_name()) + " --help'.\n";
    const std::vector<std::string> unknown = app.remaining(true);
    const auto first = std::find_first_of(argv + 1, argv + argc, unknown.begin(), unknown.end(),
                                          [](const char* a, const std::string& b) { return a == b; });
    if (first == argv + argc) return program + ": " + escaped(error.what()) + help;

    const std::string word = *first;
    const bool is_option = word.starts_with('-');
    std::vector<std::string> names;
    if (is_option) {
        for (const CLI::Option* option : command.get_options())
            for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
    } else {
        for (const CLI::App* known : commands_of(command)) names.push_back(known->get_name());
    }
    std::string problem = "'" + word + "' is one word too many";
    if (is_option) problem = "there is no option '" + word + "'";
    if (!is_option && !names.empty()) problem = "there is no command '" + word + "'";
    const std::string nearest = nearest_word(word.substr(0, word.find('=')), names);
    if (!nearest.empty()) problem += "; did you mean '" + nearest + "'?";
    return program + ": " + escaped(problem) + help;
}
