// Settings service: the device's feature set. It is ready when the message-bus key "settings.ready" is not
// zero.
#ifndef FOTA_PLATFORM_SETTINGS_H
#define FOTA_PLATFORM_SETTINGS_H

#include <stdint.h>

#include "platform_result.h"

#ifdef __cplusplus
extern "C" {
#endif

#define SETTINGS_SUCCESS 0x20000

typedef struct settings_features {
    uint8_t reserved1[28];
    uint32_t power_saving;  // non-zero: the device has wake locks
    uint8_t reserved2[100];
    uint32_t fota_enabled;  // non-zero: the device takes firmware updates
    uint8_t reserved3[104];
} settings_features;

// Fills the caller's zeroed block. Returns SETTINGS_SUCCESS, or another value when the features cannot be
// read. Main thread only.
PLATFORM_RESULT int settings_get_features(settings_features* features);

#ifdef __cplusplus
}
static_assert(sizeof(settings_features) == 240 && __builtin_offsetof(settings_features, power_saving) == 28 &&
                  __builtin_offsetof(settings_features, fota_enabled) == 132,
              "layout");
#endif

#endif
