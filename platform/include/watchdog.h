// Watchdog: restarts a registered program that stops sending keep-alives (the daemon sends one in 50 seconds
// at worst, plus the time of one request).
#ifndef FOTA_PLATFORM_WATCHDOG_H
#define FOTA_PLATFORM_WATCHDOG_H

#include "platform_result.h"

#ifdef __cplusplus
extern "C" {
#endif

// Registers (`on` 1) or withdraws (`on` 0) the program called `name`. Returns 0 on success; the daemon goes
// on without a watchdog. Main thread only.
PLATFORM_RESULT int watchdog_application_register(const char* name, int on);

// Tells the watchdog that `name` is alive. Returns 0 on success. Main thread only.
PLATFORM_RESULT int watchdog_application_send_keep_alive(const char* name);

#ifdef __cplusplus
}
#endif

#endif
