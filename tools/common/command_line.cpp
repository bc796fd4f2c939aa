#include "tools/common/command_line.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>
#include <openssl/crypto.h>

#include <algorithm>
#include <sstream>

#include "tools/common/nearest_word.h"
#include "tools/common/output.h"

namespace {

constexpr size_t COLUMNS = 80;
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

// Lines that are too long go on below their own text, which in a list stands behind a name and some blanks.
std::string folded_lines(const std::string& text) {
    std::string out;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        size_t indent = std::min(line.find_first_not_of(' '), line.size());
        const size_t gap = line.find("  ", indent);
        if (gap != std::string::npos) indent = std::min(line.find_first_not_of(' ', gap), line.size());
        if (line.size() > COLUMNS)
            line = line.substr(0, indent) + folded(line.substr(indent), COLUMNS - indent, indent);
        out += (out.empty() ? "" : "\n") + line;
    }
    return out;
}

// "fotactl history show".
std::string name_of_given(const CLI::App& app) {
    std::string name = app.get_name();
    for (const CLI::App* command = &app; !command->get_subcommands().empty();) {
        command = command->get_subcommands().back();
        name += " " + command->get_name();
    }
    return name;
}

}  // namespace

void fit_help(CLI::App& app) {
    for (CLI::Option* option : app.get_options()) {
        option->description(folded(option->get_description(), TEXT_COLUMNS));
    }
    for (CLI::App* command : commands_of(app)) {
        command->description(folded(command->get_description(), TEXT_COLUMNS));
        fit_help(*command);
    }
    app.footer(folded_lines(app.get_footer()));
}

std::vector<std::string> command_words(int argc, char** argv) {
    std::vector<std::string> words(argv + std::min(argc, 1), argv + argc);
    if (!words.empty() && words[0] == "help") {
        words.erase(words.begin());
        words.emplace_back("--help");
    }
    std::reverse(words.begin(), words.end());
    return words;
}

void add_help_command(CLI::App& app) {
    app.add_subcommand("help", "Print the arguments of a command, as its --help does");
}

std::string built_with() {
    return std::string("built with g++ ") + __VERSION__ + ", CLI11 " + CLI11_VERSION + ", nlohmann-json " +
           std::to_string(NLOHMANN_JSON_VERSION_MAJOR) + "." + std::to_string(NLOHMANN_JSON_VERSION_MINOR) +
           "." + std::to_string(NLOHMANN_JSON_VERSION_PATCH) + "; runs with " +
           OpenSSL_version(OPENSSL_VERSION);
}

std::string misuse_text(const CLI::App& app, const CLI::Error& error, int argc, char** argv) {
    const CLI::App& command = given_command(app);
    const std::string& program = app.get_name();
    const std::string help = "\nRun '" + name_of_given(app) + " --help'.\n";
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
