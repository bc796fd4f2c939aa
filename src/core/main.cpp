// The process: start-up, the request loop, shutdown.
#include <fcntl.h>
#include <malloc.h>
#include <mqueue.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>

#include "common/file_helpers.h"
#include "common/state_files.h"
#include "core/config.h"
#include "core/daemon_state.h"
#include "core/dispatcher.h"
#include "core/log.h"
#include "core/msgbus_client.h"
#include "fota/request.h"
#include "msgq.h"
#include "package/progress_flags.h"
#include "results/result_processing.h"
#include "results/session_cleanup.h"
#include "vexa_dbg.h"
#include "watchdog.h"

// What the C++ runtime calls for an exception that nobody catches. Its own version spells the exception out,
// to a terminal that a daemon has not, and makes the program a tenth larger.
namespace __gnu_cxx {
void __verbose_terminate_handler() {
    abort();
}
}  // namespace __gnu_cxx

namespace {

constexpr char WATCHDOG_NAME[] = "fota";
constexpr time_t LOOP_TIMEOUT_SECS = 20;
constexpr int32_t KEEP_ALIVE_SECS = 29;
constexpr int HEAP_KEPT = 512 * 1024;

constexpr int EXIT_NOT_STARTED = 1;
constexpr int EXIT_WRONG_WORDS = 2;

constexpr char HELP[] =
    "usage: fotad [--foreground | --version | --help]\n"
    "\n"
    "The firmware update daemon. Started as root, it goes to the background and serves requests\n"
    "until a signal ends it. What it does, and why it refuses, is in /var/log/debug_log;\n"
    "'fotactl status' asks it.\n"
    "\n"
    "  --foreground  stay attached to what started it\n";

void fota_signal_handler(int signal_number) {
    if (signal_number != SIGHUP && signal_number != SIGINT && signal_number != SIGQUIT &&
        signal_number != SIGTERM) {
        return;
    }
    const int saved_errno = errno;
    fota_daemon_state.running = 0;
    // The pipe is made a little later than the handler is installed.
    if (fota_daemon_state.signal_pipe[1] > 0) {
        const int wake = 1;
        [[maybe_unused]] const ssize_t ignored = write(fota_daemon_state.signal_pipe[1], &wake, sizeof wake);
    }
    errno = saved_errno;
}

void redirect(int target, int flags) {
    const int fd = open("/dev/null", flags);
    if (fd < 0) return;
    dup2(fd, target);
    if (fd != target) close(fd);
}

void fota_daemonize(bool foreground) {
    const pid_t child = foreground ? 0 : fork();
    if (child < 0) exit(EXIT_NOT_STARTED);
    if (child > 0) exit(0);
    umask(0);
    if (!foreground && setsid() < 0) exit(EXIT_NOT_STARTED);
    if (chdir("/") != 0) exit(EXIT_NOT_STARTED);
    redirect(STDIN_FILENO, O_RDONLY);
    if (foreground) return;
    redirect(STDOUT_FILENO, O_WRONLY);
    redirect(STDERR_FILENO, O_WRONLY);
}

// At most one keep-alive in 30 seconds; 0 in `last_keep_alive` means none yet.
void fota_watchdog_kick(const char* name, int32_t* last_keep_alive) {
    if (name == nullptr || last_keep_alive == nullptr) return;
    timespec clock = {};
    clock_gettime(CLOCK_MONOTONIC_RAW, &clock);
    const auto now = static_cast<int32_t>(clock.tv_sec);
    if (*last_keep_alive != 0 && now - *last_keep_alive <= KEEP_ALIVE_SECS) return;
    *last_keep_alive = now;
    (void)watchdog_application_send_keep_alive(name);
}

// Two daemons would share the queue and clear each other's sessions. The lock is held until the process ends,
// however it does, and by none of the commands that it runs. Says on the terminal, and in the log, why not.
bool be_the_only_daemon() {
    const int lock = open(FOTA_DAEMON_LOCK, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (lock >= 0 && flock(lock, LOCK_EX | LOCK_NB) == 0) {
        // The standard descriptors are about to be redirected; this one may be among them.
        if (lock <= STDERR_FILENO) fcntl(lock, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
        return true;
    }
    const bool taken = lock >= 0 && errno == EWOULDBLOCK;
    const char* reason = taken ? "another daemon runs already" : strerror(errno);
    fprintf(stderr, "fotad: not started, %s: %s\n", FOTA_DAEMON_LOCK, reason);
    vexa_dbg_start();
    LOG_ERROR_AS(nullptr, "%s Not started, %s: %s\n", FOTA_TAG, FOTA_DAEMON_LOCK, reason);
    vexa_dbg_stop();
    return false;
}

// A failed step ends the process at once and undoes nothing.
[[noreturn]] void terminate_start_up() {
    fprintf(stderr, "fotad: not started; the last line of /var/log/debug_log says why\n");
    exit(-1);
}

int start_up(bool foreground) {
    const pthread_t thread = pthread_self();
    const pid_t process = getpid();
    for (const int signal_number : {SIGTERM, SIGINT, SIGHUP, SIGQUIT}) {
        signal(signal_number, fota_signal_handler);
    }
    signal(SIGPIPE, SIG_IGN);
    // A starter that ignores it would have every command end unseen.
    signal(SIGCHLD, SIG_DFL);
    fota_clear_daemon_state();
    fota_daemon_state.running = 1;
    fota_daemonize(foreground);

    vexa_dbg_start();
    LOG_NOTICE_AS(nullptr, "%s Process Start with pthread ID:%lu, process ID:%d.", FOTA_TAG, thread, process);
    // Neither end blocks: the handler must not wait when many signals fill the pipe.
    if (pipe2(fota_daemon_state.signal_pipe, O_CLOEXEC | O_NONBLOCK) != 0) {
        LOG_ERROR_AS(nullptr, "Error opening signal pipe: %d, terminating.", errno);
        terminate_start_up();
    }
    *fota_worker_thread() = 0;
    if (fota_msgbus_init() != FOTA_RC_SUCCESS) {
        LOG_ERROR_AS(nullptr, "Error attaching to the message bus.");
        terminate_start_up();
    }
    if (fota_init_config() != FOTA_RC_SUCCESS) {
        LOG_ERROR_AS(nullptr, "Error initializing fota configuration, terminating.");
        terminate_start_up();
    }
    if (fota_init_settings() != FOTA_RC_SUCCESS) {
        LOG_ERROR_AS(nullptr, "Error initializing fota settings, terminating.");
        terminate_start_up();
    }
    const int queue = msgq_create(FOTA_REQUEST_QUEUE, FOTA_REQUEST_SIZE, FOTA_REQUEST_QUEUE_DEPTH);
    if (queue == -1) {
        LOG_ERROR_AS(nullptr, "Error opening message queue: %d, terminating.", errno);
        terminate_start_up();
    }
    umask(S_IWOTH);
    if (verify_and_create_app_data_dir() != FOTA_RC_SUCCESS) {
        LOG_ERROR_AS(nullptr, "Error initializing fota data directory, terminating.");
        terminate_start_up();
    }
    remove_unfinished_files();
    return queue;
}

// What the previous boot left. While a full-image installation is under way its side-load files are still
// needed.
void process_previous_boot() {
    finish_clean_up();
    take_back_full_fota();
    const bool full_fota = path_exists(FOTA_STAGING_UPDATE_PRE_FULL_FOTA_INSTALL);
    check_and_update_fota_results();
    if (full_fota) return;
    LOG_DEBUG_AS(nullptr, "Clear sideload files\n");
    clear_sideload_files();
    LOG_DEBUG_AS(nullptr, "Clear SUA files\n");
    clear_sua_files();
    clear_work_files();
}

void serve_one_request(int queue) {
    fota_event_msg msg;
    const int received = msgq_receive(queue, &msg, sizeof msg, 0);
    if (received < static_cast<int>(sizeof msg)) {
        LOG_ERROR_DEBUG_ONLY_AS(nullptr, "mq_receive returned %d, errno: %d.", received, errno);
        return;
    }
    fota_handle_event_message(&msg);
    (void)msgq_resp_handler(&msg, sizeof msg);
}

void request_loop(int queue) {
    const int signal_fd = fota_daemon_state.signal_pipe[0];
    int32_t last_keep_alive = 0;
    while (fota_is_running() != 0) {
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(queue, &readable);
        FD_SET(signal_fd, &readable);
        timeval timeout = {LOOP_TIMEOUT_SECS, 0};
        const int ready = select(std::max(queue, signal_fd) + 1, &readable, nullptr, nullptr, &timeout);
        if (fota_is_running() == 0) break;
        if (ready == -1) {
            LOG_ERROR_DEBUG_ONLY_AS(nullptr, "Select returned %d, errno: %d.", ready, errno);
            continue;
        }
        if (FD_ISSET(queue, &readable)) serve_one_request(queue);
        fota_watchdog_kick(WATCHDOG_NAME, &last_keep_alive);
    }
}

void shut_down(int queue) {
    (void)watchdog_application_register(WATCHDOG_NAME, 0);
    if (queue != 0) {
        mq_close(queue);
        mq_unlink(FOTA_REQUEST_QUEUE);
    }
    (void)fota_msgbus_disable();
    LOG_NOTICE_AS(nullptr, "%s Server terminating.", FOTA_TAG);
    vexa_dbg_stop();
}

}  // namespace

int main(int argc, char** argv) {
    const char* const word = argc > 1 ? argv[1] : "";
    const bool foreground = strcmp(word, "--foreground") == 0;
    if (argc == 2 && strcmp(word, "--version") == 0) return printf("fotad %s\n", FOTA_VERSION) < 0 ? 1 : 0;
    if (argc == 2 && strcmp(word, "--help") == 0) return fputs(HELP, stdout) < 0 ? 1 : 0;
    if (argc > 2 || (argc == 2 && !foreground)) {
        fputs(HELP, stderr);
        return EXIT_WRONG_WORDS;
    }
    if (!be_the_only_daemon()) return EXIT_NOT_STARTED;

    // Every request for the history takes and frees 57 KB: the heap's end is not to come and go with them.
    mallopt(M_TRIM_THRESHOLD, HEAP_KEPT);
    const int queue = start_up(foreground);
    process_previous_boot();
    vexa_dbg_context("", nullptr, 0);
    LOG_DEBUG_AS(nullptr, "Register with watchdog\n");
    (void)watchdog_application_register(WATCHDOG_NAME, 1);
    request_loop(queue);
    shut_down(queue);
    hold_clean_ups();
    return static_cast<int>(FOTA_RC_SUCCESS);
}
