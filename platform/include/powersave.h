// Power saving: a named wake lock keeps the device from suspending while it is held.
#ifndef FOTA_PLATFORM_POWERSAVE_H
#define FOTA_PLATFORM_POWERSAVE_H

#include "platform_result.h"

#ifdef __cplusplus
extern "C" {
#endif

#define POWERSAVE_SUCCESS 0xD0000

// Takes or gives back the wake lock `name`. Not counted: one release ends any number of acquisitions, and
// releasing what is not held succeeds. Returns POWERSAVE_SUCCESS or another value. Any thread.
PLATFORM_RESULT int powersave_wakelock_acquire(const char* name);
PLATFORM_RESULT int powersave_wakelock_release(const char* name);

#ifdef __cplusplus
}
#endif

#endif
