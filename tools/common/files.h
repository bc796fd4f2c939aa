// Files of the tools on the build host: read with a bounded part in memory, written so that they appear when
// they are complete, and gone when a signal ends the program before that. What goes wrong is a failure.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>

#include "common/file_helpers.h"

// Such as "36700160 bytes (35.0 MiB)".
[[nodiscard]] std::string file_size_text(const std::filesystem::path& path);

// Where a file is written that gets its name `path` when it is complete.
[[nodiscard]] std::filesystem::path part_of(const std::filesystem::path& path);

// Something unfinished on the disk: what lies at `path` goes when the owner ends, and when a signal ends the
// program.
class unfinished {
public:
    explicit unfinished(std::filesystem::path path);
    ~unfinished();
    unfinished(const unfinished&) = delete;
    unfinished& operator=(const unfinished&) = delete;

private:
    std::filesystem::path path_;
};

// Lets `make` make the file or folder that it is given, which gets its name `path` when that has ended, in
// the place of a file that is there. A folder that lies in the way is a failure.
void make_complete(const std::filesystem::path& path,
                   const std::function<void(const std::filesystem::path&)>& make);

// Lets SIGHUP, SIGINT and SIGTERM end the program only after everything unfinished is gone. Before any other
// thread is made.
void clean_up_on_signals();

// A folder of our own under $TMPDIR, or else /tmp, that goes with its contents.
class work_folder {
public:
    work_folder();

    // Reports a failure when the file system has not so many bytes free: OpenSSL does not tell a full disk
    // from a damaged message.
    void check_room(uint64_t bytes) const;
    [[nodiscard]] std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

private:
    std::filesystem::path path_;
    unfinished contents_;
};

// Whether a path is relative and leads out of no folder.
[[nodiscard]] bool stays_inside(const std::filesystem::path& name);

// Reports a failure, before any work is done, when no file can come to be at `path`, or something lies there
// that must not be replaced: only a regular file may be.
void check_output(const std::filesystem::path& path);

// Makes `path`, whatever was there before, with exactly `mode`. Never follows a link.
[[nodiscard]] file_ptr create_file(const std::filesystem::path& path, mode_t mode);

// Reports a failure when what was written to `stream` is not all in the file `path`.
void finish_file(file_ptr stream, const std::filesystem::path& path);

void write_file(const std::filesystem::path& path, std::string_view content, mode_t mode);

// Opens a regular file for reading.
[[nodiscard]] file_ptr open_file(const std::filesystem::path& path);

struct file_range {
    std::filesystem::path path;
    uint64_t offset, size;
};

// A regular file as large as it is now.
[[nodiscard]] file_range whole_file(const std::filesystem::path& path);

// Reports a failure when something lies at `path`, where a folder is to appear.
void check_new_folder(const std::filesystem::path& path);

// Hands the bytes of `range` to `take`, a bounded number at a time: packages may be larger than memory.
// Reports a failure when they are not all there any more.
void read_range(const file_range& range, const std::function<void(const char*, size_t)>& take);

// Writes them to the file `path`, see create_file.
void write_range(const file_range& range, const std::filesystem::path& path, mode_t mode);
