#include "service_manager.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "service_files.h"

namespace {

// Tells the service manager that started this process, when it gave a socket to do so: a path, or "@" and an
// abstract name. A manager that does not listen is not waited for; its own limit then decides.
void notify(const char* state) {
    const char* const name = getenv("NOTIFY_SOCKET");
    if (name == nullptr || (name[0] != '/' && name[0] != '@')) return;
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const size_t length = strlen(name);
    if (length > sizeof address.sun_path) return;
    memcpy(address.sun_path, name, length);
    if (name[0] == '@') address.sun_path[0] = '\0';
    const platform::scoped_fd socket_fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (socket_fd.fd < 0) return;
    [[maybe_unused]] const ssize_t lost_when_busy =
        sendto(socket_fd.fd, state, strlen(state), MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&address),
               static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length));
}

}  // namespace

namespace platform {

void tell_service_manager_serving(bool serving) {
    // The manager started the process that this one has left behind.
    char state[64];
    snprintf(state, sizeof state, "READY=1\nMAINPID=%d", getpid());
    notify(serving ? state : "STOPPING=1");
}

void tell_service_manager_alive() {
    notify("WATCHDOG=1");
}

}  // namespace platform
