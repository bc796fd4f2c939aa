// The page for side-loading from a browser.
#include <CLI/CLI.hpp>
#include <fcntl.h>
#include <netdb.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>

#include "tools/common/command_line.h"
#include "tools/common/failure.h"
#include "tools/common/files.h"
#include "web/channel.h"
#include "web/confine.h"
#include "web/keeper.h"
#include "web/password.h"
#include "web/server.h"

namespace {

constexpr int EXIT_FAILED = 1;
constexpr int EXIT_USAGE = 2;
constexpr char EMPTY_FOLDER[] = "/run/fotaweb";
constexpr int BACKLOG = 32;

struct web_options {
    std::string listen = "127.0.0.1:8080";
    std::string user = "fotaweb";
    std::string password_file = "/opt/qast/data/webui/password";
    std::vector<std::string> hosts;
    bool set_password = false;
};

// Puts the terminal's echo back when it ends.
struct silent_terminal {
    termios before = {};
    bool is_terminal = tcgetattr(STDIN_FILENO, &before) == 0;

    silent_terminal() {
        if (!is_terminal) return;
        termios silent = before;
        silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &silent);
        std::fputs("New password: ", stderr);
    }
    ~silent_terminal() {
        if (!is_terminal) return;
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &before);
        std::fputs("\n", stderr);
    }
    silent_terminal(const silent_terminal&) = delete;
    silent_terminal& operator=(const silent_terminal&) = delete;
};

void set_password(const std::string& path) {
    std::string password;
    {
        const silent_terminal silence;
        std::getline(std::cin, password);
    }
    const std::string line = make_password_line(password);
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    make_complete(path, [&](const std::filesystem::path& part) { write_file(part, line, 0600); });
}

std::string read_password_line(const std::string& path) {
    struct stat status = {};
    char line[512] = {};
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) throw system_failure("there is no password yet; 'fotaweb --set-password' sets it: " + path);
    const bool is_private = fstat(fd, &status) == 0 && (status.st_mode & (S_IRWXG | S_IRWXO)) == 0;
    const ssize_t size = read(fd, line, sizeof line - 1);
    close(fd);
    if (!is_private) throw failure(path + " may be read by others; its mode has to be 0600");
    if (size <= 0 || !is_password_line(line))
        throw failure(path + " holds no password; 'fotaweb --set-password' sets it");
    return line;
}

// "ADDRESS:PORT", "[ADDRESS]:PORT" or "PORT"; numbers alone, so that nobody else's answer decides.
int open_listener(const std::string& text) {
    const size_t colon = text.rfind(':');
    std::string address = colon == std::string::npos ? "" : text.substr(0, colon);
    const std::string port = colon == std::string::npos ? text : text.substr(colon + 1);
    if (address.size() > 2 && address.front() == '[' && address.back() == ']')
        address = address.substr(1, address.size() - 2);
    addrinfo hints = {};
    hints.ai_flags = AI_PASSIVE | AI_NUMERICHOST | AI_NUMERICSERV;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(address.empty() ? nullptr : address.c_str(), port.c_str(), &hints, &found) != 0)
        throw failure("cannot listen on " + text + ": not ADDRESS:PORT in numbers");
    const int fd = socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    constexpr int YES = 1;
    const bool listens = fd >= 0 && setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &YES, sizeof YES) == 0 &&
                         bind(fd, found->ai_addr, found->ai_addrlen) == 0 && listen(fd, BACKLOG) == 0;
    freeaddrinfo(found);
    if (!listens) throw system_failure("cannot listen on " + text);
    return fd;
}

confinement find_confinement(const std::string& user) {
    confinement how;
    how.folder = EMPTY_FOLDER;
    if (geteuid() != 0) return how;
    if (mkdir(EMPTY_FOLDER, 0755) != 0 && errno != EEXIST) throw system_failure("cannot make " + how.folder);
    if (!std::filesystem::is_empty(EMPTY_FOLDER)) throw failure(how.folder + " is not empty");
    const passwd* const entry = getpwnam(user.c_str());
    if (entry == nullptr)
        throw failure("there is no user " + user + "; make it, or name another with --user");
    if (entry->pw_uid == 0) {
        std::fputs("fotaweb: the process that speaks HTTP stays root's, which is for trying out alone\n",
                   stderr);
        return how;
    }
    how.change_user = true;
    how.user = entry->pw_uid;
    how.group = entry->pw_gid;
    return how;
}

[[noreturn]] void run_server(server_options server, const confinement& how, int keeper_end) {
    try {
        close(keeper_end);
        close_others({server.channel, server.listener});
        if (!receive_record(server.channel, &server.start, sizeof server.start)) _exit(EXIT_FAILED);
        server.confine = [&] { confine(how); };
        serve(server);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "fotaweb: %s\n", error.what());
    }
    _exit(EXIT_FAILED);
}

int run(const web_options& given) {
    if (given.set_password) {
        set_password(given.password_file);
        return 0;
    }
    server_options server;
    server.password_line = read_password_line(given.password_file);
    server.hosts = given.hosts;
    const confinement how = find_confinement(given.user);
    server.listener = open_listener(given.listen);
    const channel_ends ends = make_channel();
    server.channel = ends.asker;
    const web_start start = read_order();
    std::fflush(nullptr);
    const pid_t asker = fork();
    if (asker < 0) throw system_failure("cannot start a process");
    if (asker == 0) run_server(server, how, ends.keeper);
    close(ends.asker);
    close(server.listener);
    if (send_record(ends.keeper, &start, sizeof start)) keep_rights(ends.keeper, asker);
    throw failure("the process that speaks HTTP has ended");
}

}  // namespace

int main(int argc, char** argv) {
    web_options given;
    CLI::App app("Serves a page for bringing an update to this device with a browser.", "fotaweb");
    app.set_version_flag("--version", std::string(FOTA_VERSION), "Print the version");
    app.add_option("--listen", given.listen, "Where to listen, in numbers")
        ->type_name("ADDRESS:PORT")
        ->capture_default_str();
    app.add_option("--host", given.hosts, "Name by which browsers may call this device; may be given again")
        ->type_name("NAME")
        ->allow_extra_args(false);
    app.add_option("--user", given.user, "User without rights whom the process that speaks HTTP becomes")
        ->type_name("NAME")
        ->capture_default_str();
    app.add_option("--password-file", given.password_file, "Where the password is kept, hashed")
        ->type_name("FILE")
        ->capture_default_str();
    app.add_flag("--set-password", given.set_password, "Read a new password from standard input, and end");
    fit_help(app);
    app.failure_message([argc, argv](const CLI::App* failed, const CLI::Error& error) {
        return misuse_text(*failed, error, argc, argv);
    });
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : EXIT_USAGE;
    }
    try {
        return run(given);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "fotaweb: %s\n", error.what());
        return EXIT_FAILED;
    }
}
