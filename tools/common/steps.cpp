#include "tools/common/steps.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <utility>

namespace {

constexpr char WIPE_LINE[] = "\r\033[K";

std::mutex screen;  // and what follows
bool are_hidden = false;
bool line_is_open = false;  // of the terminal, by what the command is at
std::string doing;
std::function<std::string()> progress;

void wipe_line() {
    if (line_is_open) fputs(WIPE_LINE, stderr);
    line_is_open = false;
}

// For the columns after `indent` of the terminal, if `stream` is one.
std::string fitting(FILE* stream, const std::string& text, size_t indent) {
    const std::optional<size_t> columns = terminal_columns(stream);
    const std::string safe = escaped(text);
    return columns && *columns > 2 * indent ? folded(safe, *columns - indent, indent) : safe;
}

std::string share_text(uint64_t done, uint64_t of) {
    return std::to_string(of == 0 ? 100 : std::min<uint64_t>(100 * done / of, 100)) + " % of " +
           size_text(of);
}

}  // namespace

void show_step(const std::string& step, const std::string& text) {
    const std::lock_guard lock(screen);
    if (are_hidden) return;
    wipe_line();
    constexpr int NAME_COLUMNS = 14;
    printf("%-*s %s\n", NAME_COLUMNS, step.c_str(), fitting(stdout, text, NAME_COLUMNS + 1).c_str());
    fflush(stdout);
}

void show_table(const output_table& table) {
    const std::lock_guard lock(screen);
    if (are_hidden) return;
    wipe_line();
    print_table(stdout, table);
}

void hide_steps() {
    const std::lock_guard lock(screen);
    are_hidden = true;
}

void complain(const std::string& text) {
    const std::lock_guard lock(screen);
    wipe_line();
    const std::string sentence = std::string(program_invocation_short_name) + ": " + text + ".";
    fprintf(stderr, "%s\n", fitting(stderr, sentence, 0).c_str());
}

void set_doing(const std::string& what, std::function<std::string()> how_far) {
    const std::lock_guard lock(screen);
    doing = what;
    progress = std::move(how_far);
}

std::function<std::string()> growth_of(std::filesystem::path file, uint64_t bytes) {
    return [path = std::move(file), bytes] {
        std::error_code error;
        const uintmax_t size = std::filesystem::file_size(path, error);
        return error || size == 0 ? "" : share_text(size, bytes);
    };
}

void set_done(uint64_t bytes, uint64_t of_bytes) {
    const std::lock_guard lock(screen);
    progress = [bytes, of_bytes] { return share_text(bytes, of_bytes); };
}

patience_line::patience_line() : thread_([this] { run(); }) {}

patience_line::~patience_line() {
    {
        const std::lock_guard lock(mutex_);
        is_ended_ = true;
    }
    ended_.notify_one();
    thread_.join();
    const std::lock_guard lock(screen);
    wipe_line();
}

void patience_line::run() {
    const bool on_terminal = isatty(STDERR_FILENO) == 1;
    const std::chrono::seconds interval(on_terminal ? 1 : 5);
    std::chrono::seconds elapsed(0);
    std::unique_lock lock(mutex_);
    while (!ended_.wait_for(lock, interval, [this] { return is_ended_; })) {
        elapsed += interval;
        const std::lock_guard screen_lock(screen);
        if (are_hidden || doing.empty()) continue;
        const std::string how_far = progress ? progress() : "";
        wipe_line();
        fprintf(stderr, "%s: %s%s%s, %lld s%s", program_invocation_short_name, escaped(doing).c_str(),
                how_far.empty() ? "" : ": ", escaped(how_far).c_str(),
                static_cast<long long>(elapsed.count()), on_terminal ? "" : "\n");
        line_is_open = on_terminal;
    }
}
