// The plain files that the stand-in services are made of, addressed by folder and name, so that a person and
// a test can look at a service and drive it. A name is one path component of at most NAME_MAX bytes that does
// not begin with '.': such names belong to files that are still being written. Any other name is refused. Any
// thread.
#pragma once

#include <sys/types.h>

#include <cstddef>

namespace platform {

// Closes on every path; keeps errno.
struct scoped_fd {
    int fd;
    explicit scoped_fd(int opened) : fd(opened) {}
    scoped_fd(const scoped_fd&) = delete;
    scoped_fd& operator=(const scoped_fd&) = delete;
    ~scoped_fd();
};

// Makes `path` (absolute) and the folders above it. True when it is a folder afterwards.
[[nodiscard]] bool make_folder(const char* path);

// Gives the file exactly `size` bytes of `data`: readers find the old file or the new one. The folder has to
// exist.
[[nodiscard]] bool replace_file(const char* folder, const char* name, const void* data, size_t size);

// replace_file with a decimal number, without a line end.
[[nodiscard]] bool replace_with_number(const char* folder, const char* name, long long number);

// True when the file is gone, also when it never was.
[[nodiscard]] bool remove_file(const char* folder, const char* name);

// Reads the file's first `size` bytes or all that there are. Returns the count, or -1 when it cannot be read.
[[nodiscard]] ssize_t read_file(const char* folder, const char* name, void* data, size_t size);

}  // namespace platform
