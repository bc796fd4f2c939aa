#include "tools/common/files.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "tools/common/failure.h"
#include "tools/common/output.h"

namespace fs = std::filesystem;

namespace {

std::mutex unfinished_mutex;
std::vector<fs::path> unfinished_paths;

fs::path make_work_folder() {
    const char* base = getenv("TMPDIR");
    std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/fotapkg-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) {
        throw system_failure("No work folder can be made as " + pattern +
                             "; set TMPDIR to a folder with room");
    }
    return pattern;
}

}  // namespace

std::string file_size_text(const fs::path& path) {
    return size_text(fs::file_size(path));
}

fs::path part_of(const fs::path& path) {
    return path.string() + ".part";
}

unfinished::unfinished(fs::path path) : path_(std::move(path)) {
    const std::lock_guard lock(unfinished_mutex);
    unfinished_paths.push_back(path_);
}

unfinished::~unfinished() {
    const std::lock_guard lock(unfinished_mutex);
    std::error_code ignored;
    fs::remove_all(path_, ignored);
    std::erase(unfinished_paths, path_);
}

void make_complete(const fs::path& path, const std::function<void(const fs::path&)>& make) {
    const fs::path part = part_of(path);
    if (fs::is_directory(part)) throw failure(part.string() + " is in the way; remove it");
    const unfinished while_made(part);
    make(part);
    fs::rename(part, path);
}

void clean_up_on_signals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : {SIGHUP, SIGINT, SIGTERM}) {
        // nohup's wish stays.
        struct sigaction action = {};
        if (sigaction(number, nullptr, &action) == 0 && action.sa_handler == SIG_IGN) continue;
        sigaddset(&signals, number);
    }
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    termios terminal = {};
    const bool has_terminal = tcgetattr(STDIN_FILENO, &terminal) == 0;
    std::thread([signals, terminal, has_terminal] {
        int number = 0;
        if (sigwait(&signals, &number) != 0) return;
        // Not given back: what goes here is not to be made again.
        unfinished_mutex.lock();
        std::error_code ignored;
        for (const fs::path& path : unfinished_paths) fs::remove_all(path, ignored);
        // Whoever asked for a pass phrase has switched the echo off.
        if (has_terminal && tcgetpgrp(STDIN_FILENO) == getpgrp()) tcsetattr(STDIN_FILENO, TCSANOW, &terminal);
        _exit(128 + number);
    }).detach();
}

work_folder::work_folder() : path_(make_work_folder()), contents_(path_) {}

void work_folder::check_room(uint64_t bytes) const {
    if (fs::space(path_).available >= bytes) return;
    throw failure("There is no room for " + size_text(bytes) + " in " + path_.parent_path().string() +
                  "; set TMPDIR to a folder with room");
}

bool stays_inside(const fs::path& name) {
    if (name.empty() || name.is_absolute()) return false;
    return std::none_of(name.begin(), name.end(), [](const fs::path& part) { return part == ".."; });
}

void check_output(const fs::path& path) {
    if (path.empty()) throw failure("The output has no name; give a file to write to");
    if (path == "-") {
        throw failure(
            "Nothing is written to standard output: the output appears when it is complete; give the name of "
            "a file");
    }
    const fs::path folder = fs::absolute(path).parent_path();
    if (!fs::is_directory(folder)) throw failure("There is no folder " + folder.string() + "; make it");
    if (fs::is_directory(path)) throw failure(path.string() + " is a folder; give a file to write to");
    if (fs::exists(path) && !fs::is_regular_file(path))
        throw failure(path.string() + " is there and no regular file; give another file to write to");
}

void check_new_folder(const fs::path& path) {
    if (path.empty() || path == "-" || fs::exists(fs::symlink_status(path)))
        throw failure("The output has to be a new folder, which " + path.string() +
                      " is not; give another name");
}

file_ptr create_file(const fs::path& path, mode_t mode) {
    unlink(path.c_str());
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
    if (fd < 0) throw system_failure("Cannot create " + path.string());
    fchmod(fd, mode);
    file_ptr stream(fdopen(fd, "w"));
    if (!stream) {
        close(fd);
        throw system_failure("Cannot write " + path.string());
    }
    return stream;
}

void finish_file(file_ptr stream, const fs::path& path) {
    const bool complete = ferror(stream.get()) == 0;
    if (fclose(stream.release()) != 0 || !complete) {
        throw failure("Cannot write all of " + path.string() + "; see that there is room on its disk");
    }
}

void write_file(const fs::path& path, std::string_view content, mode_t mode) {
    file_ptr stream = create_file(path, mode);
    fwrite(content.data(), 1, content.size(), stream.get());
    finish_file(std::move(stream), path);
}

file_ptr open_file(const fs::path& path) {
    file_ptr stream = open_for_reading(path.c_str());
    if (!stream) throw system_failure("Cannot read " + path.string());
    struct stat info = {};
    if (fstat(fileno(stream.get()), &info) != 0 || !S_ISREG(info.st_mode))
        throw failure(path.string() + " is not a regular file; give one that is");
    return stream;
}

file_range whole_file(const fs::path& path) {
    const file_ptr stream = open_file(path);
    return {path, 0, fs::file_size(path)};
}

void read_range(const file_range& range, const std::function<void(const char*, size_t)>& take) {
    const file_ptr stream = open_file(range.path);
    std::vector<char> chunk(size_t{64} * 1024);
    const bool good = fseeko(stream.get(), static_cast<off_t>(range.offset), SEEK_SET) == 0;
    for (uint64_t left = range.size; left > 0;) {
        const size_t wanted = static_cast<size_t>(std::min<uint64_t>(left, chunk.size()));
        const size_t count = good ? fread(chunk.data(), 1, wanted, stream.get()) : 0;
        if (count == 0) {
            throw failure("Cannot read all of " + range.path.string() +
                          "; see that it is not being written to");
        }
        take(chunk.data(), count);
        left -= count;
    }
}

void write_range(const file_range& range, const fs::path& path, mode_t mode) {
    file_ptr stream = create_file(path, mode);
    read_range(range, [&](const char* bytes, size_t size) { fwrite(bytes, 1, size, stream.get()); });
    finish_file(std::move(stream), path);
}
