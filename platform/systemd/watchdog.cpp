#include "watchdog.h"

#include "service_manager.h"

// The service manager is the watchdog; it knows the daemon by its process.
extern "C" int watchdog_application_register(const char*, int on) {
    platform::tell_service_manager_serving(on != 0);
    return 0;
}

extern "C" int watchdog_application_send_keep_alive(const char*) {
    platform::tell_service_manager_alive();
    return 0;
}
