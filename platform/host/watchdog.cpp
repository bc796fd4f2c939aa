#include "watchdog.h"

#include <cstdlib>

#include "service_files.h"
#include "service_manager.h"

namespace {

constexpr char FOLDER[] = "/run/vexa/watchdog";

}  // namespace

extern "C" int watchdog_application_register(const char* name, int on) {
    platform::tell_service_manager_serving(on != 0);
    if (on == 0) return platform::remove_file(FOLDER, name) ? 0 : -1;
    return platform::make_folder(FOLDER) && platform::replace_with_number(FOLDER, name, 0) ? 0 : -1;
}

extern "C" int watchdog_application_send_keep_alive(const char* name) {
    platform::tell_service_manager_alive();
    char text[24] = {};
    if (platform::read_file(FOLDER, name, text, sizeof text - 1) < 0) return -1;
    return platform::replace_with_number(FOLDER, name, strtoll(text, nullptr, 10) + 1) ? 0 : -1;
}
