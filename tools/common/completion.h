// What could come next on a command line, for the completion of a shell: see tools/completion.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace CLI {
class App;
}  // namespace CLI

struct suggestion {
    std::string word;
    std::string help;  // may be empty
};

// The values of an argument whose own checks do not list them. `name` is the argument's in small letters,
// without dashes; `begun` is the value as far as it is written.
using value_suggestions =
    std::function<std::vector<suggestion>(const std::string& name, const std::string& begun)>;

// Answers "PROGRAM __complete WORD...", where the last word is the one to complete, it may be empty, and the
// others stand before it. A line each: the word, a tab, its help; ":files" asks for names of files. False
// when the command line is another. When all options and commands are added.
[[nodiscard]] bool complete(CLI::App& app, int argc, char** argv, const value_suggestions& values);
