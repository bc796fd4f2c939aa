// Command lines, as the tools read them with CLI11.
#pragma once

#include <string>

namespace CLI {
class App;
class Error;
}  // namespace CLI

// Breaks the texts of all options and commands so that the help fits into 80 columns. When all are added.
void fit_help(CLI::App& app);

// What is wrong with the command line, and how to get help: a word that is not known comes first, since much
// follows from it, with the one that it was meant to be. The program is named `app`'s name.
[[nodiscard]] std::string misuse_text(const CLI::App& app, const CLI::Error& error, int argc, char** argv);
