#include "common/text.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>

#include "core/runtime.h"

void text_copy(char* dst, size_t dst_size, const char* src, size_t src_width) {
    size_t length = strnlen(src, src_width);
    if (length > dst_size - 1) length = dst_size - 1;
    memcpy(dst, src, length);
    memset(dst + length, 0, dst_size - length);
}

bool text_format(char* dst, size_t dst_size, const char* format, ...) {
    memset(dst, 0, dst_size);
    va_list args;
    va_start(args, format);
    const int wanted = vsnprintf(dst, dst_size, format, args);
    va_end(args);
    return wanted >= 0 && static_cast<size_t>(wanted) < dst_size;
}

void text_append(char* dst, size_t dst_size, const char* src, size_t src_width) {
    const size_t used = strnlen(dst, dst_size - 1);
    text_copy(dst + used, dst_size - used, src, src_width);
}

void text_trim(char* text) {
    text[strcspn(text, "\r\n\t ")] = '\0';
}

void text_cut_line_end(char* text) {
    const size_t length = strlen(text);
    if (length > 0 && text[length - 1] == '\n') text[length - 1] = '\0';
}

namespace {

// The library's idea of the zone is shared by all threads.
std::mutex zone_mutex;

}  // namespace

bool local_time_now(tm* local) {
    const time_t now = clock_seconds();
    const std::lock_guard lock(zone_mutex);
    tzset();  // localtime_r does not look again by itself
    return localtime_r(&now, local) != nullptr;
}

time_t local_time_to_epoch(tm* local) {
    const std::lock_guard lock(zone_mutex);
    local->tm_isdst = -1;
    return mktime(local);
}

void local_date_now(char* dst, size_t dst_size) {
    memset(dst, 0, dst_size);
    tm local = {};
    if (local_time_now(&local)) strftime(dst, dst_size, FOTA_DATE_FORMAT, &local);
}
