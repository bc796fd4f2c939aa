// The debug log as the file /var/log/debug_log. vexa_dbg_start, vexa_dbg_stop and vexa_dbg_get_level_name are
// here as well; a port adds the rest of vexa_dbg.h. Any thread.
#pragma once

#include <cstdarg>
#include <cstddef>

namespace platform {

// A line with its time and its end; what was to be logged lies from `start` to before `end`.
struct log_line {
    char bytes[8192];
    size_t start, end;
};

// Makes `*line` and appends it to the file. False when the log is not started, so that the line is for
// nobody. Keeps errno.
[[gnu::format(printf, 2, 0)]] bool write_debug_log(log_line* line, const char* format, va_list args);

}  // namespace platform
