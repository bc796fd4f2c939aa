#include "web/confine.h"

#include <fcntl.h>
#include <grp.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <stdexcept>

namespace {

// Which numbers the calls below have; those of another table are not even looked at.
#if defined(__x86_64__)
constexpr uint32_t ARCHITECTURE = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
constexpr uint32_t ARCHITECTURE = AUDIT_ARCH_AARCH64;
#elif defined(__arm__)
constexpr uint32_t ARCHITECTURE = AUDIT_ARCH_ARM;
#elif defined(__i386__)
constexpr uint32_t ARCHITECTURE = AUDIT_ARCH_I386;
#elif defined(__riscv) && __riscv_xlen == 64
constexpr uint32_t ARCHITECTURE = AUDIT_ARCH_RISCV64;
#else
#error "name this processor's AUDIT_ARCH_..."
#endif

// clang-format off
// Nothing here names a file or makes a descriptor but by a connection that comes in. What not every processor has stands
// after the question whether this one does.
constexpr long ALLOWED[] = {
    SYS_read, SYS_write, SYS_readv, SYS_writev, SYS_close, SYS_fstat, SYS_recvfrom, SYS_recvmsg, SYS_sendto, SYS_sendmsg,
    SYS_shutdown, SYS_accept4, SYS_getsockname, SYS_getpeername, SYS_getsockopt, SYS_setsockopt, SYS_ppoll, SYS_pselect6,
    SYS_clock_gettime, SYS_clock_nanosleep, SYS_nanosleep, SYS_gettimeofday, SYS_getrandom, SYS_futex, SYS_brk, SYS_munmap,
    SYS_mremap, SYS_madvise, SYS_rt_sigaction, SYS_rt_sigprocmask, SYS_rt_sigreturn, SYS_restart_syscall, SYS_getpid,
    SYS_gettid, SYS_exit, SYS_exit_group,
#ifdef __SANITIZE_ADDRESS__
    SYS_sigaltstack, // it asks, before a function that does not return
#endif
#ifdef SYS_poll
    SYS_poll,
#endif
#ifdef SYS_select
    SYS_select,
#endif
#ifdef SYS__newselect
    SYS__newselect,
#endif
#ifdef SYS_fcntl
    SYS_fcntl,
#endif
#ifdef SYS_fcntl64
    SYS_fcntl64, SYS_fstat64,
#endif
#ifdef SYS_send
    SYS_send, SYS_recv,
#endif
#ifdef SYS_clock_gettime64
    SYS_clock_gettime64, SYS_clock_nanosleep_time64, SYS_ppoll_time64, SYS_pselect6_time64, SYS_futex_time64,
#endif
};
// clang-format on

// Memory that is never code: allowed without PROT_EXEC alone.
constexpr long MEMORY[] = {
#ifdef SYS_mmap2
    SYS_mmap2,
#endif
#ifdef SYS_mmap
    SYS_mmap,
#endif
    SYS_mprotect};

void need(bool done, const char* what) {
    if (!done) throw std::runtime_error(std::string(what) + ": " + std::strerror(errno));
}

sock_filter statement(unsigned code, uint32_t value) {
    return {static_cast<uint16_t>(code), 0, 0, value};
}

sock_filter when(uint32_t value, unsigned char then, unsigned char otherwise, unsigned comparison = BPF_JEQ) {
    return {static_cast<uint16_t>(BPF_JMP | comparison | BPF_K), then, otherwise, value};
}

sock_filter load(size_t offset) {
    return statement(BPF_LD | BPF_W | BPF_ABS, static_cast<uint32_t>(offset));
}

void filter_calls() {
    const sock_filter allow = statement(BPF_RET | BPF_K, SECCOMP_RET_ALLOW);
    const sock_filter refuse = statement(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM);
    // The low half of the third argument; all of these processors are little-endian.
    constexpr size_t PROTECTION = offsetof(seccomp_data, args) + 2 * sizeof(uint64_t);
    std::vector<sock_filter> rules = {load(offsetof(seccomp_data, arch)), when(ARCHITECTURE, 1, 0),
                                      statement(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS),
                                      load(offsetof(seccomp_data, nr))};
    for (const long call : ALLOWED) {
        rules.push_back(when(static_cast<uint32_t>(call), 0, 1));
        rules.push_back(allow);
    }
    for (const long call : MEMORY) {
        rules.push_back(when(static_cast<uint32_t>(call), 0, 4));
        rules.push_back(load(PROTECTION));
        rules.push_back(when(PROT_EXEC, 0, 1, BPF_JSET));
        rules.push_back(refuse);
        rules.push_back(allow);
    }
    rules.push_back(refuse);
    const sock_fprog program = {static_cast<unsigned short>(rules.size()), rules.data()};
    need(prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0, "cannot filter system calls");
}

void limit(__rlimit_resource what, rlim_t most) {
    const rlimit bound = {most, most};
    need(setrlimit(what, &bound) == 0, "cannot set a limit");
}

}  // namespace

void close_others(const std::vector<int>& kept) {
    const int nothing = open("/dev/null", O_RDWR | O_CLOEXEC);
    need(nothing >= 0 && dup2(nothing, STDIN_FILENO) >= 0 && dup2(nothing, STDOUT_FILENO) >= 0,
         "cannot leave the standard input");
    rlimit open_files = {};
    need(getrlimit(RLIMIT_NOFILE, &open_files) == 0, "cannot tell how many files may be open");
    const int end = static_cast<int>(std::min<rlim_t>(open_files.rlim_cur, 65536));
    for (int fd = STDERR_FILENO + 1; fd < end; ++fd) {
        if (std::ranges::find(kept, fd) == kept.end()) close(fd);
    }
}

void confine(const confinement& how) {
    const pid_t parent = getppid();
    if (geteuid() == 0) {
        need(chroot(how.folder.c_str()) == 0 && chdir("/") == 0, "cannot enter the empty folder");
    }
    if (how.change_user) {
        need(setgroups(0, nullptr) == 0 && setresgid(how.group, how.group, how.group) == 0 &&
                 setresuid(how.user, how.user, how.user) == 0,
             "cannot become another user");
        if (setuid(0) == 0) throw std::runtime_error("root's rights came back");
    }
    limit(RLIMIT_CORE, 0);
    const rlimit no_bytes = {0, RLIM_INFINITY};
    need(setrlimit(RLIMIT_FSIZE, &no_bytes) == 0, "cannot set a limit");
    signal(SIGXFSZ, SIG_IGN);
    signal(SIGPIPE, SIG_IGN);
    // After the change of user, which takes both back.
    need(prctl(PR_SET_DUMPABLE, 0) == 0 && prctl(PR_SET_PDEATHSIG, SIGKILL) == 0, "cannot follow the parent");
    if (getppid() != parent) throw std::runtime_error("the parent has ended");
    need(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0, "cannot give up new privileges");
    filter_calls();
}
