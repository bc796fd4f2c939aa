// Message bus: named keys that the device's programs set and watch.
#ifndef FOTA_PLATFORM_MSGBUS_H
#define FOTA_PLATFORM_MSGBUS_H

#include <stdint.h>

#include "platform_result.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct MsgBusHandle MsgBusHandle;

typedef struct MsgBusEvent {
    uint32_t type;
} MsgBusEvent;

// The value of a key as MsgBusGet gives it.
typedef struct MsgBusValue {
    uint32_t reserved1[2];
    uint32_t value;  // the first 4 bytes of the key's value; 0 when the key is not set
    uint32_t reserved2[3];
} MsgBusValue;

typedef void (*MsgBusCallback)(MsgBusHandle* bus, const MsgBusEvent* event);

// Makes a client named `client`. Returns a handle that MsgBus_Release gives back, or null. It and
// the next four: main thread only.
PLATFORM_RESULT MsgBusHandle* MsgBus_Create(const char* client);
// Each returns 0 on success.
PLATFORM_RESULT int MsgBus_Connect(MsgBusHandle* bus);
PLATFORM_RESULT int MsgBus_SetCallback(MsgBusHandle* bus, MsgBusCallback callback);
void MsgBus_Disconnect(MsgBusHandle* bus);
void MsgBus_Release(MsgBusHandle* bus);

// Sets `key` to `size` bytes at `data`, or to a 64-bit integer; watchers see the old or the new value, never
// a mixture. Returns 0 on success. Any thread.
PLATFORM_RESULT int MsgBusSetBinary(const char* key, const void* data, int size);
PLATFORM_RESULT int MsgBusSetInt64(const char* key, int64_t value);

// Reads `key` into `*value`; leaves it zero when the key is not set. Returns 0 when the key is set. Main
// thread only.
PLATFORM_RESULT int MsgBusGet(const char* key, MsgBusValue* value);

#ifdef __cplusplus
}
static_assert(sizeof(MsgBusValue) == 24, "layout");
#endif

#endif
