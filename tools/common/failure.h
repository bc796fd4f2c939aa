// How a command of a tool ends that cannot go on.
#pragma once

#include <stdexcept>
#include <string>

// Ends a command: one sentence that says what is wrong and what to do about it.
struct failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// What is wrong with a package or a bundle that is read, as against trouble on this machine.
struct bad_input : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// A failure with the reason that errno gives after `what`.
[[nodiscard]] failure system_failure(const std::string& what);
