#include "tools/play/sandbox.h"

#include <fcntl.h>
#include <mntent.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>

namespace {

namespace fs = std::filesystem;

constexpr const char* COVERED[] = {"/opt", "/run", "/tmp", "/var/log", "/dev"};
constexpr char HINT[] =
    "; allow user namespaces (sysctl kernel.unprivileged_userns_clone=1 or "
    "kernel.apparmor_restrict_unprivileged_userns=0), or run as root, in a container with --privileged";

struct kept_folder {
    std::string path;  // inside
    bool writable;
    int fd;
};

bool is_entered = false;

// Of a process outside: its child.
volatile sig_atomic_t child_to_signal = 0;

[[noreturn]] void give_up(const std::string& why) {
    std::fprintf(stderr, "sandbox: %s\n", why.c_str());
    _exit(SANDBOX_UNAVAILABLE);
}

// `hint` follows the text of errno.
void need(bool done, const std::string& step, const char* hint = "") {
    if (!done) give_up(step + ": " + std::strerror(errno) + hint);
}

bool lies_in(const std::string& path, const std::string& folder) {
    return path == folder || path.starts_with(folder + "/");
}

// Whatever else a mount forbids stays forbidden.
bool remount(const char* path, bool read_only) {
    constexpr unsigned long KEPT = MS_NOSUID | MS_NODEV | MS_NOEXEC;
    struct statvfs info {};
    return statvfs(path, &info) == 0 &&
           mount(nullptr, path, nullptr,
                 MS_REMOUNT | MS_BIND | (info.f_flag & KEPT) | (read_only ? MS_RDONLY : 0), nullptr) == 0;
}

// False when it failed for any.
bool remount_each(const std::string& top, bool read_only) {
    FILE* const table = setmntent("/proc/self/mounts", "re");
    if (table == nullptr) return false;
    bool done = true;
    while (const mntent* const entry = getmntent(table)) {
        if (top != "/" && !lies_in(entry->mnt_dir, top)) continue;
        done = remount(entry->mnt_dir, read_only) && done;
    }
    endmntent(table);
    return done;
}

// mount_setattr(2), younger than some C libraries, kernels and emulators. The number is the same on every
// architecture.
bool change_mount(const char* path, bool recursive, bool read_only) {
    constexpr long SYS_MOUNT_SETATTR = 442;
    constexpr unsigned AT_RECURSIVE_FLAG = 0x8000;
    constexpr uint64_t ATTR_RDONLY = 1;
    struct {
        uint64_t set, clear, propagation, user_namespace;
    } attributes = {read_only ? ATTR_RDONLY : 0, read_only ? 0 : ATTR_RDONLY, 0, 0};
    return syscall(SYS_MOUNT_SETATTR, AT_FDCWD, path, recursive ? AT_RECURSIVE_FLAG : 0u, &attributes,
                   sizeof attributes) == 0 ||
           (recursive ? remount_each(path, read_only) : remount(path, read_only));
}

bool bind_mount(const std::string& from, const std::string& to) {
    return mount(from.c_str(), to.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0;
}

std::string path_of(int fd) {
    return "/proc/self/fd/" + std::to_string(fd);
}

bool write_text(const char* path, const std::string& text) {
    const int fd = open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0) return false;
    const bool done = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    const int saved_errno = errno;
    close(fd);
    errno = saved_errno;
    return done;
}

void handle_stop_signals(void (*handler)(int)) {
    struct sigaction action = {};
    action.sa_handler = handler;
    for (const int signal_number : {SIGINT, SIGTERM}) sigaction(signal_number, &action, nullptr);
}

void pass_signal_on(int signal_number) {
    kill(child_to_signal, signal_number);
}

// The kernel hands process 1 only those signals that it has a handler for.
void end_on_signal(int signal_number) {
    _exit(128 + signal_number);
}

[[noreturn]] void stand_by(pid_t child, const sigset_t& mask) {
    const bool has_terminal = tcgetpgrp(STDIN_FILENO) == getpgrp();
    child_to_signal = child;
    handle_stop_signals(pass_signal_on);
    sigprocmask(SIG_SETMASK, &mask, nullptr);
    int status = 0;
    while (waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) _exit(SANDBOX_UNAVAILABLE);
    }
    if (has_terminal) {
        // An interactive shell inside had it, and is gone.
        signal(SIGTTOU, SIG_IGN);
        tcsetpgrp(STDIN_FILENO, getpgrp());
    }
    _exit(WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status));
}

// Root can do without a user namespace of its own.
void leave_namespaces() {
    constexpr int NAMESPACES = CLONE_NEWNS | CLONE_NEWIPC | CLONE_NEWPID;
    const uid_t user = geteuid();
    const gid_t group = getegid();
    if (unshare(CLONE_NEWUSER | NAMESPACES) == 0) {
        need(write_text("/proc/self/setgroups", "deny") || errno == ENOENT, "cannot close the group list",
             HINT);
        need(write_text("/proc/self/uid_map", "0 " + std::to_string(user) + " 1"), "cannot map the user",
             HINT);
        need(write_text("/proc/self/gid_map", "0 " + std::to_string(group) + " 1"), "cannot map the group",
             HINT);
        return;
    }
    need(user == 0 && unshare(NAMESPACES) == 0, "this machine refuses new namespaces", HINT);
}

bool is_covered(const std::string& path) {
    return std::ranges::any_of(COVERED, [&](const char* folder) { return lies_in(path, folder); });
}

// The first of the covered folders that a folder holds or is; null when it holds none.
const char* covered_inside(const std::string& path) {
    const auto* const found = std::ranges::find_if(
        COVERED, [&](const char* folder) { return path == "/" || lies_in(folder, path); });
    return found != std::end(COVERED) ? *found : nullptr;
}

// The descriptors lead to the folders after something else has been mounted over them.
std::vector<kept_folder> open_kept_folders(const sandbox_options& options) {
    std::vector<kept_folder> kept;
    const auto add_at = [&](const std::string& folder, const std::string& place, bool writable) {
        const int fd = open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
        need(fd >= 0, "cannot keep " + folder);
        kept.push_back({place, writable, fd});
    };
    const auto add = [&](const std::string& folder, bool writable) {
        char path[PATH_MAX];
        need(realpath(folder.c_str(), path) != nullptr, "cannot keep " + folder);
        if (!writable && !is_covered(path)) return;
        if (const char* const covered = covered_inside(path); covered != nullptr) {
            give_up(std::string("cannot keep ") + path + ", it would bring the host's " + covered +
                    " back; use a folder below it");
        }
        add_at(path, path, writable);
    };
    for (const std::string& folder : options.keep) add(folder, false);
    for (const std::string& folder : options.keep_writable) add(folder, true);
    for (const sandbox_place& place : options.places) add_at(place.folder, place.place, true);
    std::error_code no_folder;
    const fs::path working_folder = fs::current_path(no_folder);
    if (options.keep_working_folder && !no_folder && covered_inside(working_folder) == nullptr) {
        add(working_folder, false);
    }
    // A folder comes back before those inside it, and a writable one on top of the same one read-only.
    std::ranges::stable_sort(kept, {}, [](const kept_folder& folder) { return folder.path.size(); });
    return kept;
}

void bring_back(const std::vector<kept_folder>& kept) {
    for (const kept_folder& folder : kept) {
        std::error_code ignored;
        fs::create_directories(folder.path, ignored);
        need(bind_mount(path_of(folder.fd), folder.path), "cannot bring " + folder.path + " back");
        need(change_mount(folder.path.c_str(), true, !folder.writable),
             "cannot make " + folder.path + (folder.writable ? " writable" : " read-only"));
        close(folder.fd);
    }
}

void cover(const char* folder, const char* mode) {
    need(mount("tmpfs", folder, "tmpfs", MS_NOSUID | MS_NODEV, mode) == 0,
         std::string("cannot cover ") + folder, HINT);
}

void make_dev() {
    std::vector<kept_folder> nodes;
    for (const char* node :
         {"/dev/null", "/dev/zero", "/dev/full", "/dev/random", "/dev/urandom", "/dev/tty"}) {
        const int fd = open(node, O_PATH | O_CLOEXEC);
        if (fd >= 0) nodes.push_back({node, true, fd});
    }
    // By its usual name this terminal is another one inside; a program that asks finds it by its inode.
    const char* const terminal = ttyname(STDIN_FILENO);
    const int terminal_fd = terminal != nullptr ? open(terminal, O_PATH | O_CLOEXEC) : -1;
    if (terminal_fd >= 0) nodes.push_back({"/dev/console", true, terminal_fd});
    cover("/dev", "mode=0755");
    for (const kept_folder& node : nodes) {
        std::ofstream(node.path).flush();
        need(bind_mount(path_of(node.fd), node.path), "cannot make " + node.path);
        close(node.fd);
    }
    bool done = symlink("/proc/self/fd", "/dev/fd") == 0 && symlink("/proc/self/fd/0", "/dev/stdin") == 0 &&
                symlink("/proc/self/fd/1", "/dev/stdout") == 0 &&
                symlink("/proc/self/fd/2", "/dev/stderr") == 0;
    for (const char* folder : {"/dev/shm", "/dev/mqueue"}) {
        done = done && mkdir(folder, 0777) == 0 && chmod(folder, 01777) == 0;
    }
    // Where it is refused, only programs that make terminals of their own miss it.
    if (mkdir("/dev/pts", 0755) == 0 && mount("devpts", "/dev/pts", "devpts", MS_NOSUID | MS_NOEXEC,
                                              "newinstance,ptmxmode=0666,mode=0620") == 0) {
        done = done && symlink("pts/ptmx", "/dev/ptmx") == 0;
    }
    need(done, "cannot fill /dev");
    need(mount("mqueue", "/dev/mqueue", "mqueue", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) == 0,
         "cannot make message queues visible", HINT);
}

// What is in there to write to acts on the whole machine, and root keeps its right to write it in every
// namespace.
void make_proc() {
    constexpr unsigned long FLAGS = MS_NOSUID | MS_NODEV | MS_NOEXEC;
    if (mount("proc", "/proc", "proc", FLAGS, nullptr) != 0) {
        // Refused inside a container or another sandbox that hides parts of its own. That one goes on
        // serving; only the process numbers in it are those outside. It stays writable for a sandbox within
        // this one.
        change_mount("/proc", false, false);
    }
    for (const char* path : {"/proc/sys", "/proc/sysrq-trigger", "/proc/irq", "/proc/bus"}) {
        if (access(path, F_OK) != 0) continue;
        need(bind_mount(path, path), std::string("cannot protect ") + path);
        need(change_mount(path, true, true), std::string("cannot protect ") + path);
    }
}

void make_recording_commands() {
    const std::string folder = std::string(SANDBOX_FOLDER) + "/bin";
    fs::create_directories(folder);
    fs::create_directories(fs::path(SANDBOX_COMMAND_LOG).parent_path());
    for (const char* name : {"telinit", "reboot", "shutdown", "halt", "poweroff", "init"}) {
        const std::string command = folder + "/" + name;
        std::ofstream script(command);
        script << "#!/bin/sh\necho \"" << name << "${*:+ $*}\" >>" << SANDBOX_COMMAND_LOG << "\n";
        script.close();
        need(script && chmod(command.c_str(), 0755) == 0, "cannot make " + command);
    }
}

void use_recording_commands() {
    const std::string folder = std::string(SANDBOX_FOLDER) + "/bin";
    const char* path = std::getenv("PATH");
    setenv("PATH", (folder + ":" + (path != nullptr ? path : "/usr/sbin:/usr/bin:/sbin:/bin")).c_str(), 1);
    setenv("LANG", "C", 1);
    setenv("LC_ALL", "C", 1);
}

void furnish(const sandbox_options& options) {
    std::error_code no_folder;
    const fs::path working_folder = fs::current_path(no_folder);
    need(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "cannot detach the mounts", HINT);
    if (!change_mount("/", true, true)) {
        std::fprintf(stderr, "sandbox: cannot make the host's files read-only: %s; going on\n",
                     std::strerror(errno));
    }
    const std::vector<kept_folder> kept = open_kept_folders(options);
    make_dev();
    for (const char* folder : {"/opt", "/run", "/var/log"}) cover(folder, "mode=0755");
    cover("/tmp", "mode=1777");
    bring_back(kept);
    make_proc();
    make_recording_commands();
    use_recording_commands();
    if (chdir(working_folder.c_str()) != 0) need(chdir("/") == 0, "cannot enter /");
}

// Goes on in a child, which is in the namespaces that `change` puts its parent into.
void start_inside(const std::function<void()>& change) {
    // Two processes stay outside. The first may have threads already (sanitizers start some), and only a
    // process with a single one can leave its user namespace; the second has left it, but only its child is
    // inside the new process tree.
    std::fflush(nullptr);
    sigset_t stop_signals, mask;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGINT);
    sigaddset(&stop_signals, SIGTERM);
    sigprocmask(SIG_BLOCK, &stop_signals, &mask);

    const pid_t caller = getpid();
    const pid_t outer = fork();
    need(outer >= 0, "cannot start a process");
    if (outer > 0) stand_by(outer, mask);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != caller) _exit(SANDBOX_UNAVAILABLE);

    change();
    const pid_t inner = fork();
    need(inner >= 0, "cannot start the first process inside", HINT);
    if (inner > 0) stand_by(inner, mask);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    handle_stop_signals(end_on_signal);
    sigprocmask(SIG_SETMASK, &mask, nullptr);
    is_entered = true;
}

void enter_namespaces_of(pid_t process) {
    std::vector<int> spaces;
    for (const char* name : {"user", "ipc", "pid", "mnt"}) {
        const std::string space = std::string("/ns/") + name;
        const std::string path = "/proc/" + std::to_string(process) + space;
        struct stat here {
        }, there{};
        const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        need(fd >= 0 && fstat(fd, &there) == 0 && stat(("/proc/self" + space).c_str(), &here) == 0,
             "cannot find the sandbox of process " + std::to_string(process));
        // To enter the own one again is an error; root's sandbox may have kept the users of the machine.
        if (here.st_ino != there.st_ino) spaces.push_back(fd);
    }
    // Files are found by a root and a folder of this thread's own, or another mount namespace may not be
    // entered: sanitizers have a thread that shares them.
    need(unshare(CLONE_FS) == 0, "cannot have a folder of its own");
    // All are open by now: the last one changes what /proc shows.
    for (const int fd : spaces) {
        need(setns(fd, 0) == 0, "cannot enter the sandbox of process " + std::to_string(process));
        close(fd);
    }
}

}  // namespace

void sandbox_enter(const sandbox_options& options) {
    start_inside(leave_namespaces);
    try {
        furnish(options);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "sandbox: %s\n", error.what());
        _exit(SANDBOX_UNAVAILABLE);
    }
}

void sandbox_join(pid_t process) {
    std::error_code no_folder;
    const fs::path working_folder = fs::current_path(no_folder);
    start_inside([process] { enter_namespaces_of(process); });
    use_recording_commands();
    if (chdir(working_folder.c_str()) != 0) need(chdir("/") == 0, "cannot enter /");
}

bool sandbox_is_entered() {
    return is_entered;
}

std::string sandbox_program_folder() {
    char path[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof path);
    return length > 0 ? fs::path(std::string(path, static_cast<size_t>(length))).parent_path().string() : "";
}
