// The socket pair between the two processes, and what travels on it; see rights.h.
#pragma once

#include <sys/types.h>

#include "web/rights.h"

// Both ends are close-on-exec. Throws std::exception.
struct channel_ends {
    int keeper, asker;
};
[[nodiscard]] channel_ends make_channel();

// Sends `size` bytes as one record, with the descriptor `fd` unless that is -1. False: the other side is
// gone.
[[nodiscard]] bool send_record(int channel, const void* record, size_t size, int fd = -1);

// Waits for a record of exactly `size` bytes. A descriptor that comes with it goes to `*fd`, which is -1 when
// none does; with `fd` null it is closed. False: the other side is gone, or has sent something else.
[[nodiscard]] bool receive_record(int channel, void* record, size_t size, int* fd = nullptr);
