// Calls to other programs on the system bus, for services that are asked now and then: each has a connection
// of its own, and all that is done with it takes two seconds at most, whatever the bus and the other program
// do. Any thread.
#pragma once

#include <systemd/sd-bus.h>

#include <cstdint>

namespace platform {

// Microseconds of the clock that the bus library counts by.
[[nodiscard]] uint64_t bus_clock();

// Closes and frees on every path. Nothing waits for what has not been sent yet.
struct bus_caller {
    const char* tag;       // of the log lines, which say why a call failed
    int level;             // of these
    sd_bus* bus;           // null when there is no bus
    sd_bus_message* last;  // the last reply, which lives as long as this or until the next call
    uint64_t end;          // by bus_clock()

    bus_caller(const char* tag, int level);
    bus_caller(const bus_caller&) = delete;
    bus_caller& operator=(const bus_caller&) = delete;
    ~bus_caller();
};

// What is called.
struct bus_method {
    const char *service, *path, *interface, *name;
};

// Calls it with arguments as sd_bus_message_append takes them, and returns the reply; null, and a log line
// with the error's name, when there is none.
[[nodiscard]] sd_bus_message* bus_call(bus_caller* caller, const bus_method& method, const char* types, ...);

}  // namespace platform
