#include "tools/common/end_signals.h"

#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <initializer_list>

#include "fota/fota_client.h"

namespace {

sigset_t set_of_signals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal_number : {SIGHUP, SIGINT, SIGQUIT, SIGTERM}) sigaddset(&signals, signal_number);
    return signals;
}

}  // namespace

end_signals::end_signals() {
    const sigset_t signals = set_of_signals();
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    fd = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
}

end_signals::~end_signals() {
    if (fd >= 0) close(fd);
}

void end_by_signal(const end_signals& signals) {
    signalfd_siginfo info = {};
    int signal_number = SIGTERM;
    if (read(signals.fd, &info, sizeof info) == sizeof info) signal_number = static_cast<int>(info.ssi_signo);
    fota_client_remove_reply_queues();
    signal(signal_number, SIG_DFL);
    const sigset_t held_back = set_of_signals();
    sigprocmask(SIG_UNBLOCK, &held_back, nullptr);
    raise(signal_number);
    _exit(128 + signal_number);
}
