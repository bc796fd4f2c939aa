// Requests over message queues, timed: a client with nothing in it but the calls, and the least that a server
// can do for it, to hold the daemon against.
#pragma once

#include <mqueue.h>
#include <sys/types.h>

#include <chrono>
#include <string>

#include "fota/request.h"

using bench_clock = std::chrono::steady_clock;

[[nodiscard]] double micros_since(bench_clock::time_point start);

// One client, with a reply queue of its own for as long as it lives. Throws when a queue cannot be used.
class queue_client {
public:
    // Waits until the queue of the server is there.
    explicit queue_client(const std::string& server_queue);
    ~queue_client();
    queue_client(const queue_client&) = delete;
    queue_client& operator=(const queue_client&) = delete;

    // Sends a request and replaces it by its answer. Returns the microseconds that took.
    double round_trip(fota_event_msg& msg);

private:
    std::string reply_name_;
    mqd_t replies_ = -1;
    mqd_t requests_ = -1;
};

// Starts a process that answers on `queue` as the daemon does (select, receive, open the reply queue, send),
// and before that does the bare work of the events that need some, with files in `folder`: for
// FOTA_MSG_GET_RECORD_BY_ID it reads a history, for FOTA_MSG_MODIFY_RECORD_BY_ID it writes one beside and
// renames it, with the daemon's three syncs. Ends with SIGKILL; the queue stays.
[[nodiscard]] pid_t start_bare_server(const std::string& queue, const std::string& folder);
