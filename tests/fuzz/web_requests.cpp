#include "fuzz/web_requests.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "web/channel.h"
#include "web/password.h"
#include "web/server.h"

namespace {

constexpr char SESSION[] = "session";
constexpr uint32_t UPLOAD_SIZE = 3000;

uint8_t stage, fill, result;
web_ask asked;
std::string token, upload;
sockaddr_un place = {AF_UNIX, ""};  // a name that the kernel gives, and no file: the device is wiped
socklen_t place_size = sizeof(sa_family_t);

std::string between(const std::string& text, const std::string& begin, const std::string& end) {
    const size_t from = text.find(begin);
    if (from == std::string::npos) return "";
    const size_t at = from + begin.size();
    return text.substr(at, text.find(end, at) - at);
}

void serve_for_ever() {
    server_options options;
    options.listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    auto* const address = reinterpret_cast<sockaddr*>(&place);
    if (bind(options.listener, address, place_size) != 0 || listen(options.listener, 8) != 0) std::abort();
    place_size = sizeof place;
    if (getsockname(options.listener, address, &place_size) != 0) std::abort();
    options.password_line = "scrypt 2 1 1 00 " + std::string(64, '0');
    options.hosts = {"device.example"};
    options.start.has_mark = true;
    std::memcpy(options.start.mark, digest(SESSION).data(), sizeof options.start.mark);
    options.confine = [] {};
    std::thread([options] { serve(options); }).detach();
}

bool is_whole(const std::string& answer) {
    const size_t head = answer.find("\r\n\r\n");
    const std::string length = between(answer, "Content-Length: ", "\r");
    return head != std::string::npos && !length.empty() && answer.size() >= head + 4 + std::stoul(length);
}

// An answer, or what comes until the other side is silent: of a piece it may say nothing.
std::string receive_all(int fd, int silence_ms) {
    std::string all;
    char part[16384];
    pollfd waiting = {fd, POLLIN, 0};
    while (!is_whole(all) && poll(&waiting, 1, silence_ms) > 0) {
        const ssize_t size = recv(fd, part, sizeof part, 0);
        if (size <= 0) break;
        all.append(part, static_cast<size_t>(size));
    }
    return all;
}

int connect_to_server() {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(fd, reinterpret_cast<const sockaddr*>(&place), place_size) != 0) std::abort();
    return fd;
}

std::string exchange(int fd, const std::string& piece, int silence_ms = 3) {
    (void)send(fd, piece.data(), piece.size(), MSG_NOSIGNAL);
    const std::string answer = receive_all(fd, silence_ms);
    const std::string id = between(answer, "\"id\":\"", "\"");
    if (!id.empty()) upload = id;
    return answer;
}

std::string filled(std::string_view piece) {
    std::string text;
    for (const char c : piece) {
        if (c == '\1') text += SESSION;
        if (c == '\2') text += token;
        if (c == '\3') text += upload;
        if (c > '\3' || c < '\0') text += c;
    }
    return text;
}

}  // namespace

bool send_record(int, const void* record, size_t, int) {
    asked = static_cast<const web_request*>(record)->ask;
    return true;
}

// Texts without an end, of bytes that a page must not have in it as they are.
bool receive_record(int, void* record, size_t size, int* fd) {
    std::memset(record, 0, size);
    const std::string element = fill == '<' ? "<img" : std::string(1, static_cast<char>(fill));
    for (size_t i = 0; i < std::min<size_t>(size, 6000); ++i)  // two records of a history: more take long
        static_cast<char*>(record)[i] = element[i % element.size()];
    if (asked == web_ask::HISTORY) {
        static_cast<web_history*>(record)->count = stage;
        return true;
    }
    auto& answer = *static_cast<web_answer*>(record);
    answer.result = asked == web_ask::UPLOAD && result % 2 == 0 ? 1 : -static_cast<int>(result);
    answer.stage = static_cast<web_stage>(stage);
    answer.limit = answer.size = UPLOAD_SIZE;
    answer.offset = result % 4 == 0 ? 0 : UPLOAD_SIZE / 2;
    if (fd != nullptr) *fd = open("/tmp/upload", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    return true;
}

void send_web_requests(std::string_view input) {
    static const bool serves = (serve_for_ever(), true);
    if (!serves || input.size() < 3 || input.find("/logout") != std::string_view::npos) return;
    stage = static_cast<uint8_t>(input[0]);
    fill = static_cast<uint8_t>(input[1]);
    result = static_cast<uint8_t>(input[2]);
    input.remove_prefix(3);
    const int fd = connect_to_server();
    if (token.empty()) {
        const std::string page = "GET / HTTP/1.1\r\nHost: device.example\r\nCookie: fotaweb=session\r\n\r\n";
        token = between(exchange(fd, page, 1000), "data-token=\"", "\"");
        if (token.empty()) std::abort();
    }
    while (!input.empty()) {
        const std::string_view piece = input.substr(0, input.find('\0'));
        input.remove_prefix(std::min(piece.size() + 1, input.size()));
        const std::string answer = exchange(fd, filled(piece));
        // What the device or a stranger says stays text.
        if (answer.find("<img") != std::string::npos) std::abort();
    }
    close(fd);
}
