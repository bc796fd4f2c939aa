#include "powersave.h"

#include <fcntl.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "inhibitor.h"
#include "service_files.h"
#include "system_bus.h"

namespace {

constexpr int POWERSAVE_FAILURE = 0xD0001;
constexpr int LEVEL_NOTICE = 5;

// What logind holds for a lock: for as long as the descriptor is open, so that it goes with the process.
struct inhibitor {
    char name[NAME_MAX + 1];  // empty: unused
    int fd;
};

std::mutex inhibitors_mutex;
inhibitor inhibitors[4];

inhibitor* find_inhibitor(const char* name) {
    for (inhibitor& each : inhibitors) {
        if (strcmp(each.name, name) == 0) return &each;
    }
    return nullptr;
}

void give_back(inhibitor* held) {
    held->name[0] = '\0';
    close(held->fd);
}

// The kernel's own locks, where it is built with them.
bool write_kernel_file(const char* path, const char* name) {
    const platform::scoped_fd file(open(path, O_WRONLY | O_CLOEXEC));
    const size_t length = strlen(name);
    return file.fd >= 0 && write(file.fd, name, length) == static_cast<ssize_t>(length);
}

bool take_inhibitor(const char* name) {
    const std::lock_guard guard(inhibitors_mutex);
    if (find_inhibitor(name) != nullptr) return true;
    inhibitor* const place = find_inhibitor("");
    if (place == nullptr) return false;
    platform::bus_caller caller("POWERSAVE", LEVEL_NOTICE);
    const platform::bus_method inhibit = {"org.freedesktop.login1", "/org/freedesktop/login1",
                                          "org.freedesktop.login1.Manager", "Inhibit"};
    sd_bus_message* const reply =
        bus_call(&caller, inhibit, "ssss", "sleep:shutdown", name, "Firmware update", "block");
    int fd = -1;
    if (reply == nullptr || sd_bus_message_read(reply, "h", &fd) <= 0) return false;
    // The reply owns its descriptor.
    fd = fcntl(fd, F_DUPFD_CLOEXEC, 3);
    if (fd < 0) return false;
    place->fd = fd;
    snprintf(place->name, sizeof place->name, "%s", name);
    return true;
}

}  // namespace

void platform::release_inhibitors() {
    const std::lock_guard guard(inhibitors_mutex);
    for (inhibitor& each : inhibitors) {
        if (each.name[0] != '\0') give_back(&each);
    }
}

extern "C" int powersave_wakelock_acquire(const char* name) {
    if (name == nullptr || name[0] == '\0' || strlen(name) > NAME_MAX) return POWERSAVE_FAILURE;
    const bool by_kernel = write_kernel_file("/sys/power/wake_lock", name);
    return take_inhibitor(name) || by_kernel ? POWERSAVE_SUCCESS : POWERSAVE_FAILURE;
}

extern "C" int powersave_wakelock_release(const char* name) {
    if (name == nullptr || name[0] == '\0') return POWERSAVE_FAILURE;
    // Of a lock that it does not know it says so, by failing.
    (void)write_kernel_file("/sys/power/wake_unlock", name);
    const std::lock_guard guard(inhibitors_mutex);
    inhibitor* const held = find_inhibitor(name);
    if (held != nullptr) give_back(held);
    return POWERSAVE_SUCCESS;
}
