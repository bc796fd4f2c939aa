#include "core/log.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>

#include "vexa_dbg.h"

namespace {

// Facility local1, severity critical: the number that the device's log collector filters on.
constexpr int SYSLOG_PRIORITY = 138;

}  // namespace

void fota_log(fota_log_sinks sinks, fota_log_level level, const char* function, const char* format, ...) {
    const int saved_errno = errno;
    char text[FOTA_LOG_LINE_SIZE];
    va_list args;
    va_start(args, format);
    errno = saved_errno;
    vsnprintf(text, sizeof text, format, args);
    va_end(args);

    const char* name = vexa_dbg_get_level_name(level);
    const char* separator = function != nullptr ? ": " : "";
    if (function == nullptr) function = "";
    vexa_dbg_log(FOTA_TAG, level, "[%s]:[%s] - %s%s%s", FOTA_TAG, name, function, separator, text);
    if (sinks == LOG_TO_BOTH_LOGS) {
        vexa_dbg_syslog(SYSLOG_PRIORITY, "[%s]:[%s] - %s%s%s", FOTA_TAG, name, function, separator, text);
    }
    errno = saved_errno;
}
