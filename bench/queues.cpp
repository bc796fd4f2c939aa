#include "queues.h"

#include <fcntl.h>
#include <sys/select.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace {

constexpr double ANSWER_SECS = 600;

char history[20 * sizeof(fota_history_rec)];

[[noreturn]] void fail(const std::string& what) {
    throw std::runtime_error(what + ": " + std::strerror(errno));
}

mqd_t make_queue(const std::string& name, int depth) {
    mq_attr form = {};
    form.mq_maxmsg = depth;
    form.mq_msgsize = FOTA_REQUEST_SIZE;
    mq_unlink(name.c_str());
    const mqd_t queue = mq_open(name.c_str(), O_RDONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600, &form);
    if (queue < 0) fail("cannot make the queue " + name);
    return queue;
}

void read_history(const std::string& file) {
    const int fd = open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (read(fd, history, sizeof history) != sizeof history) fail("cannot read " + file);
    close(fd);
}

void sync_folder(const std::string& folder) {
    const int fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fsync(fd) != 0) fail("cannot sync " + folder);
    close(fd);
}

// The file gets its name when it is whole and synced, as the daemon's do, and then the other one's.
void write_history(const std::string& folder, const std::string& file) {
    const std::string written = folder + "/history.tmp";
    const int fd = open(folder.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0666);
    if (write(fd, history, sizeof history) != sizeof history || fsync(fd) != 0)
        fail("cannot write " + written);
    const std::string unnamed = "/proc/self/fd/" + std::to_string(fd);
    if (linkat(AT_FDCWD, unnamed.c_str(), AT_FDCWD, written.c_str(), AT_SYMLINK_FOLLOW) != 0)
        fail("cannot name " + written);
    close(fd);
    sync_folder(folder);
    if (rename(written.c_str(), file.c_str()) != 0) fail("cannot rename " + written);
    sync_folder(folder);
}

[[noreturn]] void serve(mqd_t queue, const std::string& folder) {
    const std::string file = folder + "/history.bin";
    fota_event_msg msg;
    for (;;) {
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(queue, &readable);
        timeval timeout = {20, 0};
        if (select(queue + 1, &readable, nullptr, nullptr, &timeout) <= 0) continue;
        if (mq_receive(queue, reinterpret_cast<char*>(&msg), sizeof msg, nullptr) != sizeof msg) continue;
        if (msg.event == FOTA_MSG_GET_RECORD_BY_ID) read_history(file);
        if (msg.event == FOTA_MSG_MODIFY_RECORD_BY_ID) write_history(folder, file);
        msg.result = FOTA_RC_SUCCESS;
        const mqd_t reply =
            mq_open(reinterpret_cast<const char*>(msg.routing_header), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        mq_send(reply, reinterpret_cast<const char*>(&msg), sizeof msg, 0);
        mq_close(reply);
    }
}

}  // namespace

double micros_since(bench_clock::time_point start) {
    return std::chrono::duration<double, std::micro>(bench_clock::now() - start).count();
}

queue_client::queue_client(const std::string& server_queue)
    : reply_name_("/bench_reply." + server_queue.substr(1)), replies_(make_queue(reply_name_, 1)) {
    const auto start = bench_clock::now();
    while ((requests_ = mq_open(server_queue.c_str(), O_WRONLY | O_CLOEXEC)) < 0) {
        if (micros_since(start) > 20e6) throw std::runtime_error("nobody makes the queue " + server_queue);
        usleep(20);  // the server may need this core
    }
}

queue_client::~queue_client() {
    mq_close(requests_);
    mq_close(replies_);
    mq_unlink(reply_name_.c_str());
}

double queue_client::round_trip(fota_event_msg& msg) {
    memset(msg.routing_header, 0, sizeof msg.routing_header);
    memcpy(msg.routing_header, reply_name_.c_str(), reply_name_.size());
    timespec deadline = {};
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += static_cast<time_t>(ANSWER_SECS);
    char* const bytes = reinterpret_cast<char*>(&msg);
    const auto start = bench_clock::now();
    if (mq_timedsend(requests_, bytes, sizeof msg, 0, &deadline) != 0 ||
        mq_timedreceive(replies_, bytes, sizeof msg, nullptr, &deadline) != sizeof msg) {
        fail("no answer");
    }
    return micros_since(start);
}

pid_t start_bare_server(const std::string& queue, const std::string& folder) {
    const mqd_t requests = make_queue(queue, FOTA_REQUEST_QUEUE_DEPTH);
    const pid_t server = fork();
    if (server != 0) {
        mq_close(requests);
        return server;
    }
    try {
        write_history(folder, folder + "/history.bin");
        serve(requests, folder);
    } catch (const std::exception& error) {
        fprintf(stderr, "bare server: %s\n", error.what());
    }
    _exit(1);
}
