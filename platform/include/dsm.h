// Device state manager: run levels and resets.
#ifndef FOTA_PLATFORM_DSM_H
#define FOTA_PLATFORM_DSM_H

#include "platform_result.h"

#ifdef __cplusplus
extern "C" {
#endif

#define DSM_SUCCESS 0x70000

// Asks for a switch into `run_level` (5: the installer's). Returns DSM_SUCCESS when the manager took the
// request, which it carries out later. Any thread.
PLATFORM_RESULT int dsm_set_persistent_mode(int run_level);

// Asks for a reset of the device; `reason` is 1. Returns DSM_SUCCESS when the manager took the request. Any
// thread.
PLATFORM_RESULT int dsm_reset_device(int reason);

#ifdef __cplusplus
}
#endif

#endif
