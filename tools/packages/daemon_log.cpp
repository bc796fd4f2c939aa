#include "tools/packages/daemon_log.h"

#include <cstdarg>
#include <cstdio>
#include <sstream>
#include <utility>

#include "core/log.h"
#include "vexa_dbg.h"

namespace {

constexpr size_t LINES_KEPT = 6;

thread_local std::vector<std::string> lines;

}  // namespace

std::vector<std::string> take_daemon_log() {
    return std::exchange(lines, {});
}

void vexa_dbg_log(const char* /*tag*/, int level, const char* format, ...) {
    if (level > LOG_LEVEL_NOTICE) return;
    char text[FOTA_LOG_LINE_SIZE];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        if (line.empty()) continue;
        if (lines.size() == LINES_KEPT) lines.erase(lines.begin());
        lines.push_back(line);
    }
}

// What goes to the system log goes to the debug log too.
void vexa_dbg_syslog(int /*priority*/, const char* /*format*/, ...) {}

void vexa_dbg_context(const char* /*event*/, const char* /*agent*/, uint32_t /*record*/) {}

const char* vexa_dbg_get_level_name(int level) {
    return level <= LOG_LEVEL_ERROR ? "error" : "note";
}
