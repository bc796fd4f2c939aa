#include "torture/traced_daemon.h"

#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <fstream>
#include <iterator>
#include <map>
#include <vector>

#include "tools/play/device.h"

namespace {

constexpr suseconds_t TICK_USECS = 20000;
constexpr int TIME_LIMIT_TICKS = 20 * 1000000 / TICK_USECS;

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
    {SYS_writev, "writev", AT_FD, 0, MEETS_CUT | MEETS_EIO | MEETS_ENOSPC},
    {SYS_ftruncate, "ftruncate", AT_FD, 0, ADDS},
    {SYS_fsync, "fsync", AT_FD, 0, MEETS_CUT | MEETS_EIO},
    {SYS_sync, "sync", NO_FILE, 0, MEETS_CUT},
    {SYS_rename, "rename", AT_PATH, 0, ADDS},
    {SYS_renameat, "renameat", AT_FOLDER, 2, ADDS},
    {SYS_renameat2, "renameat2", AT_FOLDER, 2, ADDS},
    {SYS_linkat, "linkat", AT_FOLDER, 2, ADDS},
    {SYS_unlink, "unlink", AT_PATH, 0, CHANGES},
    {SYS_unlinkat, "unlinkat", AT_FOLDER, 0, CHANGES},
    {SYS_rmdir, "rmdir", AT_PATH, 0, CHANGES},
    {SYS_mkdir, "mkdir", AT_PATH, 0, ADDS},
    {SYS_chmod, "chmod", AT_PATH, 0, MEETS_CUT | MEETS_EIO},
    {SYS_fchmod, "fchmod", AT_FD, 0, MEETS_CUT | MEETS_EIO},
    {SYS_fchown, "fchown", AT_FD, 0, MEETS_CUT | MEETS_EIO},
    {SYS_utimensat, "utimensat", AT_FOLDER, 0, MEETS_CUT | MEETS_EIO},
    {SYS_read, "read", AT_FD, 0, MEETS_EIO},
    {SYS_getdents64, "getdents64", AT_FD, 0, MEETS_EIO | MEETS_ENOMEM},
    {SYS_newfstatat, "newfstatat", AT_FOLDER, 0, MEETS_EIO},
    {SYS_mmap, "mmap", NO_FILE, 0, MEETS_ENOMEM},
    {SYS_pipe2, "pipe2", NO_FILE, 0, MEETS_EMFILE},
    {SYS_mq_open, "mq_open", NO_FILE, 0, MEETS_CUT},
    {SYS_mq_unlink, "mq_unlink", NO_FILE, 0, MEETS_CUT},
    {SYS_mq_timedsend, "mq_timedsend", NO_FILE, 0, MEETS_CUT},
    {SYS_clone, "clone", NO_FILE, 0, MEETS_ENOMEM},
    {SYS_clone3, "clone3", NO_FILE, 0, MEETS_ENOMEM},
    {SYS_clock_nanosleep, "clock_nanosleep", NO_FILE, 0, 0},
};

// Calls that change no file, and nothing that outlives the process that makes them. Any that is in neither
// list is a fault of these lists.
// clang-format off
constexpr long HARMLESS[] = {
    SYS_access, SYS_alarm, SYS_arch_prctl, SYS_brk, SYS_chdir, SYS_clock_getres, SYS_clock_gettime, SYS_close,
    SYS_close_range, SYS_connect, SYS_dup, SYS_dup2, SYS_dup3, SYS_epoll_create1, SYS_epoll_ctl, SYS_epoll_wait,
    SYS_execve, SYS_exit, SYS_exit_group, SYS_faccessat, SYS_faccessat2, SYS_fadvise64, SYS_fchdir, SYS_fcntl,
    SYS_fgetxattr, SYS_flock, SYS_fstat, SYS_fstatfs, SYS_futex, SYS_getcwd, SYS_getegid, SYS_geteuid, SYS_getgid,
    SYS_getpgid, SYS_getpgrp, SYS_getpid, SYS_getppid, SYS_getrandom, SYS_getrlimit, SYS_getrusage,
    SYS_getsockname, SYS_gettid, SYS_gettimeofday, SYS_getuid, SYS_getxattr, SYS_ioctl, SYS_kill, SYS_lseek,
    SYS_lstat, SYS_madvise, SYS_mprotect, SYS_mq_getsetattr, SYS_mq_timedreceive, SYS_mremap, SYS_munmap,
    SYS_nanosleep, SYS_pause, SYS_poll, SYS_ppoll, SYS_prctl, SYS_pread64, SYS_prlimit64,
    SYS_pselect6, SYS_readlink, SYS_readlinkat, SYS_readv, SYS_recvfrom, SYS_recvmsg, SYS_rseq, SYS_rt_sigaction,
    SYS_rt_sigprocmask, SYS_rt_sigreturn, SYS_rt_sigsuspend, SYS_rt_sigtimedwait, SYS_sched_getaffinity,
    SYS_sched_yield, SYS_select, SYS_sendmsg, SYS_sendto, SYS_set_robust_list, SYS_set_tid_address,
    SYS_setpgid, SYS_setsid, SYS_setsockopt, SYS_shutdown, SYS_sigaltstack, SYS_socket, SYS_stat, SYS_statfs,
    SYS_statx, SYS_sysinfo, SYS_tgkill, SYS_umask, SYS_uname, SYS_vfork, SYS_wait4, SYS_waitid};
// clang-format on

constexpr uint64_t NEW_NAMESPACES =
    CLONE_NEWNS | CLONE_NEWCGROUP | CLONE_NEWUTS | CLONE_NEWIPC | CLONE_NEWUSER | CLONE_NEWPID | CLONE_NEWNET;

void only_trace_what_matters() {
    std::vector<sock_filter> program = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr))};
    for (const long number : HARMLESS) {
        program.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<uint32_t>(number), 0, 1));
        program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    }
    program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRACE));
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
    pid_t held = -1;
    bool has_held = false;
    pid_t launcher = -1;
    pid_t daemon = -1;
    int daemon_status = -1;
};

volatile sig_atomic_t ticks;

// Interrupts every wait of this process, now and then.
struct ticking {
    ticking() {
        ticks = 0;
        struct sigaction action = {};
        action.sa_handler = [](int) { ticks = ticks + 1; };
        sigaction(SIGALRM, &action, nullptr);
        set(TICK_USECS);
    }
    ~ticking() { set(0); }
    static void set(suseconds_t interval) {
        const itimerval timer = {{0, interval}, {0, interval}};
        setitimer(ITIMER_REAL, &timer, nullptr);
    }
};

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

// What makes a call that the tables do not tell the whole of.
void refuse_unseen(const call_row* row, pid_t id, const __ptrace_syscall_info& info) {
    const auto& arguments = info.seccomp.args;
    uint64_t flags = row->number == SYS_clone ? arguments[0] : 0;
    iovec to = {&flags, sizeof flags};
    iovec from = {reinterpret_cast<void*>(arguments[0]), sizeof flags};
    if (row->number == SYS_clone3 && process_vm_readv(id, &to, 1, &from, 1, 0) < 0) flags = ~0ull;
    const bool shares = row->number == SYS_mmap && (arguments[2] & PROT_WRITE) != 0 &&
                        (arguments[3] & MAP_SHARED) != 0 && (arguments[3] & MAP_ANONYMOUS) == 0;
    if ((flags & NEW_NAMESPACES) != 0 || shares)
        throw unseen_call(std::string("the tracer does not know such a ") + row->name);
}

// What becomes of the call.
int judge_call(const tracer& t, pid_t id, const call_watch& look) {
    __ptrace_syscall_info info = {};
    ptrace(PTRACE_GET_SYSCALL_INFO, id, sizeof info, &info);
    const auto* const row = std::ranges::find(CALLS, static_cast<long>(info.seccomp.nr), &call_row::number);
    if (row == std::end(CALLS) || info.arch != AUDIT_ARCH_X86_64)
        throw unseen_call("the tracer does not know call number " + std::to_string(info.seccomp.nr));
    const thread& self = t.threads.at(id);
    if (row->number == SYS_clock_nanosleep) {
        if (!self.is_command) skip_call(id, 0);
        return RUNS;
    }
    if (t.daemon < 0) return RUNS;  // the start of any program
    refuse_unseen(row, id, info);
    const auto& arguments = info.seccomp.args;
    stopped_call call = {row->name, "", row->meets, !self.is_command, self.process != id, false, id, -1};
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
        if ((flags & O_ACCMODE) == O_RDONLY && (flags & O_TRUNC) == 0) call.meets &= ~MEETS_CUT;
    }
    call.is_sync = row->number == SYS_fsync || row->number == SYS_sync;
    const int fate = look(call);
    if (call.fd >= 0) close(call.fd);
    if (fate > 0) skip_call(id, fate);
    return fate;
}

long threads_of_daemon(const tracer& t) {
    return std::ranges::count_if(t.threads, [&t](const auto& entry) {
        return entry.second.process == t.daemon && !entry.second.is_command;
    });
}

void let_held_go_on(tracer& t) {
    if (t.held > 0) ptrace(PTRACE_CONT, t.held, 0, 0);
    t.held = -1;
}

// All other threads of the daemon, or its first one, wait for a lock.
bool waits_for_held(const tracer& t) {
    size_t waiting = 0;
    for (const auto& [id, thread] : t.threads) {
        std::string call;
        if (thread.process != t.daemon || thread.is_command || id == t.held) continue;
        std::ifstream("/proc/" + std::to_string(id) + "/syscall") >> call;
        if (call != std::to_string(SYS_futex)) continue;
        if (id == t.daemon) return true;
        ++waiting;
    }
    return waiting + 1 == static_cast<size_t>(threads_of_daemon(t));
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
        case PTRACE_EVENT_SECCOMP: {
            const int fate = judge_call(t, id, look);
            if (fate == CUT) return false;
            if (fate != HELD || threads_of_daemon(t) == 1) break;
            let_held_go_on(t);
            t.held = id;
            t.has_held = true;
            return true;
        }
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
        only_trace_what_matters();
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

call_site site_of(const stopped_call& call) {
    user_regs_struct registers = {};
    ptrace(PTRACE_GETREGS, call.thread, 0, &registers);
    uint64_t begin = 0;
    std::ifstream("/proc/" + std::to_string(call.thread) + "/maps") >> std::hex >> begin;
    struct {
        uint64_t next, returns_to;
    } frames[2] = {};
    uint64_t at = registers.rbp;
    for (auto& frame : frames) {
        iovec to = {&frame, sizeof frame};
        iovec from = {reinterpret_cast<void*>(at), sizeof frame};
        process_vm_readv(call.thread, &to, 1, &from, 1, 0);
        at = frame.next;
    }
    // Within the call, not behind it.
    return {static_cast<uint32_t>(frames[0].returns_to - 1 - begin),
            static_cast<uint32_t>(frames[1].returns_to - 1 - begin)};
}

traced_end run_traced(const std::string& program, const std::function<void()>& client,
                      const call_watch& look) {
    tracer t;
    t.launcher = start_traced(program);
    t.threads[t.launcher] = {t.launcher, false, true};
    const pid_t client_process = fork();
    if (client_process == 0) {
        client();
        _exit(0);
    }
    const ticking clock;
    traced_end end = traced_end::STOPPED;
    bool client_done = false, at_once = false, asked_to_end = false;
    while (!t.threads.empty() || !client_done) {
        int status = 0;
        const pid_t id = waitpid(-1, &status, __WALL);
        if (ticks >= TIME_LIMIT_TICKS) {
            end = traced_end::HUNG;
            break;
        }
        if (id < 0 && t.held > 0 && waits_for_held(t)) let_held_go_on(t);
        if (id < 0) continue;
        if (WIFSTOPPED(status)) {
            if (handle_stop(t, id, status, look)) continue;
            end = traced_end::CUT;
            break;
        }
        if (id == t.daemon) t.daemon_status = status;
        if (id == t.held) t.held = -1;
        if (t.threads.erase(id) != 0 && threads_of_daemon(t) == 1) let_held_go_on(t);
        if (id == client_process) {
            client_done = true;
            at_once = WEXITSTATUS(status) == END_AT_ONCE;
            if (!at_once) let_held_go_on(t);
        } else if (!client_done && (id == t.daemon || (id == t.launcher && t.daemon < 0))) {
            kill(client_process, SIGKILL);  // nobody will answer it
            end = traced_end::GAVE_UP;
        }
        // What was held is to come to its end first.
        if (!client_done || asked_to_end || t.daemon < 0 || t.daemon_status >= 0) continue;
        if (t.has_held && !at_once && threads_of_daemon(t) > 1) continue;
        asked_to_end = kill(t.daemon, SIGTERM) == 0;
    }
    device_cut_power();
    if (end == traced_end::CUT || end == traced_end::HUNG) return end;
    if (t.daemon < 0) return traced_end::GAVE_UP;
    return WIFSIGNALED(t.daemon_status) ? traced_end::CRASHED : end;
}
