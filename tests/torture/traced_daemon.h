// The daemon under a tracer that sees each system call that could fail or change the device, before it runs.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
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
    bool is_sync;    // of the file at `fd`; of everything when that is -1
    int fd;          // this process's own descriptor of the file, for as long as it looks at the call; or -1
};

// What becomes of a call: it runs, or everything ends before it; any other value is the errno that it fails
// with.
enum call_fate { RUNS = 0, CUT = -1 };
using call_watch = std::function<int(const stopped_call&)>;

// STOPPED: the client was done, and the daemon ended when it was asked to. GAVE_UP: it ended by itself with
// an exit status, as a start that fails does.
enum class traced_end { STOPPED, GAVE_UP, CRASHED, HUNG, CUT };

// Starts the daemon at `program` and `client` in a process of its own, waits until the client has ended, and
// ends the daemon. The daemon's waits take no time. Call it from process 1 of the sandbox; every other
// process in there is gone when it returns.
traced_end run_traced(const std::string& program, const std::function<void()>& client,
                      const call_watch& look);
