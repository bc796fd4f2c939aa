// The page by plain HTTP, with the real daemon behind it: what it refuses, and one update from log-in to
// outcome.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include "support/daemon_fixture.h"
#include "tools/play/sandbox.h"

namespace {

constexpr char PASSWORD[] = "correct horse";
constexpr char AGENT[] = "fotaweb";

sockaddr_in local_address(uint16_t port, uint32_t number = INADDR_LOOPBACK) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(number);
    return address;
}

uint16_t free_port() {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = local_address(0);
    socklen_t size = sizeof address;
    EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), size), 0);
    EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size), 0);
    close(fd);
    return ntohs(address.sin_port);
}

// What stands between two marks; empty when they are not there.
std::string between(const std::string& text, const std::string& begin, const std::string& end) {
    const size_t at = text.find(begin);
    if (at == std::string::npos) return "";
    const size_t from = at + begin.size();
    return text.substr(from, text.find(end, from) - from);
}

struct Web : DaemonTest {
    pid_t web = -1;
    uint16_t port = free_port();
    std::string own = "127.0.0.1:" + std::to_string(port);
    std::string host = own, origin = "http://" + own, cookie, token;

    void SetUp() override {
        DaemonTest::SetUp();
        start();
        sh(std::string("echo '") + PASSWORD +
           "' | fotaweb --set-password; mkdir -p /opt/w; echo 1 >/opt/w/a");
        sh("fotapkg package --content /opt/w --keys $K --source MDM2.1.07-4.14.98-5.2.1 --target "
           "MDM2.1.07-4.14.98-5.3.0 --description 'Spring <b>' --estimate 300 -o /opt/ota.zip; "
           "fotapkg bundle /opt/ota.zip --keys $K -o /opt/bundle.zip");
        start_web();
    }

    void TearDown() override {
        stop_web();
        DaemonTest::TearDown();
    }

    void start_web() {
        const std::string program = sandbox_program_folder() + "/fotaweb";
        std::string words[] = {program, "--user", "root", "--listen", own};
        char* arguments[] = {words[0].data(), words[1].data(), words[2].data(),
                             words[3].data(), words[4].data(), nullptr};
        ASSERT_EQ(posix_spawn(&web, program.c_str(), nullptr, nullptr, arguments, environ), 0);
        ASSERT_TRUE(eventually([this] { return !send("GET", "/").empty(); }));
    }

    void stop_web() const {
        if (web > 0) kill(web, SIGTERM);
        waitpid(web, nullptr, 0);
    }

    // The whole answer; empty without one.
    [[nodiscard]] std::string send(const std::string& method, const std::string& path,
                                   const std::string& body = "", size_t length = 0) const {
        const int fd = socket(AF_INET, SOCK_STREAM, 0);
        const sockaddr_in address = local_address(port);
        std::string answer;
        if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
            std::string text = method + " " + path + " HTTP/1.1\r\nHost: " + host +
                               "\r\nConnection: close\r\nCookie: fotaweb=" + cookie +
                               "\r\nX-Token: " + token +
                               "\r\nContent-Type: application/x-www-form-urlencoded\r\nContent-Length: " +
                               std::to_string(length != 0 ? length : body.size());
            if (!origin.empty()) text += "\r\nOrigin: " + origin;
            text += "\r\n\r\n" + body;
            EXPECT_EQ(::send(fd, text.data(), text.size(), MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
            if (length != 0) shutdown(fd, SHUT_WR);  // breaks off
            char part[4096];
            for (ssize_t size = 0; (size = recv(fd, part, sizeof part, 0)) > 0;)
                answer.append(part, static_cast<size_t>(size));
        }
        close(fd);
        return answer;
    }

    [[nodiscard]] int status_of(const std::string& method, const std::string& path,
                                const std::string& body = "") const {
        return std::atoi(send(method, path, body).substr(9, 3).c_str());
    }

    void log_in() {
        const std::string answer = send("POST", "/login", std::string("password=") + "correct+horse");
        cookie = between(answer, "Set-Cookie: fotaweb=", ";");
        ASSERT_EQ(cookie.size(), 64U) << answer;
        token = between(send("GET", "/"), "data-token=\"", "\"");
        ASSERT_EQ(token.size(), 64U);
    }

    [[nodiscard]] std::string screen() const { return between(send("GET", "/state"), "\"screen\":\"", "\""); }

    // Uploads in two parts, the first of which is broken off: what has come stays.
    void upload(const std::string& path) {
        const std::string file = get_file(path), half = file.substr(0, file.size() / 2);
        const std::string fields = "name=n&size=" + std::to_string(file.size());
        std::string begun = send("POST", "/begin", fields);
        const std::string first = between(begun, "\"id\":\"", "\"");
        ASSERT_EQ(between(begun, "\"offset\":", "}"), "0") << begun;
        EXPECT_NE(send("POST", "/begin", fields).find(" 409 "), std::string::npos) << "another window";
        (void)send("POST", "/data?offset=0&id=" + first, half, file.size());
        begun.clear();
        ASSERT_TRUE(eventually([&] {
            if (begun.find(" 200 ") == std::string::npos)
                begun = send("POST", "/begin", fields + "&id=" + first);
            return begun.find(" 200 ") != std::string::npos;
        }));
        const std::string offset = between(begun, "\"offset\":", ",\"");
        EXPECT_EQ(offset.substr(0, offset.find('}')), std::to_string(half.size())) << begun;
        const std::string id = between(begun, "\"id\":\"", "\"");
        EXPECT_EQ(status_of("POST", "/data?offset=" + std::to_string(half.size()) + "&id=" + id,
                            file.substr(half.size())),
                  200);
        EXPECT_EQ(status_of("POST", "/check", "id=" + id), 200);
        ASSERT_TRUE(eventually([&] { return screen() != "checking"; }));
    }
};

TEST_F(Web, WhatIsRefused) {
    EXPECT_EQ(status_of("GET", "/history"), 303);
    EXPECT_EQ(status_of("POST", "/begin", "size=1&name=n"), 401);
    EXPECT_EQ(status_of("POST", "/login", "password=wrong"), 403);
    log_in();
    const std::string good_token = token;
    const struct {
        const char* name;
        std::string host, origin, token, body;
        int status;
    } rows[] = {
        {"a foreign host", "evil.example:80", origin, token, "size=1&name=n", 421},
        {"a host like a number", "127.0.0.1.evil.example", origin, token, "size=1&name=n", 421},
        {"no origin", own, "", token, "size=1&name=n", 403},
        {"a foreign origin", own, "http://evil.example", token, "size=1&name=n", 403},
        {"no token", own, origin, "", "size=1&name=n", 403},
        {"a foreign token", own, origin, std::string(64, '0'), "size=1&name=n", 403},
        {"too large", own, origin, token, "size=36700161&name=n", 413},
        {"far too large", own, origin, token, "size=4294967297&name=n", 413},
        {"a long form", own, origin, token, "name=" + std::string(5000, 'n'), 413},
    };
    for (const auto& row : rows) {
        host = row.host;
        origin = row.origin;
        token = row.token;
        EXPECT_EQ(status_of("POST", "/begin", row.body), row.status) << row.name;
        EXPECT_FALSE(exists(FOTA_WEBUI_UPLOAD)) << row.name;
    }
    host = own;
    origin = "http://" + own;
    token = good_token;
    cookie.clear();
    for (int i = 0; i < 4; ++i) EXPECT_EQ(status_of("POST", "/login", "password=wrong"), 403);
    EXPECT_EQ(status_of("POST", "/login", "password=wrong"), 403);
    EXPECT_EQ(status_of("POST", "/login", "password=correct+horse"), 429);
}

TEST_F(Web, AnotherAgentsSessionIsLeftAlone) {
    put_file(FOTA_UPGRADE_PKG, "theirs");
    ASSERT_EQ(fota_client_create_session_lock("dm-agent", TIMEOUT_MS), SUCCESS);
    log_in();
    EXPECT_NE(send("GET", "/").find("dm-agent"), std::string::npos);
    EXPECT_EQ(status_of("POST", "/begin", "size=100&name=n"), 413);
    EXPECT_EQ(status_of("POST", "/give-up"), 303);
    EXPECT_EQ(get_file(FOTA_UPGRADE_PKG), "theirs");
    EXPECT_EQ(get_file(FOTA_SESSION_LOCK), "dm-agent");
}

TEST_F(Web, StrangersKeepNeitherTheDaemonNorTheOwnerWaiting) {
    const std::string log = get_file("/var/log/debug_log");
    std::vector<int> slow;
    for (int i = 0; i < 20; ++i) {
        const sockaddr_in from = local_address(0, INADDR_LOOPBACK + 1), to = local_address(port);
        slow.push_back(socket(AF_INET, SOCK_STREAM, 0));
        ASSERT_EQ(bind(slow.back(), reinterpret_cast<const sockaddr*>(&from), sizeof from), 0);
        ASSERT_EQ(connect(slow.back(), reinterpret_cast<const sockaddr*>(&to), sizeof to), 0);
        (void)::send(slow.back(), "POST /login HT", 14, MSG_NOSIGNAL);
    }
    for (int i = 0; i < 100; ++i) EXPECT_EQ(status_of("GET", i % 2 == 0 ? "/" : "/state"), 200);
    EXPECT_EQ(get_file("/var/log/debug_log"), log) << "strangers make the daemon work";
    log_in();
    upload("/opt/bundle.zip");
    EXPECT_EQ(screen(), "checked");
    for (const int fd : slow) close(fd);
}

TEST_F(Web, FilesThatAreNotTaken) {
    log_in();
    sh("fotapkg keys /opt/other; fotapkg bundle /opt/ota.zip --keys /opt/other -o /opt/foreign.zip; "
       "head -c 5000 /dev/urandom >/opt/noise; "
       "fotapkg package --content /opt/w --keys $K --source other --target 2 --description d -o /opt/o.zip; "
       "fotapkg bundle /opt/o.zip --keys $K -o /opt/version.zip");
    for (const auto& [file, says] : {std::pair{"/opt/noise", "is not an update file"},
                                     {"/opt/foreign.zip", "A signature in the file"},
                                     {"/opt/version.zip", "another firmware"}}) {
        upload(file);
        EXPECT_NE(send("GET", "/").find(says), std::string::npos) << file;
        EXPECT_EQ(screen(), "refused");
        for (const char* path : {FOTA_SESSION_LOCK, FOTA_WEBUI_UPLOAD, FOTA_UPGRADE_PKG})
            EXPECT_FALSE(exists(path)) << path;
        EXPECT_EQ(status_of("POST", "/give-up"), 303);
        EXPECT_EQ(screen(), "ready");
    }
    EXPECT_EQ(device_history().size(), 0U);
}

TEST_F(Web, UpdatesAndTellsWhatTheHistoryTells) {
    const struct {
        const char* name;
        installer_outcome installer;
        uint32_t status;
        const char* kind;
    } rows[] = {{"failure", {.code = -2147483635, .reason = " in <block>"}, 402, "failed"},
                {"fall-back", {.revert_code = 410, .reason = "no modem"}, 410, "reverted"},
                {"success", {}, 200, "success"}};
    log_in();
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        upload("/opt/bundle.zip");
        const std::string facts = send("GET", "/");
        for (const char* fact :
             {"Spring &lt;b&gt;", "MDM2.1.07-4.14.98-5.2.1", "MDM2.1.07-4.14.98-5.3.0", "5 min"})
            EXPECT_NE(facts.find(fact), std::string::npos) << fact << facts;
        EXPECT_EQ(status_of("POST", "/install"), 303);
        EXPECT_EQ(screen(), "installing");
        ASSERT_FALSE(await_installation(false, TIMEOUT_MS).empty());
        EXPECT_EQ(screen(), "installing");
        stop_web();
        end(SIGTERM, 0);
        ASSERT_TRUE(run_installer(row.installer, false));
        device_reboot();
        start_web();
        EXPECT_EQ(screen(), "installing") << "the daemon is not up yet";
        start();
        const std::string outcome = send("GET", "/");
        const fota_history_rec newest = device_history().back();
        EXPECT_EQ(newest.status, row.status);
        EXPECT_EQ(between(outcome, "data-status=\"", "\""), std::to_string(newest.status)) << outcome;
        EXPECT_EQ(between(outcome, "data-record=\"", "\""), std::to_string(newest.rec_id));
        EXPECT_EQ(between(outcome, "data-kind=\"", "\""), row.kind);
        token = between(outcome, "data-token=\"", "\"");
        EXPECT_EQ(status_of("POST", "/give-up"), 303);
        EXPECT_EQ(screen(), "ready");
        EXPECT_FALSE(exists(FOTA_RESULT_PROCESSED));
    }
    EXPECT_EQ(device_history().front().pkg_info.agent_name, std::string(AGENT));
}

}  // namespace
