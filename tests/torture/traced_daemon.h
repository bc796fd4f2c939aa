// The daemon under a tracer that sees each system call that could fail or change the device, before it runs.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>

// What a call can meet; a set of these.
enum call_meets : unsigned {
    MEETS_CUT = 1,  // it changes what a power cut leaves
    MEETS_ENOSPC = 2,
    MEETS_EIO = 4,
    MEETS_EMFILE = 8,
    MEETS_ENOMEM = 16
};

struct stopped_call {
    const char* name;
    std::string path;  // of the file that it works on, where it is known
    unsigned meets;
    bool by_daemon;  // not by a command that it runs
    bool by_worker;  // by another than the first thread of its process
    bool is_sync;    // of the file at `fd`; of everything when that is -1
    pid_t thread;    // that makes it
    int fd;          // this process's own descriptor of the file, for as long as it looks at the call; or -1
};

// What becomes of a call: it runs, or everything ends before it; any other value is the errno that it fails
// with. A thread that is held goes on when another is held in its place, when it is the last but one, when
// the first one waits for it, or when the client has ended.
enum call_fate { RUNS = 0, CUT = -1, HELD = -2 };
using call_watch = std::function<int(const stopped_call&)>;

// STOPPED: the client was done, and the daemon ended when it was asked to. GAVE_UP: it ended by itself with
// an exit status, as a start that fails does.
enum class traced_end { STOPPED, GAVE_UP, CRASHED, HUNG, CUT };

// The place in the program that has led to a call, for as long as it is looked at: where the function that
// makes it returns to, and where that one does. A build without optimisation has them.
struct call_site {
    uint32_t caller, callers_caller;
    auto operator<=>(const call_site&) const = default;
};
[[nodiscard]] call_site site_of(const stopped_call& call);

// The tracer does not know what a call does that daemon or command makes: it may change what a cut leaves.
struct unseen_call : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The exit status of a client after which the daemon is to end at once, whatever is held in it.
inline constexpr int END_AT_ONCE = 9;

// Starts the daemon at `program` and `client` in a process of its own, waits until the client has ended, and
// ends the daemon. The daemon's waits take no time. Call it from process 1 of the sandbox; every other
// process in there is gone when it returns.
traced_end run_traced(const std::string& program, const std::function<void()>& client,
                      const call_watch& look);
