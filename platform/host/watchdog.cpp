#include "watchdog.h"

#include <cstdlib>

#include "service_files.h"

namespace {

constexpr char FOLDER[] = "/run/vexa/watchdog";

}  // namespace

extern "C" int watchdog_application_register(const char* name, int on) {
    if (on == 0) return host::remove_file(FOLDER, name) ? 0 : -1;
    return host::make_folder(FOLDER) && host::replace_with_number(FOLDER, name, 0) ? 0 : -1;
}

extern "C" int watchdog_application_send_keep_alive(const char* name) {
    char text[24] = {};
    if (host::read_file(FOLDER, name, text, sizeof text - 1) < 0) return -1;
    return host::replace_with_number(FOLDER, name, strtoll(text, nullptr, 10) + 1) ? 0 : -1;
}
