#include "fota/fota_client.h"

#include <fcntl.h>
#include <mqueue.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <string_view>

#include "bus.h"

namespace {

static_assert(std::string_view(FOTA_CLIENT_VERSION) == FOTA_VERSION &&
                  FOTA_CLIENT_VERSION_NUMBER == FOTA_VERSION_NUMBER,
              "fota_client.h is of another version than the project");

constexpr char REPLY_QUEUE_PREFIX[] = "/fota_reply.";
constexpr int64_t NSECS_PER_MSEC = 1000000;
constexpr int REPLY_NAME_TRIES = 64;

struct routing_header {
    char reply_name[64];
    uint32_t pid;
    uint32_t sequence;
    uint8_t rest[144];  // zero
};
static_assert(sizeof(routing_header) == FOTA_ROUTING_HEADER_SIZE && offsetof(routing_header, pid) == 64 &&
              offsetof(routing_header, sequence) == 68);

std::atomic<uint32_t> next_reply_number{0};

// The reply queues that there are: process id, then number, 32 bits each. An entry whose process is not this
// one is free: none at all, or a copy from before a fork, whose calls are the parent's.
using live_reply = std::atomic<uint64_t>;
live_reply live_replies[64];
static_assert(live_reply::is_always_lock_free, "a signal handler reads them");

uint32_t own_pid() {
    return static_cast<uint32_t>(getpid());
}

uint64_t live_entry(uint32_t pid, uint32_t number) {
    return uint64_t{pid} << 32 | number;
}

// All may be taken: then the queue is not noted.
void note_live_reply(uint32_t pid, uint32_t number) {
    for (live_reply& entry : live_replies) {
        uint64_t seen = entry;
        if (seen >> 32 != pid && entry.compare_exchange_strong(seen, live_entry(pid, number))) return;
    }
}

void forget_live_reply(uint32_t pid, uint32_t number) {
    for (live_reply& entry : live_replies) {
        uint64_t seen = live_entry(pid, number);
        if (entry.compare_exchange_strong(seen, 0)) return;
    }
}

// Closes on every path; keeps errno.
struct request_queue {
    mqd_t fd = mq_open(FOTA_REQUEST_QUEUE, O_WRONLY | O_NONBLOCK | O_CLOEXEC);

    request_queue() = default;
    request_queue(const request_queue&) = delete;
    request_queue& operator=(const request_queue&) = delete;
    ~request_queue() {
        const int saved_errno = errno;
        if (fd >= 0) mq_close(fd);
        errno = saved_errno;
    }
};

int64_t now_nsecs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 * NSECS_PER_MSEC + now.tv_nsec;
}

// Neither locks nor allocates: a signal handler gets here.
void make_reply_name(char (&name)[64], uint32_t number) {
    char* const end = name + sizeof name - 1;
    char* p = name + sizeof REPLY_QUEUE_PREFIX - 1;
    memcpy(name, REPLY_QUEUE_PREFIX, sizeof REPLY_QUEUE_PREFIX - 1);
    p = std::to_chars(p, end, getpid()).ptr;
    *p++ = '.';
    *std::to_chars(p, end, number).ptr = '\0';
}

// Makes the reply queue of `call`, and says so in `route`; both are zero beforehand.
int make_reply_queue(fota_client_call& call, routing_header& route) {
    mq_attr form{};
    form.mq_maxmsg = 1;
    form.mq_msgsize = FOTA_REQUEST_SIZE;
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    call.pid = route.pid = own_pid();
    call.sequence = route.sequence = static_cast<uint32_t>(now_nsecs());
    for (int i = 0; i < REPLY_NAME_TRIES; ++i) {
        call.number = next_reply_number++;
        make_reply_name(route.reply_name, call.number);
        // Noted only when it is made, since until then the name may be somebody else's; and no handler of
        // this thread comes in between.
        pthread_sigmask(SIG_SETMASK, &all, &before);
        call.fd =
            mq_open(route.reply_name, O_RDONLY | O_CREAT | O_EXCL | O_NONBLOCK | O_CLOEXEC, 0600, &form);
        if (call.fd >= 0) note_live_reply(call.pid, call.number);
        pthread_sigmask(SIG_SETMASK, &before, nullptr);  // leaves errno
        if (call.fd >= 0) {
            fchmod(call.fd, 0600);  // the file-creation mask may have taken bits away
            return FOTA_RC_SUCCESS;
        }
        // Left by a dead process that had this id, or in use by another copy of this library in this process
        // or by a process of another container: which of them cannot be told, so it stays.
        if (errno != EEXIST) break;
    }
    return FOTA_CLIENT_NO_RESOURCES;
}

// Waits until `fd` is ready; false when the deadline has passed.
bool wait_ready(int fd, short events, int64_t deadline) {
    for (;;) {
        const int64_t left = deadline - now_nsecs();
        if (left <= 0) return false;
        pollfd waited{fd, events, 0};
        if (poll(&waited, 1, static_cast<int>((left + NSECS_PER_MSEC - 1) / NSECS_PER_MSEC)) > 0) return true;
    }
}

int put_request(const request_queue& requests, const fota_event_msg& msg, int64_t deadline) {
    while (mq_send(requests.fd, reinterpret_cast<const char*>(&msg), sizeof msg, 0) != 0) {
        if (errno == EINTR) continue;
        if (errno != EAGAIN) return FOTA_CLIENT_NO_RESOURCES;
        if (!wait_ready(requests.fd, POLLOUT, deadline)) return FOTA_CLIENT_NOT_YET;
    }
    return FOTA_RC_SUCCESS;
}

// Until the deadline it waits for room in the request queue.
int send_call(const fota_event_msg& msg, fota_client_call& call, int64_t deadline) {
    call = {-1, 0, 0, 0};
    const request_queue requests;
    if (requests.fd < 0) {
        if (errno == ENOENT) return FOTA_CLIENT_NO_DAEMON;
        return errno == EACCES ? FOTA_CLIENT_NO_PERMISSION : FOTA_CLIENT_NO_RESOURCES;
    }
    routing_header route{};
    int result = make_reply_queue(call, route);
    if (result != FOTA_RC_SUCCESS) return result;
    fota_event_msg sent = msg;
    memcpy(sent.routing_header, &route, sizeof route);
    result = put_request(requests, sent, deadline);
    if (result != FOTA_RC_SUCCESS) fota_client_end(&call);
    return result;
}

// Process ids come round again, so this queue's name may be that of a client which gave up, and what arrives
// the answer to that one.
bool is_answer(const fota_event_msg& msg, ssize_t size, uint32_t sequence) {
    if (size != FOTA_REQUEST_SIZE) return false;
    routing_header route;
    memcpy(&route, msg.routing_header, sizeof route);
    return route.sequence == sequence;
}

// The field is zero beforehand. False when there is no text or it does not fit.
template <size_t N>
[[nodiscard]] bool set_text(char (&field)[N], const char* text) {
    const size_t length = text == nullptr ? N : strnlen(text, N);
    if (length == N) return false;
    memcpy(field, text, length);
    return true;
}

template <size_t N>
bool is_ended(const char (&field)[N]) {
    return strnlen(field, N) < N;
}

bool are_texts_ended(const fota_pkg_info& info) {
    return is_ended(info.pkg_ver) && is_ended(info.pkg_name) && is_ended(info.pkg_description) &&
           is_ended(info.update_method) && is_ended(info.manufacturer) && is_ended(info.aux_text1) &&
           is_ended(info.aux_text2) && is_ended(info.agent_name);
}

bool are_texts_ended(const fota_history_rec& record) {
    return is_ended(record.reason) && is_ended(record.update_date) && are_texts_ended(record.pkg_info);
}

bool are_texts_ended(const fota_device_info& info) {
    return is_ended(info.modem_version) && is_ended(info.os_version) && is_ended(info.pri_version) &&
           is_ended(info.imei) && is_ended(info.mdn) && is_ended(info.model);
}

template <size_t N>
void end_text(char (&field)[N]) {
    field[N - 1] = '\0';
}

// Callers print what they get: whatever lies in the daemon's history, the texts that leave here have their
// NUL.
void copy_record(fota_history_rec* record, const fota_history_rec& from) {
    *record = from;
    end_text(record->reason);
    end_text(record->update_date);
    fota_pkg_info& info = record->pkg_info;
    end_text(info.pkg_ver);
    end_text(info.pkg_name);
    end_text(info.pkg_description);
    end_text(info.update_method);
    end_text(info.manufacturer);
    end_text(info.aux_text1);
    end_text(info.aux_text2);
    end_text(info.agent_name);
}

int call(fota_event event, fota_event_msg& msg, int timeout_ms) {
    msg.event = event;
    msg.result = 0;
    const int result = fota_client_request(&msg, timeout_ms);
    return result == 0 ? FOTA_CLIENT_UNKNOWN_EVENT : result;
}

int call_as_agent(fota_event event, const char* agent, fota_event_msg& msg, int timeout_ms) {
    if (!set_text(msg.payload.agent_id, agent)) return FOTA_CLIENT_BAD_ARGUMENT;
    return call(event, msg, timeout_ms);
}

int call_for_value(fota_event event, uint32_t* value, int timeout_ms) {
    if (value == nullptr) return FOTA_CLIENT_BAD_ARGUMENT;
    fota_event_msg msg{};
    const int result = call(event, msg, timeout_ms);
    if (result == FOTA_RC_SUCCESS) *value = msg.payload.value;
    return result;
}

// `msg` is zero but for the input.
int call_for_record(fota_event event, fota_event_msg& msg, fota_history_rec* record, int timeout_ms) {
    if (record == nullptr) return FOTA_CLIENT_BAD_ARGUMENT;
    const int result = call(event, msg, timeout_ms);
    if (result == FOTA_RC_SUCCESS) copy_record(record, msg.payload.record);
    return result;
}

int call_for_text(fota_event event, fota_event_msg& msg, char* text, int timeout_ms) {
    if (text == nullptr) return FOTA_CLIENT_BAD_ARGUMENT;
    const int result = call(event, msg, timeout_ms);
    if (result != FOTA_RC_SUCCESS) return result;
    end_text(msg.payload.text);
    memcpy(text, msg.payload.text, sizeof msg.payload.text);
    return result;
}

int call_for_pkg_version(fota_event event, const char* agent, char* text, int timeout_ms) {
    fota_event_msg msg{};
    if (!set_text(msg.payload.agent_id, agent)) return FOTA_CLIENT_BAD_ARGUMENT;
    return call_for_text(event, msg, text, timeout_ms);
}

int call_file_ops(fota_fops_code code, const char* path, fota_event_msg& msg, int timeout_ms) {
    if (!set_text(msg.payload.file_ops.fops_path, path)) return FOTA_CLIENT_BAD_ARGUMENT;
    msg.payload.file_ops.fops_code = code;
    return call(FOTA_MSG_FILE_OPS, msg, timeout_ms);
}

}  // namespace

const char* fota_client_version(void) {
    return FOTA_CLIENT_VERSION;
}

int fota_client_request(fota_event_msg* msg, int timeout_ms) {
    if (msg == nullptr || timeout_ms <= 0) return FOTA_CLIENT_BAD_ARGUMENT;
    const int64_t deadline = now_nsecs() + timeout_ms * NSECS_PER_MSEC;
    fota_client_call call;
    int result = send_call(*msg, call, deadline);
    if (result != FOTA_RC_SUCCESS) return result == FOTA_CLIENT_NOT_YET ? int{FOTA_CLIENT_TIMEOUT} : result;
    do {
        result = wait_ready(call.fd, POLLIN, deadline) ? fota_client_receive(&call, msg)
                                                       : int{FOTA_CLIENT_TIMEOUT};
    } while (result == FOTA_CLIENT_NOT_YET);
    fota_client_end(&call);
    return result;
}

int fota_client_send(const fota_event_msg* msg, fota_client_call* call) {
    if (call != nullptr) call->fd = -1;
    if (msg == nullptr || call == nullptr) return FOTA_CLIENT_BAD_ARGUMENT;
    return send_call(*msg, *call, 0);
}

int fota_client_receive(fota_client_call* call, fota_event_msg* answer) {
    if (call == nullptr || call->fd < 0 || answer == nullptr) return FOTA_CLIENT_BAD_ARGUMENT;
    fota_event_msg msg;
    const ssize_t size = mq_receive(call->fd, reinterpret_cast<char*>(&msg), sizeof msg, nullptr);
    if (size < 0 && errno != EINTR && errno != EAGAIN) return FOTA_CLIENT_NO_RESOURCES;
    if (!is_answer(msg, size, call->sequence)) return FOTA_CLIENT_NOT_YET;
    *answer = msg;
    return static_cast<int>(msg.result);
}

void fota_client_end(fota_client_call* call) {
    if (call == nullptr || call->fd < 0) return;
    const int saved_errno = errno;
    mq_close(call->fd);
    call->fd = -1;
    if (call->pid == own_pid()) {  // otherwise it is a copy, and the queue is the parent's
        char name[64];
        make_reply_name(name, call->number);
        mq_unlink(name);
        forget_live_reply(call->pid, call->number);  // last: a handler may come in between
    }
    errno = saved_errno;
}

int fota_client_broadcasts_open(void) {
    return fota_bus_open();
}

int fota_client_broadcast_next(int fd, fota_broadcast* broadcast) {
    if (fd < 0 || broadcast == nullptr) return FOTA_CLIENT_BAD_ARGUMENT;
    static constexpr struct {
        fota_broadcast_key key;
        std::string_view name;
        size_t size;
    } KEYS[] = {
#define KEY(key, number, name, size) {key, name, size},
        FOTA_BROADCASTS(KEY)
#undef KEY
    };
    fota_bus_change change;
    const int result = fota_bus_next(fd, &change);
    if (result != FOTA_RC_SUCCESS) return result;
    for (const auto& row : KEYS) {
        if (row.name != change.key || row.size != change.size) continue;
        memset(broadcast, 0, sizeof *broadcast);
        broadcast->key = row.key;
        if (row.size == sizeof(fota_history_rec)) {
            copy_record(&broadcast->record, change.record);
        } else {
            broadcast->value = change.number;  // the low half of a 64-bit one, which holds it all
        }
        return FOTA_RC_SUCCESS;
    }
    return FOTA_CLIENT_NOT_YET;
}

void fota_client_remove_reply_queues(void) {
    const int saved_errno = errno;
    const uint32_t pid = own_pid();
    for (const live_reply& entry : live_replies) {
        const uint64_t seen = entry;
        if (seen >> 32 != pid) continue;
        char name[64];
        make_reply_name(name, static_cast<uint32_t>(seen));
        mq_unlink(name);
    }
    errno = saved_errno;
}

int fota_client_create_session_lock(const char* agent, int timeout_ms) {
    fota_event_msg msg{};
    return call_as_agent(FOTA_MSG_CREATE_SESSION_LOCK, agent, msg, timeout_ms);
}

int fota_client_clear_session_lock(const char* agent, int timeout_ms) {
    fota_event_msg msg{};
    return call_as_agent(FOTA_MSG_CLEAR_SESSION_LOCK, agent, msg, timeout_ms);
}

int fota_client_get_max_pkg_size(uint32_t* bytes, int timeout_ms) {
    return call_for_value(FOTA_MSG_GET_MAX_PKG_SIZE, bytes, timeout_ms);
}

int fota_client_get_sideload_max_pkg_size(uint32_t* bytes, int timeout_ms) {
    return call_for_value(FOTA_MSG_GET_SIDELOAD_MAX_PKG_SIZE, bytes, timeout_ms);
}

int fota_client_validate_update_pkg(const char* path, const fota_pkg_info* info, uint32_t* rec_id,
                                    int timeout_ms) {
    if (rec_id == nullptr) return FOTA_CLIENT_BAD_ARGUMENT;
    *rec_id = 0;
    fota_event_msg msg{};
    fota_validate_request& request = msg.payload.validate;
    if (info == nullptr || !are_texts_ended(*info) || !set_text(request.pkg_path, path)) {
        return FOTA_CLIENT_BAD_ARGUMENT;
    }
    request.pkg_info = *info;
    const int result = call(FOTA_MSG_VALIDATE_UPDATE_PKG, msg, timeout_ms);
    // No other result comes with a record; a dropped request comes back with the path still where the id
    // would be.
    if (result == FOTA_RC_SUCCESS || result == FOTA_RC_FAILURE) *rec_id = msg.payload.value;
    return result;
}

int fota_client_get_src_pkg_version(const char* agent, char* text, int timeout_ms) {
    return call_for_pkg_version(FOTA_MSG_GET_SRC_PKG_VERSION, agent, text, timeout_ms);
}

int fota_client_get_tgt_pkg_version(const char* agent, char* text, int timeout_ms) {
    return call_for_pkg_version(FOTA_MSG_GET_TGT_PKG_VERSION, agent, text, timeout_ms);
}

int fota_client_get_current_sess_record(const char* agent, fota_history_rec* record, int timeout_ms) {
    fota_event_msg msg{};
    if (!set_text(msg.payload.record.pkg_info.agent_name, agent)) return FOTA_CLIENT_BAD_ARGUMENT;
    return call_for_record(FOTA_MSG_GET_CURRENT_SESS_RECORD, msg, record, timeout_ms);
}

int fota_client_incr_install_defer_count(const char* agent, int timeout_ms) {
    fota_event_msg msg{};
    return call_as_agent(FOTA_MSG_INCR_INSTALL_DEFER_COUNT, agent, msg, timeout_ms);
}

int fota_client_start_installation(const char* agent, uint32_t boot_preference, uint32_t wait_secs,
                                   int timeout_ms) {
    fota_event_msg msg{};
    fota_install_request& request = msg.payload.install;
    if (!set_text(request.agent_id, agent)) return FOTA_CLIENT_BAD_ARGUMENT;
    request.boot_preference = boot_preference;
    request.wait_secs = wait_secs;
    return call(FOTA_MSG_START_INSTALLATION, msg, timeout_ms);
}

int fota_client_abort_current_session(const char* agent, uint32_t status, const char* reason,
                                      int timeout_ms) {
    fota_event_msg msg{};
    fota_abort_request& request = msg.payload.abort;
    if (!set_text(request.agent_id, agent) || !set_text(request.reason, reason))
        return FOTA_CLIENT_BAD_ARGUMENT;
    request.status = status;
    return call(FOTA_MSG_ABORT_CURRENT_SESS, msg, timeout_ms);
}

int fota_client_get_update_status(const char* agent, fota_history_rec* record, int timeout_ms) {
    fota_event_msg msg{};
    if (!set_text(msg.payload.agent_id, agent)) return FOTA_CLIENT_BAD_ARGUMENT;
    return call_for_record(FOTA_MSG_GET_UPDATE_STATUS, msg, record, timeout_ms);
}

int fota_client_get_revert_status(fota_history_rec* record, int timeout_ms) {
    fota_event_msg msg{};
    return call_for_record(FOTA_MSG_GET_REVERT_STATUS, msg, record, timeout_ms);
}

int fota_client_get_upgrade_status(int32_t* status, int timeout_ms) {
    return call_for_value(FOTA_MSG_GET_UPGRADE_STATUS, reinterpret_cast<uint32_t*>(status), timeout_ms);
}

int fota_client_sideload_prepare_package(const char* path, int timeout_ms) {
    fota_event_msg msg{};
    if (!set_text(msg.payload.text, path)) return FOTA_CLIENT_BAD_ARGUMENT;
    return call(FOTA_MSG_SIDELOAD_PREPARE_PACKAGE, msg, timeout_ms);
}

int fota_client_sideload_start_installation(const char* agent, const char* path, uint32_t* est_secs,
                                            int timeout_ms) {
    fota_event_msg msg{};
    fota_sideload_request& request = msg.payload.sideload;
    if (est_secs == nullptr || !set_text(request.agent_id, agent) || !set_text(request.pkg_path, path))
        return FOTA_CLIENT_BAD_ARGUMENT;
    const int result = call(FOTA_MSG_SIDELOAD_START_INSTALLATION, msg, timeout_ms);
    if (result == FOTA_RC_SUCCESS) *est_secs = request.est_update_time;
    return result;
}

int fota_client_sua_update_start(const fota_device_info* info, int timeout_ms) {
    if (info == nullptr || !are_texts_ended(*info)) return FOTA_CLIENT_BAD_ARGUMENT;
    fota_event_msg msg{};
    msg.payload.device_info = *info;
    return call(FOTA_MSG_SUA_UPATE_START, msg, timeout_ms);
}

int fota_client_factory_reset(int timeout_ms) {
    fota_event_msg msg{};
    return call(FOTA_MSG_FACTORY_RESET, msg, timeout_ms);
}

int fota_client_get_record_count(fota_record_count* count, int timeout_ms) {
    if (count == nullptr) return FOTA_CLIENT_BAD_ARGUMENT;
    fota_event_msg msg{};
    const int result = call(FOTA_MSG_GET_NO_OF_RECORDS, msg, timeout_ms);
    if (result != FOTA_RC_SUCCESS) return result;
    *count = msg.payload.record_count;
    end_text(count->list);
    return result;
}

int fota_client_get_record_by_index(uint32_t index, fota_history_rec* record, int timeout_ms) {
    fota_event_msg msg{};
    msg.payload.value = index;
    return call_for_record(FOTA_MSG_GET_RECORD_BY_INDEX, msg, record, timeout_ms);
}

int fota_client_get_record_by_id(uint32_t rec_id, fota_history_rec* record, int timeout_ms) {
    fota_event_msg msg{};
    msg.payload.record.rec_id = rec_id;
    return call_for_record(FOTA_MSG_GET_RECORD_BY_ID, msg, record, timeout_ms);
}

int fota_client_get_last_success_rec(fota_history_rec* record, int timeout_ms) {
    // Without a record the daemon sends back what it got.
    fota_event_msg msg{};
    return call_for_record(FOTA_MSG_GET_LAST_SUCCESS_REC, msg, record, timeout_ms);
}

int fota_client_modify_record_by_id(fota_history_rec* record, int timeout_ms) {
    if (record == nullptr || !are_texts_ended(*record)) return FOTA_CLIENT_BAD_ARGUMENT;
    fota_event_msg msg{};
    msg.payload.record = *record;
    return call_for_record(FOTA_MSG_MODIFY_RECORD_BY_ID, msg, record, timeout_ms);
}

int fota_client_cfg_get_current_record(fota_history_rec* record, int timeout_ms) {
    fota_event_msg msg{};
    return call_for_record(FOTA_MSG_CFG_GET_CURRENT_RECORD, msg, record, timeout_ms);
}

int fota_client_cfg_save_new_record(const char* date, const char* version, const char* firmware,
                                    int timeout_ms) {
    fota_event_msg msg{};
    fota_history_rec& record = msg.payload.record;
    if (!set_text(record.update_date, date) || !set_text(record.pkg_info.pkg_ver, version) ||
        !set_text(record.pkg_info.pkg_description, firmware)) {
        return FOTA_CLIENT_BAD_ARGUMENT;
    }
    return call(FOTA_MSG_CFG_SAVE_NEW_RECORD, msg, timeout_ms);
}

int fota_client_get_update_check_time(char* text, int timeout_ms) {
    fota_event_msg msg{};
    return call_for_text(FOTA_MSG_GET_UPDATE_CHECK_TIME, msg, text, timeout_ms);
}

int fota_client_set_update_check_time(const char* text, int timeout_ms) {
    fota_event_msg msg{};
    if (!set_text(msg.payload.text, text)) return FOTA_CLIENT_BAD_ARGUMENT;
    return call(FOTA_MSG_SET_UPDATE_CHECK_TIME, msg, timeout_ms);
}

int fota_client_get_kernel_version(char* text, int timeout_ms) {
    fota_event_msg msg{};
    return call_for_text(FOTA_MSG_GET_KERNEL_VERSION, msg, text, timeout_ms);
}

int fota_client_stop_in_recovery(int stop, int timeout_ms) {
    fota_event_msg msg{};
    msg.payload.value = stop != 0 ? 1 : 0;
    return call(FOTA_MSG_STOP_IN_RECOVERY, msg, timeout_ms);
}

int fota_client_decrypt_pkg(int timeout_ms) {
    fota_event_msg msg{};
    return call(FOTA_MSG_DECRYPT_PKG, msg, timeout_ms);
}

int fota_client_file_create(const char* path, int timeout_ms) {
    fota_event_msg msg{};
    return call_file_ops(FOTA_FOPS_CREATE_ONLY, path, msg, timeout_ms);
}

int fota_client_file_write(const char* path, const void* data, size_t size, int timeout_ms) {
    fota_event_msg msg{};
    fota_file_ops& request = msg.payload.file_ops;
    if (size > sizeof request.fops_data || (size > 0 && data == nullptr)) return FOTA_CLIENT_BAD_ARGUMENT;
    if (size > 0) memcpy(request.fops_data, data, size);
    request.fops_data_len = static_cast<uint32_t>(size);
    return call_file_ops(FOTA_FOPS_CREATE_AND_WRITE, path, msg, timeout_ms);
}

int fota_client_file_read_str(const char* path, char* text, int timeout_ms) {
    if (text == nullptr) return FOTA_CLIENT_BAD_ARGUMENT;
    fota_event_msg msg{};
    const int result = call_file_ops(FOTA_FOPS_READ_STR, path, msg, timeout_ms);
    if (result != FOTA_RC_SUCCESS) return result;
    const size_t length = strnlen(msg.payload.file_ops.fops_data, FOTA_TEXT_SIZE - 1);
    memcpy(text, msg.payload.file_ops.fops_data, length);
    text[length] = '\0';
    return result;
}

int fota_client_file_read_uint32(const char* path, uint32_t* value, int timeout_ms) {
    if (value == nullptr) return FOTA_CLIENT_BAD_ARGUMENT;
    fota_event_msg msg{};
    const int result = call_file_ops(FOTA_FOPS_READ_UINT32, path, msg, timeout_ms);
    if (result == FOTA_RC_SUCCESS) memcpy(value, msg.payload.file_ops.fops_data, sizeof *value);
    return result;
}

int fota_client_file_remove(const char* path, int timeout_ms) {
    fota_event_msg msg{};
    return call_file_ops(FOTA_FOPS_REMOVE, path, msg, timeout_ms);
}
