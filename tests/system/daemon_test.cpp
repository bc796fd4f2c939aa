// The real daemon on the host platform: start-up, hostile clients, kills and shutdown.
#include <fcntl.h>
#include <mqueue.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <tuple>

#include "support/daemon_fixture.h"
#include "tools/play/sandbox.h"

namespace fs = std::filesystem;

namespace {

constexpr char WATCHDOG[] = "/run/vexa/watchdog/fota";

using Daemon = DaemonTest;

// Puts raw bytes on the request queue.
void send_raw(const void* bytes, size_t size) {
    const mqd_t queue = mq_open(FOTA_REQUEST_QUEUE, O_WRONLY | O_CLOEXEC);
    ASSERT_GE(queue, 0);
    EXPECT_EQ(mq_send(queue, static_cast<const char*>(bytes), size, 0), 0);
    mq_close(queue);
}

void send_with_reply_name(const char* name) {
    fota_event_msg msg = make_request(FOTA_MSG_DECRYPT_PKG);
    strcpy(reinterpret_cast<char*>(msg.routing_header), name);
    send_raw(&msg, sizeof msg);
}

TEST_F(Daemon, StartUpEndsAtTheStepThatFails) {
    const std::tuple<const char*, void (*)(), const char*> rows[] = {
        {"no configuration", [] { fs::remove(FOTA_CONFIG_FILE); },
         "[FOTA]:[ERROR] - Error initializing fota configuration, terminating.\n"},
        {"no message bus", [] { sh("cd /run/vexa; rm -r msgbus; : >msgbus"); },
         "[FOTA]:[ERROR] - Error attaching to the message bus.\n"},
        {"updates disabled",
         [] { put_file("/opt/qast/etc/features.xml", "<Features><Fota>0</Fota></Features>"); },
         "[FOTA]:[NOTICE] - FOTA subsystem disabled in features.xml\n"},
        {"no features", [] { fs::remove("/opt/qast/etc/features.xml"); },
         "[FOTA]:[ERROR] - Error initializing fota settings, terminating.\n"},
        {"data path occupied", [] { put_file(FOTA_DATA_DIR, ""); },
         "[FOTA]:[ERROR] - Error initializing fota data directory, terminating.\n"},
    };
    for (const auto& [name, spoil, message] : rows) {
        SCOPED_TRACE(name);
        SetUp();
        spoil();
        launch();
        EXPECT_EQ(daemon_wait_end(daemon), 255);
        EXPECT_TRUE(log_has(message)) << get_file(DEBUG_LOG);
        daemon = -1;
    }
}

TEST_F(Daemon, ServesThenLeavesNothingOpenBehind) {
    start();
    struct stat info = {};
    ASSERT_EQ(stat("/dev/mqueue/fota_mq", &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0660u);
    ASSERT_EQ(stat(FOTA_DATA_DIR, &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0775u);
    uint32_t bytes = 0;
    EXPECT_EQ(fota_client_get_max_pkg_size(&bytes, TIMEOUT_MS), SUCCESS);
    EXPECT_EQ(get_file(WATCHDOG), "1") << "a keep-alive with the first pass, and no more so soon";
    EXPECT_EQ(bytes, 36700160u);

    kill(daemon, SIGPIPE);
    kill(daemon, SIGWINCH);
    EXPECT_EQ(fota_client_decrypt_pkg(TIMEOUT_MS), SUCCESS);
    for (const int signal_number : {SIGTERM, SIGINT, SIGHUP, SIGQUIT}) {
        end(signal_number, 0);
        EXPECT_FALSE(exists("/dev/mqueue/fota_mq"));
        EXPECT_FALSE(exists(WATCHDOG));
        EXPECT_TRUE(log_has("[FOTA]:[NOTICE] - FOTA Server terminating.\n"));
        fs::remove(DEBUG_LOG);
        start();
    }
}

TEST_F(Daemon, WordsOnTheCommandLine) {
    const std::tuple<const char*, const char*> rows[] = {{"--version", "fotad 0.1.0\nstatus 0\n"},
                                                         {"--help", "usage: fotad ["},
                                                         {"--verbose", "usage: fotad ["},
                                                         {"--foreground --version", "usage: fotad ["},
                                                         {"start", "usage: fotad ["}};
    for (const auto& [words, prints] : rows) {
        sh("fotad " + std::string(words) + " >/opt/out 2>&1 || s=$?; echo status ${s:-0} >>/opt/out");
        const std::string printed = get_file("/opt/out");
        EXPECT_TRUE(printed.starts_with(prints)) << printed;
        EXPECT_TRUE(printed.ends_with(words[2] == 'v' || words[2] == 'h' ? "" : "status 2\n")) << printed;
        EXPECT_FALSE(exists("/dev/mqueue/fota_mq") || exists(FOTA_DAEMON_LOCK) || exists(DEBUG_LOG));
    }
    daemon = fork();
    if (daemon == 0) {
        execl(daemon_program(sandbox_program_folder()).c_str(), "fotad", "--foreground", nullptr);
        _exit(1);
    }
    ASSERT_TRUE(daemon_wait_ready(daemon));
    EXPECT_EQ(getsid(daemon), getsid(0)) << "still attached";
}

TEST_F(Daemon, ASecondStartTouchesNothing) {
    const auto all = [] { sh("ls -liR --time-style=full-iso /opt/qast /run/vexa /dev/mqueue >/opt/now"); };
    close(STDIN_FILENO);  // the lock would be the first to take its number
    start();
    open("/dev/null", O_RDONLY);
    for (const char* path : {FOTA_SIDELOAD_COOKIE, FOTA_SESSION_LOCK, FOTA_UPGRADE_PKG, FOTA_DECRYPT_TEMP,
                             FOTA_STAGING_UPDATE_SUCCESS, "/tmp/pkg_details.zip"}) {
        put_file(path, "mine");
    }
    all();
    sh("mv /opt/now /opt/before; : >/var/log/debug_log; fotad >/opt/out 2>&1 || echo $? >>/opt/out");
    EXPECT_EQ(get_file("/opt/out"), "fotad: not started, /run/fotad.lock: another daemon runs already\n1\n");
    EXPECT_TRUE(log_has("[FOTA]:[ERROR] - FOTA Not started, /run/fotad.lock: another daemon runs already\n"));
    all();
    EXPECT_EQ(get_file("/opt/now"), get_file("/opt/before"));
    // The lock goes with the process, also with one that had no time to give it back.
    end(SIGKILL, 128 + SIGKILL);
    start();
}

// The torture and the simulator cut the power at each point; this is what they do not look at.
TEST_F(Daemon, StartsOnWhatIsLeft) {
    // A full image that had not begun is taken back.
    for (const char* file : {FOTA_SESSION_LOCK, FOTA_FULL_FOTA_WAIT,
                             FOTA_STAGING_UPDATE_PRE_FULL_FOTA_INSTALL, FOTA_STAGING_UPDATE_DLPKG_VERIFIED}) {
        put_file(file, "1");
    }
    start();
    EXPECT_EQ(list_folder(FOTA_DATA_DIR), "session staging/");
    EXPECT_EQ(list_folder(FOTA_STAGING_DIR), "update_dlpkg_verified");
    EXPECT_EQ(fota_client_decrypt_pkg(TIMEOUT_MS), SUCCESS);
    end(SIGTERM, 0);
    // A staging directory that is a link is believed once.
    SetUp();
    put_file("/opt/elsewhere/result_success", "");
    put_file("/opt/elsewhere/post_install_script", "echo ran >>/opt/ran\n");
    fs::create_directories(FOTA_DATA_DIR);
    fs::create_directory_symlink("/opt/elsewhere", FOTA_STAGING_DIR);
    for (int boot = 0; boot < 2; ++boot) {
        start();
        end(SIGTERM, 0);
    }
    EXPECT_EQ(get_file("/opt/ran"), "ran\n");
    EXPECT_EQ(list_folder("/opt/elsewhere"), "post_install_script result_success");
    EXPECT_EQ(list_folder(FOTA_DATA_DIR), "");
}

TEST_F(Daemon, TellsTheServiceManager) {
    // An abstract socket that the kernel names, a path, and a manager that takes nothing more.
    for (const std::string row : {"", "/run/notify", "/run/full"}) {
        SetUp();
        const int manager = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        sockaddr_un address = {AF_UNIX, ""};
        memcpy(address.sun_path, row.data(), row.size());
        auto* const any = reinterpret_cast<sockaddr*>(&address);
        auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + row.size());
        ASSERT_EQ(bind(manager, any, size), 0);
        getsockname(manager, any, &(size = sizeof address));
        setenv("NOTIFY_SOCKET",
               row.empty() ? ("@" + std::string(address.sun_path + 1, 5)).c_str() : row.c_str(), 1);
        while (row == "/run/full" && sendto(manager, "", 0, 0, any, size) == 0) continue;

        start();
        const std::string all = "READY=1\nMAINPID=" + std::to_string(daemon) + "|WATCHDOG=1|STOPPING=1|";
        end(SIGTERM, 0);
        std::string told;
        char text[64];
        for (ssize_t length; (length = recv(manager, text, sizeof text, 0)) >= 0;) {
            if (length > 0) told.append(text, static_cast<size_t>(length)) += '|';
        }
        EXPECT_EQ(told, row == "/run/full" ? "" : all) << row;
        close(manager);
    }
}

TEST_F(Daemon, AnswersOnTheSmallestPort) {
    daemon = daemon_launch(sandbox_program_folder() + "/fotad_minimal");
    ASSERT_TRUE(daemon_wait_ready(daemon));
    EXPECT_FALSE(log_has("FOTA")) << "the other port is in there";
}

TEST_F(Daemon, IdlesWithoutWaking) {
    start();
    const auto wake_ups = [this] {
        const std::string status = get_file("/proc/" + std::to_string(daemon) + "/status");
        return status.substr(status.find("\nvoluntary_ctxt_switches"));
    };
    usleep(300000);
    const std::string before = wake_ups();
    usleep(2000000);
    EXPECT_EQ(wake_ups(), before);
}

TEST_F(Daemon, HostileClientsGetAnAnswerOrALogLine) {
    start();
    const std::tuple<const char*, void (*)(), const char*> rows[] = {
        {"empty message", [] { send_raw("", 0); }, "[FOTA]:[ERROR] - mq_receive returned 0, errno: "},
        {"the daemon's own", [] { send_with_reply_name("/fota_mq"); }, "this process receives on it"},
    };
    for (const auto& [name, attack, message] : rows) {
        SCOPED_TRACE(name);
        attack();
        EXPECT_EQ(fota_client_decrypt_pkg(TIMEOUT_MS), SUCCESS) << "the next is served";
        EXPECT_TRUE(log_has(message)) << get_file(DEBUG_LOG);
    }

    // Every event, known or not, with a payload that has no terminator anywhere.
    for (int event = -1; event <= 33; ++event) {
        fota_event_msg msg;
        memset(&msg, 'A', sizeof msg);
        msg.event = event;
        msg.result = 0x5EED;
        EXPECT_GT(fota_client_request(&msg, TIMEOUT_MS), 0) << event;
        EXPECT_EQ(msg.event, event);
        EXPECT_EQ(msg.reserved, 0x41414141u);
    }
}

TEST_F(Daemon, QueueThatIsThereAlready) {
    // Requests that wait in a queue of the right form are served after a restart.
    start();
    end(SIGKILL, 128 + SIGKILL);
    fota_event_msg msg = make_request(FOTA_MSG_STOP_IN_RECOVERY);
    msg.payload.value = 1;
    send_raw(&msg, sizeof msg);
    ASSERT_EQ(chmod("/dev/mqueue/fota_mq", 0600), 0);
    sh("sed -i 's#>36700160<#>5000000000<#' " + std::string(FOTA_CONFIG_FILE));
    start();
    EXPECT_TRUE(exists(FOTA_RECOVERY_DEBUG_MODE));
    EXPECT_EQ(fs::status("/dev/mqueue/fota_mq").permissions(), fs::perms(0660));
    EXPECT_TRUE(log_has(" maximum_pkg_size=[2147483647] bytes") &&
                log_has("sideload_maximum_pkg_size=[2147483647] bytes"));
    end(SIGTERM, 0);
}

}  // namespace
