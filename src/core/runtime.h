// Time and threads: the one place where the daemon waits, starts a thread or asks for the time. Tests
// link functions of their own in the place of these three, and no time passes. Any thread.
#pragma once

#include <pthread.h>

#include <ctime>

// Waits that many seconds, or less when a signal comes in between.
void wait_seconds(unsigned seconds);

// Starts `entry` on a thread of its own and keeps its handle in `*handle`, which stays as it was when that
// fails. Returns 0 or the error number.
[[nodiscard]] int start_thread(pthread_t* handle, void* (*entry)(void*));

// Seconds since the epoch, by the clock that the network sets.
[[nodiscard]] time_t clock_seconds();
