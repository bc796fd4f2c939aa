// Command lines, as the tools read them with CLI11.
#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
class Error;
}  // namespace CLI

// Breaks the texts of all options and commands so that the help fits into 80 columns. When all are added.
void fit_help(CLI::App& app);

// The words after the program's name, the last one first, as CLI11 wants them; "help COMMAND" has become
// "COMMAND --help".
[[nodiscard]] std::vector<std::string> command_words(int argc, char** argv);

// Lists "help" among the commands.
void add_help_command(CLI::App& app);

// What the tools are built with, on one line.
[[nodiscard]] std::string built_with();

// What is wrong with the command line, and how to get help: a word that is not known comes first, since much
// follows from it, with the one that it was meant to be. The program is named `app`'s name.
[[nodiscard]] std::string misuse_text(const CLI::App& app, const CLI::Error& error, int argc, char** argv);
