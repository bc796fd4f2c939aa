// Follows files by their paths as they come, change and go. Their folders need not be there, and may go and
// come back.
#pragma once

#include <cstddef>
#include <functional>
#include <span>
#include <string>

struct watched_file {
    const char* path;
    bool is_flag;  // only its presence counts
};

enum class file_change {
    BEFORE,  // it was there when the watch began
    THERE,   // it has come, or has been written or replaced
    GONE
};

struct file_watch {
    std::span<const watched_file> files;
    std::function<bool(size_t file, file_change change)> on_change;  // false: ends the watch
    std::function<bool()> on_start;  // all that was there has been told; false: ends the watch
    std::function<void(const std::string&)> on_trouble;  // one sentence; the watch goes on
};

// Calls back until `stop_fd` is readable. Sleeps while nothing happens. Changes come in the order in which
// they were made, as far as the system tells them; when it does not, the state of all files is compared.
// Returns 0, or errno when files cannot be watched at all.
[[nodiscard]] int follow_files(const file_watch& watch, int stop_fd);
