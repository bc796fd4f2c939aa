#include "tools/common/patience.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <thread>

#include "tools/common/output.h"

namespace {

constexpr int SECOND_MS = 1000;
constexpr char WIPE_LINE[] = "\r\033[K";

// Waits until one of the two is readable. Counts on the terminal meanwhile.
void wait_and_count(pollfd (&ready)[2], const std::string& doing) {
    const bool counts = !doing.empty() && isatty(STDERR_FILENO) == 1;
    const auto start = std::chrono::steady_clock::now();
    bool has_line = false;
    while (poll(ready, 2, counts ? SECOND_MS : -1) <= 0) {
        if (!counts) continue;
        const auto secs =
            std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - start);
        fprintf(stderr, "%s%s, %lld s", WIPE_LINE, escaped(doing).c_str(),
                static_cast<long long>(secs.count()));
        has_line = true;
    }
    if (has_line) fputs(WIPE_LINE, stderr);
}

}  // namespace

int wait_for(const std::function<int()>& request, const end_signals& signals, const std::string& doing,
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
    std::thread thread([&] {
        result = request();
        error = errno;
        eventfd_write(ready[1].fd, 1);
    });
    if (ready[1].fd >= 0) wait_and_count(ready, doing);
    if (ready[1].fd >= 0 && ready[1].revents == 0) leave(true);
    thread.join();
    if (ready[1].fd >= 0) close(ready[1].fd);
    errno = error;
    return result;
}
