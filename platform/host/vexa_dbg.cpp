#include "vexa_dbg.h"

#include <syslog.h>

#include <cerrno>
#include <mutex>

#include "debug_log.h"

extern "C" void vexa_dbg_log(const char*, int, const char* format, ...) {
    platform::log_line line;
    va_list args;
    va_start(args, format);
    (void)platform::write_debug_log(&line, format, args);
    va_end(args);
}

extern "C" void vexa_dbg_syslog(int priority, const char* format, ...) {
    const int saved_errno = errno;
    static std::once_flag opened;
    std::call_once(opened, [] { openlog("fota", 0, LOG_USER); });
    va_list args;
    va_start(args, format);
    errno = saved_errno;
    vsyslog(priority, format, args);
    va_end(args);
    errno = saved_errno;
}

// The system log has no fields.
extern "C" void vexa_dbg_context(const char*, const char*, uint32_t) {}
