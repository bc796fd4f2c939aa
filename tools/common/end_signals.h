// The signals that ask this program to end, for commands that have something to say first.
#pragma once

// While it lives the signals end nothing: `fd` becomes readable (see signalfd), -1 with errno when it cannot
// be. Make it before other threads.
struct end_signals {
    int fd = -1;

    end_signals();
    ~end_signals();
    end_signals(const end_signals&) = delete;
    end_signals& operator=(const end_signals&) = delete;
};

// Ends the process by the signal that is waiting in `fd`, as if it had not been held back.
[[noreturn]] void end_by_signal(const end_signals& signals);
