#include "service_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <string>

namespace platform {

namespace {

bool is_file_name(const char* name) {
    return name != nullptr && name[0] != '\0' && name[0] != '.' && strnlen(name, NAME_MAX + 1) <= NAME_MAX &&
           strchr(name, '/') == nullptr;
}

int open_folder(const char* path) {
    return open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
}

// The name does not contain the final one, so that the longest final name has room. A process that died may
// have left a file of the same name behind; the next number is then tried.
int create_work_file(int folder, char* name, size_t name_size) {
    static std::atomic<unsigned> counter;
    for (int attempt = 0; attempt < 100; ++attempt) {
        snprintf(name, name_size, ".new.%d.%u", getpid(), counter++);
        const int fd = openat(folder, name, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
        if (fd >= 0 || errno != EEXIST) return fd;
    }
    return -1;
}

bool write_all(int fd, const void* data, size_t size) {
    const char* rest = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t written = write(fd, rest, size);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return false;
        rest += written;
        size -= static_cast<size_t>(written);
    }
    return true;
}

}  // namespace

scoped_fd::~scoped_fd() {
    const int saved_errno = errno;
    if (fd >= 0) close(fd);
    errno = saved_errno;
}

bool make_folder(const char* path) {
    std::string part(path);
    for (size_t slash = part.find('/', 1); slash != std::string::npos; slash = part.find('/', slash + 1)) {
        part[slash] = '\0';
        mkdir(part.c_str(), 0755);
        part[slash] = '/';
    }
    mkdir(path, 0755);
    struct stat info = {};
    return stat(path, &info) == 0 && S_ISDIR(info.st_mode);
}

bool replace_file(const char* folder, const char* name, const void* data, size_t size) {
    if (!is_file_name(name)) return false;
    const scoped_fd dir(open_folder(folder));
    if (dir.fd < 0) return false;
    char work_name[64];
    const scoped_fd file(create_work_file(dir.fd, work_name, sizeof work_name));
    if (file.fd < 0) return false;
    if (write_all(file.fd, data, size) && renameat(dir.fd, work_name, dir.fd, name) == 0) return true;
    unlinkat(dir.fd, work_name, 0);
    return false;
}

bool replace_with_number(const char* folder, const char* name, long long number) {
    const std::string text = std::to_string(number);
    return replace_file(folder, name, text.data(), text.size());
}

bool remove_file(const char* folder, const char* name) {
    if (!is_file_name(name)) return false;
    const scoped_fd dir(open_folder(folder));
    if (dir.fd >= 0 && unlinkat(dir.fd, name, 0) == 0) return true;
    return errno == ENOENT;
}

ssize_t read_file(const char* folder, const char* name, void* data, size_t size) {
    if (!is_file_name(name)) return -1;
    const scoped_fd dir(open_folder(folder));
    if (dir.fd < 0) return -1;
    const scoped_fd file(openat(dir.fd, name, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (file.fd < 0) return -1;
    size_t count = 0;
    while (count < size) {
        const ssize_t got = read(file.fd, static_cast<char*>(data) + count, size - count);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return -1;
        if (got == 0) break;
        count += static_cast<size_t>(got);
    }
    return static_cast<ssize_t>(count);
}

}  // namespace platform
