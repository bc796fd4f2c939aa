#include "msgq.h"

#include <fcntl.h>
#include <mqueue.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include "service_files.h"
#include "vexa_dbg.h"

namespace {

// The routing header begins with the reply queue's name.
constexpr int ROUTING_HEADER_SIZE = 216;
constexpr size_t REPLY_NAME_SIZE = 64;

constexpr int RECEIVING = O_RDONLY | O_NONBLOCK | O_CLOEXEC;
constexpr int SENDING = O_WRONLY | O_NONBLOCK | O_CLOEXEC;

// A queue that this process receives on. Callers close the descriptor themselves, so the table does not keep
// it.
struct own_queue {
    char name[NAME_MAX + 2];
    dev_t device;
    ino_t inode;
};
own_queue own_queues[4];

own_queue* find_own_queue(const char* name) {
    for (own_queue& own : own_queues) {
        if (strcmp(own.name, name) == 0) return &own;
    }
    return nullptr;
}

bool is_own_queue(int queue) {
    struct stat info = {};
    if (fstat(queue, &info) != 0) return true;
    for (const own_queue& own : own_queues) {
        if (own.name[0] != '\0' && own.device == info.st_dev && own.inode == info.st_ino) return true;
    }
    return false;
}

// -1 with ENOENT when there is none, or none of this form any more.
int open_existing(const char* name, int max_msg_size, int depth) {
    const int queue = mq_open(name, RECEIVING);
    if (queue < 0) return -1;
    mq_attr form = {};
    struct stat info = {};
    const bool same_form =
        mq_getattr(queue, &form) == 0 && form.mq_msgsize == max_msg_size && form.mq_maxmsg == depth;
    // One that another user made beforehand would let that user read and forge every request.
    if (same_form && fstat(queue, &info) == 0 && info.st_uid == geteuid()) return queue;
    mq_close(queue);
    mq_unlink(name);
    errno = ENOENT;
    return -1;
}

int create_new(const char* name, int max_msg_size, int depth) {
    mq_attr form = {};
    form.mq_msgsize = max_msg_size;
    form.mq_maxmsg = depth;
    return mq_open(name, RECEIVING | O_CREAT | O_EXCL, 0660, &form);
}

bool is_printable(char byte) {
    return byte >= ' ' && byte <= '~';
}

bool is_queue_name(const char* name) {
    const size_t length = strnlen(name, REPLY_NAME_SIZE);
    if (length == REPLY_NAME_SIZE || length < 2 || name[0] != '/') return false;
    for (size_t i = 1; i < length; ++i) {
        if (name[i] == '/' || !is_printable(name[i])) return false;
    }
    return true;
}

// The name came from a client: what a terminal would act on is shown as its number.
int not_sent(const char* name, const char* reason) {
    char shown[REPLY_NAME_SIZE * 4 + 1] = "";
    char* end = shown;
    const size_t length = strnlen(name, REPLY_NAME_SIZE);
    for (size_t i = 0; i < length; ++i) {
        const auto byte = static_cast<unsigned char>(name[i]);
        end += is_printable(name[i]) ? snprintf(end, 5, "%c", byte) : snprintf(end, 5, "\\x%02x", byte);
    }
    vexa_dbg_log("MSGQ", 3, "[MSGQ]:[%s] - msgq_resp_handler: no response to queue [%s]: %s",
                 vexa_dbg_get_level_name(3), shown, reason);
    return -1;
}

}  // namespace

extern "C" int msgq_create(const char* name, int max_msg_size, int depth) {
    own_queue* own = find_own_queue(name);
    if (own == nullptr) own = find_own_queue("");
    if (own == nullptr) {
        errno = EMFILE;
        return -1;
    }
    int queue = open_existing(name, max_msg_size, depth);
    if (queue < 0 && errno == ENOENT) queue = create_new(name, max_msg_size, depth);
    if (queue < 0) return -1;
    struct stat info = {};
    if (fchmod(queue, 0660) != 0 || fstat(queue, &info) != 0) {
        const platform::scoped_fd closes(queue);
        return -1;
    }
    snprintf(own->name, sizeof own->name, "%s", name);
    own->device = info.st_dev;
    own->inode = info.st_ino;
    return queue;
}

extern "C" int msgq_receive(int queue, void* buffer, int size, int) {
    if (size < 0) {
        errno = EINVAL;
        return -1;
    }
    return static_cast<int>(
        mq_receive(queue, static_cast<char*>(buffer), static_cast<size_t>(size), nullptr));
}

extern "C" int msgq_resp_handler(const void* buffer, int size) {
    const char* message = static_cast<const char*>(buffer);
    if (size < ROUTING_HEADER_SIZE) return not_sent("", "the message is shorter than its routing header");
    const char* name = message;
    if (!is_queue_name(name)) return not_sent(name, "malformed name");
    if (find_own_queue(name) != nullptr) return not_sent(name, "this process receives on it");
    const platform::scoped_fd queue(mq_open(name, SENDING));
    if (queue.fd < 0) return not_sent(name, strerror(errno));
    if (is_own_queue(queue.fd)) return not_sent(name, "this process receives on it");
    if (mq_send(queue.fd, message, static_cast<size_t>(size), 0) != 0) return not_sent(name, strerror(errno));
    return 0;
}
