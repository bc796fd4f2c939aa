#include "tools/common/patience.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <thread>

#include "tools/common/output.h"
#include "tools/common/steps.h"

int wait_for(const std::function<int()>& request, const end_signals& signals,
             const std::function<std::string(bool is_sent)>& on_leave) {
    const auto leave = [&](bool is_sent) {
        fprintf(stderr, "%s: interrupted. %s\n", program_invocation_short_name,
                escaped(on_leave(is_sent)).c_str());
        end_by_signal(signals);
    };
    pollfd ready[2] = {{signals.fd, POLLIN, 0}, {eventfd(0, EFD_CLOEXEC), POLLIN, 0}};
    if (poll(ready, 1, 0) > 0) leave(false);
    int result = 0;
    int error = 0;
    std::thread thread;
    {
        const patience_line line;
        thread = std::thread([&] {
            result = request();
            error = errno;
            eventfd_write(ready[1].fd, 1);
        });
        while (ready[1].fd >= 0 && poll(ready, 2, -1) <= 0) {
        }
    }
    if (ready[1].fd >= 0 && ready[1].revents == 0) leave(true);
    thread.join();
    if (ready[1].fd >= 0) close(ready[1].fd);
    errno = error;
    return result;
}
