// How far a command has come, for the one who waits for it. Text is escaped: file names and what is in a
// package may hold what a terminal acts on. On a terminal long lines are folded between words.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "tools/common/output.h"

// A line on standard output, shown at once; and a table among them.
void show_step(const std::string& step, const std::string& text);
void show_table(const output_table& table);

// From now on neither is shown, nor that the command goes on.
void hide_steps();

// One sentence on standard error, without its full stop, after the program's name: why the command ends, or
// what somebody should know though it goes on.
void complain(const std::string& text);

// What the command is at, from now on. `progress` says how far it is, is asked by another thread until the
// command is at something else, and may be empty, as what it says may be.
void set_doing(const std::string& doing, std::function<std::string()> progress = {});

// How far a file has come that is to have about `bytes`, for set_doing: empty while it is not there.
[[nodiscard]] std::function<std::string()> growth_of(std::filesystem::path file, uint64_t bytes);

// Replaces what set_doing was told of progress: so many bytes are done.
void set_done(uint64_t bytes, uint64_t of_bytes);

// While it lives, says on standard error what the command is at, how far it is, and for how many seconds it
// has run: each second in one line of a terminal, elsewhere a line each five. One at a time; before other
// threads are made.
class patience_line {
public:
    patience_line();
    ~patience_line();
    patience_line(const patience_line&) = delete;
    patience_line& operator=(const patience_line&) = delete;

private:
    void run();

    std::mutex mutex_;
    std::condition_variable ended_;
    bool is_ended_ = false;
    std::thread thread_;
};
