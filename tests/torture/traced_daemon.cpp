#include "torture/traced_daemon.h"

#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstddef>
#include <map>
#include <vector>

#include "tools/play/device.h"

namespace {

constexpr unsigned TIME_LIMIT_SECS = 20;

// Where a call has its file: at a descriptor, at a path, at a path below a descriptor.
enum file_argument { NO_FILE, AT_FD, AT_PATH, AT_FOLDER };

struct call_row {
    long number;
    const char* name;
    file_argument file;
    int argument;  // the first of that
    unsigned meets;
    int flags_argument = -1;  // of a call that opens
};

constexpr unsigned CHANGES = MEETS_CUT | MEETS_EIO | MEETS_ENOMEM;
constexpr unsigned ADDS = CHANGES | MEETS_ENOSPC;
constexpr call_row CALLS[] = {
    {SYS_openat, "openat", AT_FOLDER, 0, ADDS | MEETS_EMFILE, 2},
    {SYS_write, "write", AT_FD, 0, MEETS_CUT | MEETS_EIO | MEETS_ENOSPC},
    {SYS_ftruncate, "ftruncate", AT_FD, 0, ADDS},
    {SYS_fsync, "fsync", AT_FD, 0, MEETS_CUT | MEETS_EIO},
    {SYS_sync, "sync", NO_FILE, 0, MEETS_CUT},
    {SYS_rename, "rename", AT_PATH, 0, ADDS},
    {SYS_renameat2, "renameat2", AT_FOLDER, 0, ADDS},
    {SYS_linkat, "linkat", AT_FOLDER, 2, ADDS},
    {SYS_unlink, "unlink", AT_PATH, 0, CHANGES},
    {SYS_unlinkat, "unlinkat", AT_FOLDER, 0, CHANGES},
    {SYS_rmdir, "rmdir", AT_PATH, 0, CHANGES},
    {SYS_mkdir, "mkdir", AT_PATH, 0, ADDS},
    {SYS_chmod, "chmod", AT_PATH, 0, MEETS_CUT | MEETS_EIO},
    {SYS_read, "read", AT_FD, 0, MEETS_EIO},
    {SYS_getdents64, "getdents64", AT_FD, 0, MEETS_EIO | MEETS_ENOMEM},
    {SYS_newfstatat, "newfstatat", AT_FOLDER, 0, MEETS_EIO},
    {SYS_mmap, "mmap", NO_FILE, 0, MEETS_ENOMEM},
    {SYS_pipe2, "pipe2", NO_FILE, 0, MEETS_EMFILE},
    {SYS_clone, "clone", NO_FILE, 0, MEETS_ENOMEM},
    {SYS_clone3, "clone3", NO_FILE, 0, MEETS_ENOMEM},
    {SYS_clock_nanosleep, "clock_nanosleep", NO_FILE, 0, 0},
};

void only_trace_these_calls() {
    std::vector<sock_filter> program = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr))};
    for (const call_row& row : CALLS) {
        program.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<uint32_t>(row.number), 0, 1));
        program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRACE));
    }
    program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    sock_fprog filter = {static_cast<unsigned short>(program.size()), program.data()};
    prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
    prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter);
}

struct thread {
    pid_t process;    // 0: it has stopped at its beginning, before the news of it from its parent
    bool is_command;  // has left the daemon's program
    bool started;
};

struct tracer {
    std::map<pid_t, thread> threads;
    pid_t launcher = -1;
    pid_t daemon = -1;
    int daemon_status = -1;
};

volatile sig_atomic_t time_is_over;

// This process's own descriptor of what another one has open.
int fetch_fd(pid_t process, int fd) {
    const int process_fd = static_cast<int>(syscall(SYS_pidfd_open, process, 0));
    if (process_fd < 0) return -1;
    const int own = static_cast<int>(syscall(SYS_pidfd_getfd, process_fd, fd, 0));
    close(process_fd);
    return own;
}

std::string fd_path(int own_fd) {
    char text[4096];
    const ssize_t length = readlink(("/proc/self/fd/" + std::to_string(own_fd)).c_str(), text, sizeof text);
    return length > 0 ? std::string(text, static_cast<size_t>(length)) : "";
}

std::string read_text(pid_t process, uint64_t address) {
    std::string text(4096, '\0');
    iovec to = {text.data(), text.size()};
    iovec from = {reinterpret_cast<void*>(address), text.size()};
    if (process_vm_readv(process, &to, 1, &from, 1, 0) < 0) {
        from.iov_len = to.iov_len = 4096 - address % 4096;  // the next page is not there
        if (process_vm_readv(process, &to, 1, &from, 1, 0) < 0) return "";
    }
    return text.c_str();
}

// errno, or 0 for success, without running the call.
void skip_call(pid_t id, int error) {
    user_regs_struct registers = {};
    ptrace(PTRACE_GETREGS, id, 0, &registers);
    registers.orig_rax = ~0ull;
    registers.rax = static_cast<unsigned long long>(-static_cast<long long>(error));
    ptrace(PTRACE_SETREGS, id, 0, &registers);
}

// False: the power goes.
bool handle_call(const tracer& t, pid_t id, const call_watch& look) {
    __ptrace_syscall_info info = {};
    ptrace(PTRACE_GET_SYSCALL_INFO, id, sizeof info, &info);
    const call_row* row = CALLS;
    while (row->number != static_cast<long>(info.seccomp.nr)) ++row;
    const thread& self = t.threads.at(id);
    if (row->number == SYS_clock_nanosleep) {
        if (!self.is_command) skip_call(id, 0);
        return true;
    }
    if (t.daemon < 0) return true;  // the start of any program
    const uint64_t* arguments = info.seccomp.args;
    stopped_call call = {row->name, "", row->meets, !self.is_command, false, -1};
    if (row->file == AT_FD) {
        call.fd = fetch_fd(self.process, static_cast<int>(arguments[row->argument]));
        call.path = fd_path(call.fd);
    } else if (row->file == AT_PATH) {
        call.path = read_text(id, arguments[row->argument]);
    } else if (row->file == AT_FOLDER) {
        call.path = read_text(id, arguments[row->argument + 1]);
        if (!call.path.starts_with('/') && static_cast<int>(arguments[row->argument]) != AT_FDCWD) {
            const int folder = fetch_fd(self.process, static_cast<int>(arguments[row->argument]));
            call.path = fd_path(folder) + "/" + call.path;
            close(folder);
        }
    }
    if (row->flags_argument >= 0) {
        const auto flags = static_cast<int>(arguments[row->flags_argument]);
        const bool makes = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
        if (!makes) call.meets &= ~MEETS_ENOSPC;
        if ((flags & O_ACCMODE) == O_RDONLY) call.meets &= ~MEETS_CUT;
    }
    call.is_sync = row->number == SYS_fsync || row->number == SYS_sync;
    const int fate = look(call);
    if (call.fd >= 0) close(call.fd);
    if (fate > 0) skip_call(id, fate);
    return fate != CUT;
}

void add_thread(tracer& t, pid_t parent, int event) {
    unsigned long id = 0;
    ptrace(PTRACE_GETEVENTMSG, parent, 0, &id);
    const auto child = static_cast<pid_t>(id);
    const thread& of = t.threads.at(parent);
    const bool waits = t.threads.contains(child);
    t.threads[child] = {event == PTRACE_EVENT_CLONE ? of.process : child, of.is_command, waits};
    if (waits) ptrace(PTRACE_CONT, child, 0, 0);
    if (t.daemon < 0 && event == PTRACE_EVENT_FORK) t.daemon = child;
}

// One stop of a thread. False: the power goes.
bool handle_stop(tracer& t, pid_t id, int status, const call_watch& look) {
    if (!t.threads.contains(id)) {
        t.threads[id] = {};
        return true;
    }
    int signal_number = 0;
    const int event = status >> 16;
    thread& self = t.threads[id];
    switch (event) {
        case PTRACE_EVENT_SECCOMP:
            if (!handle_call(t, id, look)) return false;
            break;
        case PTRACE_EVENT_FORK:
        case PTRACE_EVENT_VFORK:
        case PTRACE_EVENT_CLONE:
            add_thread(t, id, event);
            break;
        case PTRACE_EVENT_EXEC:
            self.is_command = id != t.launcher;
            break;
        default:
            signal_number = WSTOPSIG(status);
            if (signal_number == SIGSTOP && !self.started) signal_number = 0;
            self.started = true;
    }
    ptrace(PTRACE_CONT, id, 0, signal_number);
    return true;
}

pid_t start_traced(const std::string& program) {
    const pid_t launcher = fork();
    if (launcher == 0) {
        if (ptrace(PTRACE_TRACEME, 0, 0, 0) != 0) _exit(127);
        raise(SIGSTOP);
        only_trace_these_calls();
        execl(program.c_str(), program.c_str(), nullptr);
        _exit(127);
    }
    int status = 0;
    waitpid(launcher, &status, 0);
    ptrace(PTRACE_SETOPTIONS, launcher, 0,
           PTRACE_O_TRACESECCOMP | PTRACE_O_TRACEFORK | PTRACE_O_TRACEVFORK | PTRACE_O_TRACECLONE |
               PTRACE_O_TRACEEXEC | PTRACE_O_EXITKILL);
    ptrace(PTRACE_CONT, launcher, 0, 0);
    return launcher;
}

}  // namespace

traced_end run_traced(const std::string& program, const std::function<void()>& client,
                      const call_watch& look) {
    time_is_over = 0;
    struct sigaction action = {};
    action.sa_handler = [](int) { time_is_over = 1; };
    sigaction(SIGALRM, &action, nullptr);
    alarm(TIME_LIMIT_SECS);

    tracer t;
    t.launcher = start_traced(program);
    t.threads[t.launcher] = {t.launcher, false, true};
    const pid_t client_process = fork();
    if (client_process == 0) {
        client();
        _exit(0);
    }
    traced_end end = traced_end::STOPPED;
    bool client_done = false;
    while (!t.threads.empty() || !client_done) {
        int status = 0;
        const pid_t id = waitpid(-1, &status, __WALL);
        if (id < 0 && time_is_over != 0) {
            end = traced_end::HUNG;
            break;
        }
        if (id < 0) continue;
        if (WIFSTOPPED(status)) {
            if (handle_stop(t, id, status, look)) continue;
            end = traced_end::CUT;
            break;
        }
        t.threads.erase(id);
        if (id == t.daemon) t.daemon_status = status;
        if (id == client_process) {
            client_done = true;
            if (t.daemon > 0 && t.daemon_status < 0) kill(t.daemon, SIGTERM);
        } else if (!client_done && (id == t.daemon || (id == t.launcher && t.daemon < 0))) {
            kill(client_process, SIGKILL);  // nobody will answer it
            end = traced_end::GAVE_UP;
        }
    }
    alarm(0);
    device_cut_power();
    if (end == traced_end::CUT || end == traced_end::HUNG) return end;
    if (t.daemon < 0) return traced_end::GAVE_UP;
    return WIFSIGNALED(t.daemon_status) ? traced_end::CRASHED : end;
}
