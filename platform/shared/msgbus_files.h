// The message bus as a folder with a file for each key, /run/vexa/msgbus, where the client library looks for
// broadcasts and a restarted daemon finds the last values. What of msgbus.h is the same for every bus that
// has these files is here as well; a port adds the rest of it. Any thread.
#pragma once

#include <sys/types.h>

#include <cstddef>

#include "msgbus.h"

struct MsgBusHandle {
    bool connected;
};

namespace platform {

// True when there is a folder for the keys.
[[nodiscard]] bool make_bus_folder();

// Sets a key: readers find the old value or the new one.
[[nodiscard]] bool write_key(const char* key, const void* data, int size);

// Reads a key's first `size` bytes or all that there are. Returns the count, or -1 when it is not set.
[[nodiscard]] ssize_t read_key(const char* key, void* data, size_t size);

// As MsgBusGet.
[[nodiscard]] int get_key(const char* key, MsgBusValue* value);

}  // namespace platform
