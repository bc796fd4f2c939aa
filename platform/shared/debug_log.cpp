#include "debug_log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <mutex>

#include "service_files.h"
#include "vexa_dbg.h"

namespace {

constexpr char LOG_FOLDER[] = "/var/log";
constexpr char LOG_FILE[] = "/var/log/debug_log";

std::mutex log_mutex;  // guards the three below
bool log_started = false;
int log_fd = -1;
struct stat log_identity;

int open_log() {
    if (!platform::make_folder(LOG_FOLDER)) return -1;
    constexpr int FLAGS = O_WRONLY | O_APPEND | O_CREAT | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    const int fd = open(LOG_FILE, FLAGS, 0644);
    // Also one that a command made first, with a file-creation mask of its own.
    struct stat info = {};
    if (fd >= 0 && fstat(fd, &info) == 0 && S_ISREG(info.st_mode)) fchmod(fd, 0644);
    return fd;
}

// After the log has been rotated away the next line begins a new file. Should that fail, the old one goes on.
bool ensure_log_open() {
    struct stat now = {};
    if (log_fd >= 0 && stat(LOG_FILE, &now) == 0 && now.st_dev == log_identity.st_dev &&
        now.st_ino == log_identity.st_ino) {
        return true;
    }
    const int fd = open_log();
    if (fd < 0) return log_fd >= 0;
    if (log_fd >= 0) close(log_fd);
    log_fd = fd;
    fstat(fd, &log_identity);
    return true;
}

size_t write_line_start(char* line, size_t size) {
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local = {};
    localtime_r(&now.tv_sec, &local);
    char date[32];
    if (strftime(date, sizeof date, "%Y-%m-%d %H:%M:%S", &local) == 0) date[0] = '\0';
    return static_cast<size_t>(
        snprintf(line, size, "%s.%03d %d ", date, static_cast<int>(now.tv_nsec / 1000000), getpid()));
}

}  // namespace

extern "C" void vexa_dbg_start(void) {
    const std::lock_guard guard(log_mutex);
    log_started = true;
    ensure_log_open();
}

extern "C" void vexa_dbg_stop(void) {
    const std::lock_guard guard(log_mutex);
    log_started = false;
    if (log_fd >= 0) close(log_fd);
    log_fd = -1;
}

extern "C" const char* vexa_dbg_get_level_name(int level) {
    constexpr const char* NAMES[] = {"EMERGENCY", "ALERT",  "CRITICAL", "ERROR",
                                     "WARNING",   "NOTICE", "INFO",     "DEBUG"};
    return level >= 0 && level < static_cast<int>(sizeof NAMES / sizeof NAMES[0]) ? NAMES[level] : "UNKNOWN";
}

namespace platform {

bool write_debug_log(log_line* line, const char* format, va_list args) {
    const int saved_errno = errno;
    char* const bytes = line->bytes;
    line->start = write_line_start(bytes, sizeof line->bytes);
    errno = saved_errno;
    const int wanted = vsnprintf(bytes + line->start, sizeof line->bytes - line->start, format, args);

    size_t end = line->start + (wanted > 0 ? static_cast<size_t>(wanted) : 0);
    if (end > sizeof line->bytes - 1) end = sizeof line->bytes - 1;
    while (end > line->start && bytes[end - 1] == '\n') --end;
    line->end = end;
    bytes[end++] = '\n';

    const std::lock_guard guard(log_mutex);
    const bool logs = log_started;
    if (logs && ensure_log_open()) {
        [[maybe_unused]] const ssize_t lost_when_short = write(log_fd, bytes, end);
    }
    errno = saved_errno;
    return logs;
}

}  // namespace platform
