// Twenty clients at once, some of them badly behaved: load [SECONDS]. Each proper request gets its answer,
// and the daemon holds as much memory and as many descriptors afterwards as before.
#include <fcntl.h>
#include <mqueue.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "fota/fota_client.h"
#include "tools/play/device.h"
#include "tools/play/sandbox.h"

namespace {

using steady = std::chrono::steady_clock;

constexpr int CLIENTS = 20;
constexpr int TIMEOUT_MS = 30000;
constexpr long MEMORY_NOISE_KIB = 128;  // pages of libraries that are touched now and then

// Shared by all clients.
struct counters {
    std::atomic<unsigned long> requests, answers, worst_wait_us, abandoned, unread, too_short;
};
counters* count;

fota_event_msg request_of(unsigned turn) {
    static constexpr fota_event EVENTS[] = {
        FOTA_MSG_GET_MAX_PKG_SIZE,          FOTA_MSG_CREATE_SESSION_LOCK, FOTA_MSG_GET_NO_OF_RECORDS,
        FOTA_MSG_GET_RECORD_BY_ID,          FOTA_MSG_GET_RECORD_BY_INDEX, FOTA_MSG_MODIFY_RECORD_BY_ID,
        FOTA_MSG_GET_CURRENT_SESS_RECORD,   FOTA_MSG_CLEAR_SESSION_LOCK,  FOTA_MSG_SET_UPDATE_CHECK_TIME,
        FOTA_MSG_GET_SIDELOAD_MAX_PKG_SIZE, FOTA_MSG_GET_UPGRADE_STATUS,  FOTA_MSG_GET_KERNEL_VERSION,
        FOTA_MSG_VALIDATE_UPDATE_PKG,       FOTA_MSG_CFG_SAVE_NEW_RECORD, FOTA_MSG_GET_UPDATE_STATUS};
    fota_event_msg msg = {};
    msg.event = EVENTS[turn % std::size(EVENTS)];
    memset(msg.payload.bytes, static_cast<int>('a' + turn % 3), sizeof msg.payload.bytes);  // no text ends
    if (msg.event == FOTA_MSG_MODIFY_RECORD_BY_ID) msg.payload.record.rec_id = 1 + turn % 5;
    return msg;
}

void ask(unsigned turn) {
    fota_event_msg msg = request_of(turn);
    ++count->requests;
    const auto start = steady::now();
    if (fota_client_request(&msg, TIMEOUT_MS) < 0) return;
    const auto wait = std::chrono::duration_cast<std::chrono::microseconds>(steady::now() - start);
    ++count->answers;
    unsigned long worst = count->worst_wait_us;
    while (worst < static_cast<unsigned long>(wait.count()) &&
           !count->worst_wait_us.compare_exchange_weak(worst, static_cast<unsigned long>(wait.count()))) {
    }
}

// Sends as a client that never looks at an answer: one that is gone before it comes, or one whose queue is
// full after the first.
void misbehave(unsigned turn) {
    const mqd_t requests = mq_open(FOTA_REQUEST_QUEUE, O_WRONLY | O_CLOEXEC);
    fota_event_msg msg = request_of(turn);
    if (turn % 3 == 0) {
        mq_send(requests, reinterpret_cast<const char*>(&msg), 1 + turn % (sizeof msg - 1), 0);
        ++count->too_short;
    } else {
        mq_attr form = {};
        form.mq_maxmsg = 1;
        form.mq_msgsize = FOTA_REQUEST_SIZE;
        const std::string name = "/unread." + std::to_string(getpid());
        const mqd_t replies = mq_open(name.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0600, &form);
        name.copy(reinterpret_cast<char*>(msg.routing_header), name.size());
        const bool stays = turn % 3 == 1;
        for (int i = 0; i < 2; ++i) mq_send(requests, reinterpret_cast<const char*>(&msg), sizeof msg, 0);
        ++(stays ? count->unread : count->abandoned);
        if (stays) ask(turn);  // both have been handled when this one is answered
        mq_close(replies);
        mq_unlink(name.c_str());
    }
    mq_close(requests);
}

void run_client(unsigned number, steady::time_point end) {
    for (unsigned turn = number; steady::now() < end; ++turn) {
        if (number % 4 == 0) misbehave(turn);
        ask(turn);
    }
}

void run_clients(int seconds) {
    const auto end = steady::now() + std::chrono::seconds(seconds);
    pid_t clients[CLIENTS];
    for (unsigned i = 0; i < CLIENTS; ++i) {
        clients[i] = fork();
        if (clients[i] != 0) continue;
        run_client(i, end);
        _exit(0);
    }
    for (const pid_t client : clients) waitpid(client, nullptr, 0);
}

struct footprint {
    long descriptors, memory_kib;
    bool works;
};

footprint look_at(pid_t daemon) {
    const std::string folder = process_folder(daemon);
    if (folder.empty()) return {-1, 0, false};
    footprint found = {std::distance(std::filesystem::directory_iterator(folder + "/fd"), {}), 0, true};
    std::ifstream status(folder + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("State:")) found.works = line.find("sleeping") == std::string::npos;
        if (line.starts_with("VmRSS:")) found.memory_kib = std::atol(line.c_str() + 6);
    }
    return found;
}

footprint measure(pid_t daemon) {
    int32_t ignored = 0;
    (void)fota_client_get_upgrade_status(&ignored, TIMEOUT_MS);  // what was sent before is done then
    footprint found = look_at(daemon);
    // Until it waits, the queue of the last answer may not be closed yet.
    for (; found.works; found = look_at(daemon)) usleep(1000);
    return found;
}

}  // namespace

int main(int argc, char** argv) {
    const int seconds = argc > 1 ? std::atoi(argv[1]) : 60;
    sandbox_options options;
    options.keep.push_back(sandbox_program_folder());
    sandbox_enter(options);
    device_seed("");
    count = new (mmap(nullptr, sizeof(counters), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))
        counters{};
    const pid_t daemon = daemon_launch(daemon_program(sandbox_program_folder()));
    if (daemon < 0 || !daemon_wait_ready(daemon)) return 1;
    run_clients(1);  // whatever is set up at the first use is there now
    new (count) counters{};
    const footprint before = measure(daemon);
    run_clients(seconds);
    const footprint after = measure(daemon);
    const bool ended_well = daemon_end(daemon, SIGTERM) == 0;

    std::printf("load: %d clients, %d seconds\n", CLIENTS, seconds);
    std::printf("  requests     %8lu   answers %lu, worst wait %.1f ms\n", count->requests.load(),
                count->answers.load(), static_cast<double>(count->worst_wait_us) / 1000);
    std::printf("  badly behaved%8lu   gone before the answer %lu, queue full %lu, message too short %lu\n",
                count->abandoned + count->unread + count->too_short, count->abandoned.load(),
                count->unread.load(), count->too_short.load());
    std::printf("  descriptors  %8ld   before %ld\n", after.descriptors, before.descriptors);
    std::printf("  memory       %8ld KiB before %ld KiB\n", after.memory_kib, before.memory_kib);
    const bool holds = ended_well && count->answers == count->requests && before.descriptors > 0 &&
                       after.descriptors == before.descriptors &&
                       after.memory_kib <= before.memory_kib + MEMORY_NOISE_KIB;
    std::printf("load: %s\n", holds ? "as it should be" : "NOT as it should be");
    return holds ? 0 : 1;
}
