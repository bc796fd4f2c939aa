// What the process that speaks HTTP can do once it is confined: each try works before, and fails afterwards.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <mqueue.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "web/confine.h"

namespace {

constexpr char QUEUE[] = "/fota_mq";
constexpr char STATE_FILE[] = "/opt/qast/data/fota/history.bin";
constexpr char FOLDER[] = "/run/fotaweb";

int upload = -1;

bool open_queue() {
    return mq_open(QUEUE, O_WRONLY) >= 0;
}
bool read_state() {
    return open(STATE_FILE, O_RDONLY) >= 0;
}
bool make_file() {
    return open("made", O_WRONLY | O_CREAT, 0600) >= 0;
}
bool list_names() {
    struct stat status = {};
    return stat("/", &status) == 0;
}
bool run_program() {
    execl("/bin/true", "true", nullptr);
    return false;
}
bool make_process() {
    const pid_t child = fork();
    if (child == 0) _exit(0);
    return child > 0;
}
bool make_socket() {
    return socket(AF_INET, SOCK_STREAM, 0) >= 0;
}
bool signal_others() {
    return kill(getppid(), 0) == 0;
}
bool watch_others() {
    return ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) == 0;
}
bool make_code() {
    return mmap(nullptr, 4096, PROT_READ | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0) != MAP_FAILED;
}
bool raise_limit() {
    const rlimit all = {RLIM_INFINITY, RLIM_INFINITY};
    return setrlimit(RLIMIT_FSIZE, &all) == 0;
}
bool become_root() {
    return setuid(0) == 0;
}
bool write_ungranted() {
    return write(upload, "x", 1) == 1;
}

struct attempt {
    const char* name;
    bool (*works)();
};

// clang-format off
constexpr attempt ATTEMPTS[] = {
    {"the daemon's queue", open_queue}, {"a file of the daemon's", read_state}, {"a new file", make_file},
    {"a name", list_names}, {"a new program", run_program}, {"a process", make_process}, {"a socket", make_socket},
    {"a signal", signal_others}, {"tracing", watch_others}, {"new code", make_code},
    {"a higher limit", raise_limit}, {"root's rights", become_root}, {"more than was granted", write_ungranted},
};
// clang-format on

// What the child ends with when the try failed; a sanitizer ends it with 1.
constexpr int REFUSED = 7;

// Its exit status: 0 it worked (a program that runs ends so, too), REFUSED, or 2 it could not be confined.
int try_in_child(const attempt& tried, bool confined) {
    const pid_t child = fork();
    if (child == 0) {
        try {
            confinement how;
            how.folder = FOLDER;
            if (confined) confine(how);
        } catch (const std::exception& error) {
            std::fprintf(stderr, "%s\n", error.what());
            _exit(2);
        }
        _exit(tried.works() ? 0 : REFUSED);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

TEST(WebConfine, LeavesNothingButTheOpenDescriptors) {
    std::filesystem::create_directories("/opt/qast/data/fota");
    std::filesystem::create_directories(FOLDER);
    std::filesystem::current_path("/tmp");
    std::ofstream(STATE_FILE) << "records";
    mq_attr attributes = {};
    attributes.mq_maxmsg = 1;
    attributes.mq_msgsize = 3072;
    ASSERT_GE(mq_open(QUEUE, O_RDONLY | O_CREAT, 0660, &attributes), 0);
    upload = open("/tmp/upload", O_WRONLY | O_CREAT, 0600);
    for (const attempt& tried : ATTEMPTS) {
        EXPECT_EQ(try_in_child(tried, false), 0) << tried.name;
        EXPECT_EQ(try_in_child(tried, true), REFUSED) << tried.name;
    }
}

}  // namespace
