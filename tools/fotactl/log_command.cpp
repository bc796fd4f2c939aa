#include "log_command.h"

#include <CLI/CLI.hpp>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "common/state_files.h"
#include "tools/common/end_signals.h"
#include "tools/common/json_line.h"

namespace {

constexpr uint32_t USUAL_LINES = 100;
constexpr int LOOK_INTERVAL_MS = 250;
constexpr size_t CHUNK = 65536;

// The log as it grows, is emptied, or is moved away and begun anew.
class log_reader {
public:
    ~log_reader() { leave(); }

    // False, errno set, when it cannot be read.
    bool open_at_last(uint32_t lines) {
        fd_ = open(FOTA_COMMAND_LOG, O_RDONLY | O_CLOEXEC | O_NOCTTY);
        if (fd_ < 0) return false;
        at_ = begin_of_last(lines);
        return true;
    }

    // Prints all whole lines that are new. False when nobody can read them.
    bool print_news(bool as_json) {
        struct stat held = {}, named = {};
        if (fd_ >= 0 && fstat(fd_, &held) == 0 && held.st_size < at_) at_ = 0;
        if (!print_rest(as_json)) return false;
        const bool is_named = stat(FOTA_COMMAND_LOG, &named) == 0;
        if (is_named && (fd_ < 0 || named.st_ino != held.st_ino || named.st_dev != held.st_dev)) {
            leave();
            fd_ = open(FOTA_COMMAND_LOG, O_RDONLY | O_CLOEXEC | O_NOCTTY);
            at_ = 0;
            return print_rest(as_json);
        }
        return true;
    }

private:
    void leave() const {
        if (fd_ >= 0) close(fd_);
    }

    off_t begin_of_last(uint32_t lines) const {
        off_t end = lseek(fd_, 0, SEEK_END);
        std::string chunk(CHUNK, '\0');
        for (uint64_t ends = 0; end > 0;) {
            const off_t begin = std::max<off_t>(0, end - static_cast<off_t>(CHUNK));
            const ssize_t size = pread(fd_, chunk.data(), static_cast<size_t>(end - begin), begin);
            for (ssize_t i = size; i-- > 0;) {
                // The line end of the last line ends no line before it.
                if (chunk[static_cast<size_t>(i)] == '\n' && ++ends > lines) return begin + i + 1;
            }
            if (size <= 0) break;
            end = begin;
        }
        return 0;
    }

    bool print_rest(bool as_json) {
        std::string chunk(CHUNK, '\0');
        for (ssize_t size = 0; fd_ >= 0 && (size = pread(fd_, chunk.data(), CHUNK, at_)) > 0;) {
            size_t begin = 0;
            for (size_t end = 0; (end = chunk.find('\n', begin)) < static_cast<size_t>(size); begin = end + 1)
                print_one(chunk.substr(begin, end - begin), as_json);
            // Longer than any that the daemon writes.
            if (begin == 0 && static_cast<size_t>(size) == CHUNK) {
                print_one(chunk, as_json);
                begin = CHUNK;
            }
            if (begin == 0) break;
            at_ += static_cast<off_t>(begin);
        }
        return fflush(stdout) == 0;
    }

    static void print_one(const std::string& line, bool as_json) {
        if (as_json) return print_json_line({{"line", line}});
        const bool is_error = line.find("]:[ERROR]") != std::string::npos;
        printf("%s\n", styled(stdout, is_error ? look::BAD : look::PLAIN, escaped(line)).c_str());
    }

    int fd_ = -1;
    off_t at_ = 0;
};

answer run_log(const options& options) {
    const end_signals stop;
    log_reader log;
    if (!log.open_at_last(options.lines) && !(options.follow && errno == ENOENT)) {
        return {.problem = std::string(FOTA_COMMAND_LOG) + " cannot be read: " + strerror(errno),
                .advice = errno == ENOENT ? "It is made when fotad starts." : "Try again as root."};
    }
    pollfd ready = {stop.fd, POLLIN, 0};
    while (log.print_news(options.json) && options.follow && poll(&ready, 1, LOOK_INTERVAL_MS) == 0) {
    }
    return {.is_printed = true};
}

void add_log(CLI::App& app, options& options) {
    options.lines = USUAL_LINES;
    app.add_option("-n,--lines", options.lines, "How many lines, the last ones; 100 when not given")
        ->type_name("NUMBER");
    app.add_flag("-f,--follow", options.follow, "Go on with what is written, until Ctrl-C");
}

// clang-format off
constexpr command COMMANDS[] = {
    {nullptr, "log", "Print the end of the device's debug log, where fotad and the scripts of packages write",
     "-f\n-n 20", {}, add_log, run_log},
};
// clang-format on

}  // namespace

std::span<const command> log_commands() {
    return COMMANDS;
}
