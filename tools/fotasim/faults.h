// The faults by name, as a user gives them: "installer=-2147483635:block 17,power-cut=validate".
#pragma once

#include <string>
#include <vector>

#include "player.h"

// Puts what a list of faults, separated by commas, asks for into `options`, whose path is set. Throws
// std::exception with one sentence when the list names something that does not exist, or not on that path.
void faults_apply(const std::string& list, play_options& options);

// Every fault on a line, and where each has its stages.
[[nodiscard]] std::string faults_text();

// What a list that begins so could go on with, whatever the path.
[[nodiscard]] std::vector<std::string> faults_after(const std::string& begun);

// A list, and how a play of it has to end.
struct fault_case {
    std::string list;
    play_outcome outcome;
    uint32_t status;
};

// Each fault once, as far as it has a meaning on that path.
[[nodiscard]] std::vector<fault_case> fault_cases(const std::string& path);
