// Where broadcasts come from: files. A port whose message bus has none implements this in a file
// client_bus.cpp of its folder, which is then built in place of bus.cpp. Any thread.
#pragma once

#include <cstddef>
#include <cstdint>

#include "fota/fota_client.h"

// What a key of the bus was set to.
struct fota_bus_change {
    char key[256];  // ends in NUL
    size_t size;    // of the value, in bytes; more than a record has: the record's size and 1
    union {
        int32_t number;  // the first 4 bytes
        fota_history_rec record;
    };
};

// As fota_client_broadcasts_open.
[[nodiscard]] int fota_bus_open();

// Takes one change, of any key, that `fd` can be read for. FOTA_RC_SUCCESS, or as fota_client_broadcast_next.
[[nodiscard]] int fota_bus_next(int fd, fota_bus_change* change);
