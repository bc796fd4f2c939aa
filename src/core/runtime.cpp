#include "core/runtime.h"

#include <unistd.h>

void wait_seconds(unsigned seconds) {
    sleep(seconds);
}

int start_thread(pthread_t* handle, void* (*entry)(void*)) {
    // A failed pthread_create may leave anything in its argument; a handle that is not 0 says that there is a
    // thread.
    const pthread_t before = *handle;
    const int error = pthread_create(handle, nullptr, entry, nullptr);
    if (error != 0) *handle = before;
    return error;
}

time_t clock_seconds() {
    return time(nullptr);
}
