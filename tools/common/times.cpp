#include "tools/common/times.h"

#include <cstdio>
#include <ctime>

namespace {

constexpr long NANOSECONDS_PER_MILLISECOND = 1000000;

std::string formatted(const tm& local, const std::string& fraction) {
    char text[64], offset[16];
    strftime(text, sizeof text, "%FT%T", &local);
    strftime(offset, sizeof offset, "%z", &local);  // "+0100"
    const std::string zone = offset;
    return text + fraction + zone.substr(0, 3) + ":" + zone.substr(3);
}

}  // namespace

std::string rfc3339_now() {
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local = {};
    localtime_r(&now.tv_sec, &local);
    char fraction[16];
    snprintf(fraction, sizeof fraction, ".%03ld", now.tv_nsec / NANOSECONDS_PER_MILLISECOND);
    return formatted(local, fraction);
}

std::string rfc3339_date(const std::string& text) {
    tm local = {};
    const char* const end = strptime(text.c_str(), "%m-%d-%Y-%H:%M:%S", &local);
    if (end == nullptr || *end != '\0') return "";
    local.tm_isdst = -1;
    return mktime(&local) == -1 ? "" : formatted(local, "");
}
