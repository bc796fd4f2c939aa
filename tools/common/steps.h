// How far a command has come, for the one who waits for it. Text is escaped: file names and what is in a
// package may hold what a terminal acts on. On a terminal long lines are folded between words.
#pragma once

#include <condition_variable>
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

// What the command is at, from now on.
void set_doing(const std::string& doing);

// While it lives, says on standard error what the command is at, and for how many seconds it has run: each
// second in one line of a terminal, elsewhere a line each five. One at a time; before other threads are made.
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
