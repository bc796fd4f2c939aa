// The bus as a folder: a key is a file, and set by renaming another to it.
#include "bus.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

constexpr char FOLDER[] = "/run/vexa/msgbus";

int no_resources(int why) {
    errno = why;
    return FOTA_CLIENT_NO_RESOURCES;
}

// Fails when the file has gone, or is none of this bus.
bool read_value(fota_bus_change& change) {
    char path[sizeof FOLDER + sizeof change.key];
    snprintf(path, sizeof path, "%s/%s", FOLDER, change.key);
    const int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return false;
    char value[sizeof change.record + 1];
    const ssize_t size = read(fd, value, sizeof value);
    close(fd);
    if (size < 0) return false;
    change.size = static_cast<size_t>(size);
    memcpy(&change.record, value, sizeof change.record < change.size ? sizeof change.record : change.size);
    return true;
}

}  // namespace

int fota_bus_open() {
    const int fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (fd < 0) return FOTA_CLIENT_NO_RESOURCES;
    if (inotify_add_watch(fd, FOLDER, IN_MOVED_TO | IN_ONLYDIR) >= 0) return fd;
    const int why = errno;
    close(fd);
    return why == ENOENT ? int{FOTA_CLIENT_NO_DAEMON} : no_resources(why);
}

int fota_bus_next(int fd, fota_bus_change* change) {
    // One event and not the next as well, for which there would be no place between two calls: the kernel
    // refuses a buffer that is too small for the first.
    alignas(inotify_event) char buffer[sizeof(inotify_event) + NAME_MAX + 1];
    inotify_event event;
    ssize_t size = -1;
    for (size_t room = sizeof event; size < 0 && room <= sizeof buffer; room += sizeof event) {
        size = read(fd, buffer, room);
        if (size < 0 && (errno == EAGAIN || errno == EINTR)) return FOTA_CLIENT_NOT_YET;
        if (size < 0 && errno != EINVAL) return FOTA_CLIENT_NO_RESOURCES;
    }
    if (size < 0) return FOTA_CLIENT_NO_RESOURCES;
    memcpy(&event, buffer, sizeof event);
    if ((event.mask & IN_Q_OVERFLOW) != 0) return no_resources(EOVERFLOW);
    if ((event.mask & IN_IGNORED) != 0) return no_resources(ENOENT);
    if (event.len == 0) return FOTA_CLIENT_NOT_YET;
    snprintf(change->key, sizeof change->key, "%s", buffer + sizeof event);
    return read_value(*change) ? int{FOTA_RC_SUCCESS} : int{FOTA_CLIENT_NOT_YET};
}
