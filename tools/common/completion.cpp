#include "tools/common/completion.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <set>
#include <sstream>

#include "tools/common/output.h"

namespace {

// How options that take a path call their value, and arguments that are one themselves.
constexpr const char* PATHS[] = {"bundle", "command", "dir", "file", "input", "key", "package", "path"};

struct place {
    CLI::App* command;
    const CLI::Option* open = nullptr;  // the option whose value comes next
    size_t arguments = 0;               // that are no options and no commands
    bool only_arguments = false;        // after --
};

std::string small(std::string text) {
    std::ranges::transform(text, text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

bool takes_value(const CLI::Option& option) {
    return option.get_items_expected_max() > 0;
}

std::vector<CLI::App*> commands_of(CLI::App& command) {
    return command.get_subcommands([](const CLI::App* known) { return !known->get_group().empty(); });
}

std::vector<CLI::Option*> options_of(CLI::App& command, bool arguments) {
    return command.get_options(
        [arguments](const CLI::Option* option) { return option->get_positional() == arguments; });
}

// A command and those above it whose options it takes, too.
std::vector<CLI::App*> taking_options(CLI::App* command) {
    std::vector<CLI::App*> found = {command};
    while (command->get_fallthrough() && command->get_parent() != nullptr) {
        command = command->get_parent();
        found.push_back(command);
    }
    return found;
}

const CLI::Option* find_option(CLI::App* command, const std::string& name) {
    for (CLI::App* app : taking_options(command)) {
        const CLI::Option* const option = app->get_option_no_throw(name);
        if (option != nullptr && !option->get_positional()) return option;
    }
    return nullptr;
}

void pass(place& at, const std::string& word) {
    if (at.open != nullptr) {
        const bool takes_more = at.open->get_items_expected_max() > 1 && at.open->get_allow_extra_args();
        if (!takes_more) at.open = nullptr;
        if (!takes_more || !word.starts_with('-')) return;
        at.open = nullptr;
    }
    if (!at.only_arguments && word == "--") {
        at.only_arguments = true;
    } else if (!at.only_arguments && word.starts_with('-') && word.size() > 1) {
        const CLI::Option* const option = find_option(at.command, word);
        if (option != nullptr && takes_value(*option)) at.open = option;
    } else {
        const std::vector<CLI::App*> commands = commands_of(*at.command);
        const auto found = std::ranges::find(commands, word, [](CLI::App* c) { return c->get_name(); });
        if (found == commands.end() || at.arguments > 0 || at.only_arguments)
            ++at.arguments;
        else
            at.command = *found;
    }
}

// Those that a check of CLI11 lists behind the type: "UINT:value in {online->0,lpm->2}".
std::vector<suggestion> listed_values(const std::string& type) {
    std::vector<suggestion> values;
    const size_t begin = type.find('{');
    if (begin == std::string::npos) return values;
    std::istringstream list(type.substr(begin + 1, type.find('}', begin) - begin - 1));
    for (std::string value; std::getline(list, value, ',');) {
        values.push_back({value.substr(0, value.find("->")), ""});
    }
    return values;
}

bool is_path(const std::string& name) {
    return std::ranges::find(PATHS, name) != std::end(PATHS);
}

void print(const std::vector<suggestion>& suggestions, const std::string& before, const std::string& begun) {
    std::set<std::string> printed;
    for (const auto& [word, help] : suggestions) {
        // A word with anything else in it would have to be quoted, in another way by each shell.
        const bool is_plain = std::ranges::all_of(word, [](unsigned char c) {
            return std::isalnum(c) != 0 || std::strchr("-_.,:=+@/", c) != nullptr;
        });
        if (word.empty() || !is_plain || !word.starts_with(begun) || !printed.insert(word).second) continue;
        std::string line = help.substr(0, help.find(". "));
        std::ranges::replace(line, '\n', ' ');
        std::printf("%s%s\t%s\n", before.c_str(), word.c_str(), escaped(line).c_str());
    }
}

void suggest_values(const CLI::Option& option, const std::string& before, const std::string& begun,
                    const value_suggestions& values) {
    const std::string name =
        small(option.get_positional() ? option.get_name(true) : option.get_single_name());
    const std::string type = option.get_type_name();
    std::vector<suggestion> found = listed_values(type);
    if (found.empty()) found = values(name, begun);
    print(found, before, begun);
    // What begins like a path may be one where an argument before it is left out.
    const bool is_begun = begun.starts_with('/') || begun.starts_with('.');
    if (is_begun && option.get_positional()) return (void)std::puts(":files");
    if (found.empty() && (is_path(name) || is_path(small(type.substr(0, type.find(':'))))))
        std::puts(":files");
}

void suggest_options(CLI::App* command, const std::string& begun) {
    std::vector<suggestion> found;
    for (CLI::App* app : taking_options(command)) {
        for (const CLI::Option* option : options_of(*app, false)) {
            if (option->get_group().empty()) continue;
            for (const std::string& name : option->get_lnames())
                found.push_back({"--" + name, option->get_description()});
        }
    }
    print(found, "", begun);
}

void suggest_next(const place& at, const std::string& word, const value_suggestions& values) {
    if (at.open != nullptr) return suggest_values(*at.open, "", word, values);
    if (!at.only_arguments && word.starts_with('-')) {
        const size_t equals = word.find('=');
        if (equals == std::string::npos) return suggest_options(at.command, word);
        const CLI::Option* const option = find_option(at.command, word.substr(0, equals));
        if (option == nullptr || !takes_value(*option)) return;
        return suggest_values(*option, word.substr(0, equals + 1), word.substr(equals + 1), values);
    }
    if (at.arguments == 0 && !at.only_arguments) {
        std::vector<suggestion> commands;
        for (const CLI::App* command : commands_of(*at.command)) {
            commands.push_back({command->get_name(), command->get_description()});
        }
        print(commands, "", word);
    }
    const std::vector<CLI::Option*> arguments = options_of(*at.command, true);
    if (arguments.empty()) return;
    const CLI::Option& last = *arguments.back();
    if (at.arguments < arguments.size()) return suggest_values(*arguments[at.arguments], "", word, values);
    if (last.get_items_expected_max() > 1) suggest_values(last, "", word, values);
}

}  // namespace

bool complete(CLI::App& app, int argc, char** argv, const value_suggestions& values) {
    if (argc < 2 || std::strcmp(argv[1], "__complete") != 0) return false;
    place at = {&app};
    for (int i = 2; i + 1 < argc; ++i) pass(at, argv[i]);
    suggest_next(at, argc > 2 ? argv[argc - 1] : "", values);
    return true;
}
