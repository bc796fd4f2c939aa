// A private machine around this process: nothing that runs inside reaches the machine outside. Works for root
// and for ordinary users.
//
// Inside: a process tree, message queues, shared memory and users of its own; the host's files, read-only;
// fresh empty /opt, /run, /tmp and /var/log; a minimal /dev, with pseudo-terminals of its own; LANG=C; and
// commands that would switch the run level or stop the machine replaced, first in PATH, by ones that only
// append their name and arguments to SANDBOX_COMMAND_LOG.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

// Exit status of a process that could not enter.
inline constexpr int SANDBOX_UNAVAILABLE = 3;

// One line a command: "telinit 5".
inline constexpr char SANDBOX_COMMAND_LOG[] = "/run/vexa/telinit.log";

// The sandbox's own files; a simulated reboot leaves them alone.
inline constexpr char SANDBOX_FOLDER[] = "/run/sim";

// A folder of the host that stands, writable, where another one would be inside.
struct sandbox_place {
    std::string folder;
    std::string place;
};

struct sandbox_options {
    std::vector<std::string> keep;  // folders that stay in sight also below /opt, /run and so on; read-only
    std::vector<std::string> keep_writable;  // folders of the host that may be written to
    std::vector<sandbox_place> places;
    bool keep_working_folder = false;  // as one of `keep`, where that can be
};

// Goes on, as process 1 of a new sandbox, in a child; call it first thing in main(), before threads and
// temporary files. The calling process never returns: it hands SIGINT and SIGTERM on, and ends with the
// child's exit status, or 128 and the number of the signal that ended the child. When the sandbox cannot be
// made, the process says why on stderr and ends with SANDBOX_UNAVAILABLE. Everything inside ends with process
// 1, and process 1 with the caller. A terminal that was the caller's becomes so again.
//
// Process 1 inherits the orphans of the sandbox, daemons among them, and collects their exit status.
void sandbox_enter(const sandbox_options& options);

// Goes on in a child inside the sandbox that `process` is in, which is a number outside; the rest is as with
// sandbox_enter, but that somebody else is process 1. For sandboxes of the same user.
void sandbox_join(pid_t process);

// Whether this process runs in a sandbox that it, or the process it was forked from, entered.
[[nodiscard]] bool sandbox_is_entered();

// The folder that holds the running program, without symbolic links; empty when it cannot be told.
[[nodiscard]] std::string sandbox_program_folder();
