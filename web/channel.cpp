#include "web/channel.h"

#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

channel_ends make_channel() {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0)
        throw std::runtime_error(std::string("cannot make a socket pair: ") + std::strerror(errno));
    return {ends[0], ends[1]};
}

bool send_record(int channel, const void* record, size_t size, int fd) {
    iovec part = {const_cast<void*>(record), size};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    if (fd >= 0) {
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        cmsghdr* const header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(sizeof fd);
        std::memcpy(CMSG_DATA(header), &fd, sizeof fd);
    }
    ssize_t sent = 0;
    while ((sent = sendmsg(channel, &message, MSG_NOSIGNAL)) < 0 && errno == EINTR) {
    }
    return sent == static_cast<ssize_t>(size);
}

bool receive_record(int channel, void* record, size_t size, int* fd) {
    iovec part = {record, size};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    ssize_t received = 0;
    while ((received = recvmsg(channel, &message, MSG_CMSG_CLOEXEC)) < 0 && errno == EINTR) {
    }
    int passed = -1;
    const cmsghdr* const header = received >= 0 ? CMSG_FIRSTHDR(&message) : nullptr;
    if (header != nullptr && header->cmsg_level == SOL_SOCKET && header->cmsg_type == SCM_RIGHTS &&
        header->cmsg_len == CMSG_LEN(sizeof passed)) {
        std::memcpy(&passed, CMSG_DATA(header), sizeof passed);
    }
    if (fd != nullptr) {
        *fd = passed;
    } else if (passed >= 0) {
        close(passed);
    }
    return received == static_cast<ssize_t>(size) && (message.msg_flags & MSG_TRUNC) == 0;
}
