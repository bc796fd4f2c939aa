#include "watchdog.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "service_files.h"

namespace {

constexpr char FOLDER[] = "/run/vexa/watchdog";

// Tells the service manager that started this process, when it gave a socket to do so: a path, or "@" and an
// abstract name. A manager that does not listen is not waited for; its own limit then decides.
void notify_service_manager(const char* state) {
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

extern "C" int watchdog_application_register(const char* name, int on) {
    if (on == 0) {
        notify_service_manager("STOPPING=1");
        return platform::remove_file(FOLDER, name) ? 0 : -1;
    }
    // The manager started the process that this one has left behind.
    char state[64];
    snprintf(state, sizeof state, "READY=1\nMAINPID=%d", getpid());
    notify_service_manager(state);
    return platform::make_folder(FOLDER) && platform::replace_with_number(FOLDER, name, 0) ? 0 : -1;
}

extern "C" int watchdog_application_send_keep_alive(const char* name) {
    notify_service_manager("WATCHDOG=1");
    char text[24] = {};
    if (platform::read_file(FOLDER, name, text, sizeof text - 1) < 0) return -1;
    return platform::replace_with_number(FOLDER, name, strtoll(text, nullptr, 10) + 1) ? 0 : -1;
}
