#include "system_bus.h"

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <ctime>

#include "vexa_dbg.h"

namespace platform {

namespace {

constexpr uint64_t TIME_LIMIT = 2000000;

// What waits for a reply.
struct pending_reply {
    sd_bus_message* message;
};

int take_reply(sd_bus_message* message, void* pending, sd_bus_error*) {
    static_cast<pending_reply*>(pending)->message = sd_bus_message_ref(message);
    return 0;
}

// The library's own call that waits begins with logging in to the bus, for which it has another limit.
int wait_for(const bus_caller& caller, const pending_reply& reply) {
    while (reply.message == nullptr) {
        const uint64_t now = bus_clock();
        if (now >= caller.end) return -ETIMEDOUT;
        int done = sd_bus_process(caller.bus, nullptr);
        if (done == 0) done = sd_bus_wait(caller.bus, caller.end - now);
        if (done < 0 && done != -EINTR) return done;
    }
    return 0;
}

int send_and_wait(bus_caller* caller, sd_bus_message* message) {
    pending_reply reply = {};
    sd_bus_slot* slot = nullptr;
    int result = sd_bus_call_async(caller->bus, &slot, message, take_reply, &reply, TIME_LIMIT);
    if (result >= 0) result = wait_for(*caller, reply);
    sd_bus_slot_unref(slot);
    caller->last = reply.message;
    return result;
}

sd_bus_message* failed(const bus_caller& caller, const bus_method& method, const char* why) {
    vexa_dbg_log(caller.tag, caller.level, "[%s]:[%s] - %s of %s failed: %s", caller.tag,
                 vexa_dbg_get_level_name(caller.level), method.name, method.service, why);
    return nullptr;
}

}  // namespace

uint64_t bus_clock() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000 + static_cast<uint64_t>(now.tv_nsec) / 1000;
}

bus_caller::bus_caller(const char* log_tag, int log_level)
    : tag(log_tag), level(log_level), bus(nullptr), last(nullptr), end(bus_clock() + TIME_LIMIT) {
    (void)sd_bus_open_system(&bus);
}

bus_caller::~bus_caller() {
    sd_bus_message_unref(last);
    sd_bus_close_unref(bus);
}

sd_bus_message* bus_call(bus_caller* caller, const bus_method& method, const char* types, ...) {
    if (caller->bus == nullptr) return failed(*caller, method, "no system bus");
    sd_bus_message_unref(caller->last);
    caller->last = nullptr;
    sd_bus_message* message = nullptr;
    int result = sd_bus_message_new_method_call(caller->bus, &message, method.service, method.path,
                                                method.interface, method.name);
    va_list arguments;
    va_start(arguments, types);
    if (result >= 0) result = sd_bus_message_appendv(message, types, arguments);
    va_end(arguments);
    if (result >= 0) result = send_and_wait(caller, message);
    sd_bus_message_unref(message);
    if (result < 0) return failed(*caller, method, strerror(-result));
    const sd_bus_error* const error = sd_bus_message_get_error(caller->last);
    return error == nullptr ? caller->last : failed(*caller, method, error->name);
}

}  // namespace platform
