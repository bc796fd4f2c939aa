/*
 * Client library of the update daemon: one call per request. Valid C99 and C++11.
 *
 *  1. Results. A call sends one record to the daemon's queue and waits for the answer; only those without
 *     `timeout_ms` never wait. It returns the daemon's result code (FOTA_RC_..., always positive), or one of
 *     the negative FOTA_CLIENT_... codes when there was no answer. Whoever ignores it is warned.
 *  2. Outputs are written only with FOTA_RC_SUCCESS, where a call does not say otherwise: after any other
 *     result they are as before.
 *  3. Memory is the caller's, inputs and outputs alike, and no call keeps a pointer to it. The texts that
 *     functions return are constant and are never freed.
 *  4. No pointer may be null, where a call does not say otherwise: FOTA_CLIENT_BAD_ARGUMENT, and nothing is
 *     sent.
 *  5. Texts are bytes with a NUL at the end, in no particular encoding. One that is longer than its field is
 *     never cut: FOTA_CLIENT_BAD_ARGUMENT, and nothing is sent. Those that come back end inside their field;
 *     a `text` output holds FOTA_TEXT_SIZE bytes, and one that the daemon read from a file may keep the line
 *     end that is there.
 *  6. Time. A call ends `timeout_ms` milliseconds after its begin at the latest, whatever the daemon does.
 * Any positive number will do; validating a large package takes minutes on a slow device. A request that
 *     timed out may still be carried out, as long as it waits in the daemon's queue.
 *  7. Threads. Calls keep no state and may run on several threads at once; the daemon serves one after the
 *     other.
 *  8. Signals. A call goes on when a handler returns. A handler may call fota_client_remove_reply_queues and
 *     nothing else of this library.
 *  9. Processes. A child may make calls of its own, but not go on with one that another thread of its parent
 *     was making. A program that is executed inherits nothing.
 * 10. errno tells the cause with FOTA_CLIENT_NO_RESOURCES, and nothing otherwise.
 */
#ifndef FOTA_CLIENT_H
#define FOTA_CLIENT_H

#include <stddef.h>

#include "fota/request.h"

/* Of this header; fota_client_version() tells that of the library. The number is for the preprocessor. */
#define FOTA_CLIENT_VERSION "0.1.0"
#define FOTA_CLIENT_VERSION_NUMBER 100 /* 10000 * MAJOR + 100 * MINOR + PATCH */

#if __cplusplus >= 201703L
#define FOTA_NODISCARD [[nodiscard]]
#elif defined(__GNUC__)
#define FOTA_NODISCARD __attribute__((warn_unused_result))
#else
#define FOTA_NODISCARD
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* clang-format off */

/* Why there is no answer: X(name, value, meaning). BAD_ARGUMENT is also a time that is not positive. */
#define FOTA_CLIENT_ERRORS(X)                                                                       \
    X(FOTA_CLIENT_NO_DAEMON,     -1, "the daemon is not running: its request queue does not exist") \
    X(FOTA_CLIENT_NO_PERMISSION, -2, "this user may not write to the daemon's request queue")       \
    X(FOTA_CLIENT_TIMEOUT,       -3, "the daemon did not answer in time")                           \
    X(FOTA_CLIENT_NO_RESOURCES,  -4, "the message queues of this system cannot be used")            \
    X(FOTA_CLIENT_BAD_ARGUMENT,  -5, "an argument does not fit into the request")                   \
    X(FOTA_CLIENT_UNKNOWN_EVENT, -6, "the daemon does not know this request")                       \
    X(FOTA_CLIENT_NOT_YET,       -7, "there is no room, no answer or no broadcast yet")

#define FOTA_CLIENT_ERROR(name, value, meaning) name = (value),
enum fota_client_error { FOTA_CLIENT_ERRORS(FOTA_CLIENT_ERROR) };
#undef FOTA_CLIENT_ERROR

/* What the daemon announces to all, without being asked: X(name, number, key on the message bus, bytes). */
#define FOTA_BROADCASTS(X)                                                                                      \
    X(FOTA_BROADCAST_UPGRADE_STATUS,       1, "fota.upgrade_status", 8)       /* value: as get_upgrade_status */ \
    X(FOTA_BROADCAST_UPDATE_STATUS,        2, "fota.update_status", 2844)     /* record: an update's outcome */  \
    X(FOTA_BROADCAST_REVERT_STATUS,        3, "fota.revert_status", 2844)     /* record: a fall-back */          \
    X(FOTA_BROADCAST_BACKUP_BEFORE_UPDATE, 4, "fota.backup_before_update", 4) /* value: seconds until it starts */

#define FOTA_BROADCAST(name, number, key, bytes) name = (number),
enum fota_broadcast_key { FOTA_BROADCASTS(FOTA_BROADCAST) };
#undef FOTA_BROADCAST
/* clang-format on */

typedef struct fota_broadcast {
    int32_t key; /* FOTA_BROADCAST_... */
    int32_t value;
    fota_history_rec record; /* zeros when the key has a value */
} fota_broadcast;

/* A request under way. All but `fd` is the library's. */
typedef struct fota_client_call {
    int32_t fd; /* readable when there is something to receive; -1: none */
    uint32_t pid;
    uint32_t number;
    uint32_t sequence;
} fota_client_call;

FOTA_LAYOUT(sizeof(fota_broadcast) == 2852 && offsetof(fota_broadcast, value) == 4 &&
            offsetof(fota_broadcast, record) == 8);
FOTA_LAYOUT(sizeof(fota_client_call) == 16 && offsetof(fota_client_call, pid) == 4 &&
            offsetof(fota_client_call, number) == 8 && offsetof(fota_client_call, sequence) == 12);

/* "MAJOR.MINOR.PATCH" of the library. */
const char* fota_client_version(void);

/*
 * Sends `*msg` and replaces it by the answer; without one it is as before. Its routing header is filled here.
 * The answer's `result` is returned, and for an event that the daemon does not know that is the `result` that
 * the caller put in.
 */
FOTA_NODISCARD int fota_client_request(fota_event_msg* msg, int timeout_ms);

/*
 * The same without waiting. fota_client_send puts a copy of `*msg` on the daemon's queue and fills `*call`;
 * after any result but FOTA_RC_SUCCESS there is no call, and call->fd is -1. FOTA_CLIENT_NOT_YET: the queue
 * is full; try again later.
 *
 * When call->fd can be read, fota_client_receive fetches the answer into `*answer` and returns its `result`;
 * FOTA_CLIENT_NOT_YET: it is not there, and `*answer` is as before. A daemon that ends does not answer: the
 * caller gives up when it likes. Texts in an answer may lack their NUL.
 *
 * fota_client_end gives back what a call holds, whether it was answered or not, and sets call->fd to -1. The
 * request may still be carried out. Does nothing when there is no call, and keeps errno.
 *
 * A call may pass from thread to thread, but is used by one at a time. A child of the process may only end
 * its copy of one, which leaves the parent's alone.
 */
FOTA_NODISCARD int fota_client_send(const fota_event_msg* msg, fota_client_call* call);
FOTA_NODISCARD int fota_client_receive(fota_client_call* call, fota_event_msg* answer);
void fota_client_end(fota_client_call* call);

/*
 * Broadcasts. fota_client_broadcasts_open returns a descriptor (0 or more, close-on-exec), which the caller
 * closes with close(), or a negative FOTA_CLIENT_... code: NO_DAEMON when there is no message bus, which is
 * made by the daemon's start at the latest; NO_RESOURCES when the port has none that programs may listen to
 * (errno ENOTSUP), or for another cause in errno.
 *
 * When the descriptor can be read, fota_client_broadcast_next fetches one broadcast, without waiting.
 * FOTA_CLIENT_NOT_YET: there was none, but something else on the bus; poll again. FOTA_CLIENT_NO_RESOURCES:
 * some were missed (errno EOVERFLOW), or none will come any more: ask by request, and open again. What was
 * broadcast before the opening does not come. The value is the latest: of two that follow closely, the second
 * may come twice.
 *
 * One thread uses a descriptor at a time; a child opens its own, since one that is shared hands out each
 * broadcast once.
 */
FOTA_NODISCARD int fota_client_broadcasts_open(void);
FOTA_NODISCARD int fota_client_broadcast_next(int fd, fota_broadcast* broadcast);

/*
 * Removes the reply queues of the calls under way in this process, and no others: a child leaves those of its
 * parent. A call that waits, and fota_client_end, remove their own; this is for the signal handler of a
 * program that ends in the middle of one. Safe in a signal handler. It knows of 64 calls at once: more of
 * them work, but their queues stay. So does one that another thread is just making.
 */
void fota_client_remove_reply_queues(void);

/*
 * Session: the lock that lets one agent at a time drive an update. Clearing it throws the session's package
 * away.
 */
FOTA_NODISCARD int fota_client_create_session_lock(const char* agent, int timeout_ms);
FOTA_NODISCARD int fota_client_clear_session_lock(const char* agent, int timeout_ms);

/*
 * Largest package, in bytes, that agents are to bring now over the air, and by side-load. Only the start of a
 * side-load looks at a package's size, and refuses what is more than twice as large.
 */
FOTA_NODISCARD int fota_client_get_max_pkg_size(uint32_t* bytes, int timeout_ms);
FOTA_NODISCARD int fota_client_get_sideload_max_pkg_size(uint32_t* bytes, int timeout_ms);

/*
 * Validates the package at `path` (absolute, on the device). `info` says what the client knows of it, its
 * agent_name is the session's owner. `*rec_id` is the history record made, also with a result that is not
 * success; 0 without one.
 */
FOTA_NODISCARD int fota_client_validate_update_pkg(const char* path, const fota_pkg_info* info,
                                                   uint32_t* rec_id, int timeout_ms);

/* Source version, the first when there are several, and target version of the session's validated package. */
FOTA_NODISCARD int fota_client_get_src_pkg_version(const char* agent, char* text, int timeout_ms);
FOTA_NODISCARD int fota_client_get_tgt_pkg_version(const char* agent, char* text, int timeout_ms);

/* The owner is answered FOTA_RC_INVALID_PARAM too, as long as it has no validated package. */
FOTA_NODISCARD int fota_client_get_current_sess_record(const char* agent, fota_history_rec* record,
                                                       int timeout_ms);
FOTA_NODISCARD int fota_client_incr_install_defer_count(const char* agent, int timeout_ms);

/* Starts the installation, after `wait_secs` seconds. `boot_preference` is one of FOTA_BOOT_... */
FOTA_NODISCARD int fota_client_start_installation(const char* agent, uint32_t boot_preference,
                                                  uint32_t wait_secs, int timeout_ms);

/* Ends the session and records `status` and `reason` as the outcome of its update. */
FOTA_NODISCARD int fota_client_abort_current_session(const char* agent, uint32_t status, const char* reason,
                                                     int timeout_ms);

/*
 * The outcome of an update of `agent`, and of a fall-back to the previous firmware. Each is handed out once;
 * afterwards, and when there is none, `record->rec_id` is 0.
 */
FOTA_NODISCARD int fota_client_get_update_status(const char* agent, fota_history_rec* record, int timeout_ms);
FOTA_NODISCARD int fota_client_get_revert_status(fota_history_rec* record, int timeout_ms);

/* 0 nothing under way, 1 an installation has been started, 2 the full-image installation resets the device.
 */
FOTA_NODISCARD int fota_client_get_upgrade_status(int32_t* status, int timeout_ms);

/*
 * A package that a user uploaded. Preparing checks the pieces of the bundle at `path` (absolute, on the
 * device), joins them to /opt/qast/data/fota/upgrade.zip and removes the bundle. Starting takes the session
 * for `agent`, moves the package at `path` there unless that is its path, validates it and starts its
 * installation after the daemon's waiting time; `*est_secs` is the estimated time of the installation, 0 when
 * it is not known.
 */
FOTA_NODISCARD int fota_client_sideload_prepare_package(const char* path, int timeout_ms);
FOTA_NODISCARD int fota_client_sideload_start_installation(const char* agent, const char* path,
                                                           uint32_t* est_secs, int timeout_ms);

/* Starts a script-driven update. Takes the session, also from an agent that holds it. */
FOTA_NODISCARD int fota_client_sua_update_start(const fota_device_info* info, int timeout_ms);

/* Ends whatever session there is; refused with FOTA_RC_FAILURE once an installation has been started. */
FOTA_NODISCARD int fota_client_factory_reset(int timeout_ms);

/*
 * History. The list that a user sees leaves out the factory configuration and the update that waits for its
 * installation; all records are found by id. Index 0 is the oldest of the list. Ids that are missing between
 * others leave positions without a record.
 */
FOTA_NODISCARD int fota_client_get_record_count(fota_record_count* count, int timeout_ms);
FOTA_NODISCARD int fota_client_get_record_by_index(uint32_t index, fota_history_rec* record, int timeout_ms);
FOTA_NODISCARD int fota_client_get_record_by_id(uint32_t rec_id, fota_history_rec* record, int timeout_ms);

/* The newest successful update: `record->status` is FOTA_STATUS_SUCCESS. A record of zeros: there is none. */
FOTA_NODISCARD int fota_client_get_last_success_rec(fota_history_rec* record, int timeout_ms);

/*
 * Replaces the record of the same id, all but its status and reason, and replaces `*record` by what is stored
 * now. An estimated time of 0 leaves the stored one.
 */
FOTA_NODISCARD int fota_client_modify_record_by_id(fota_history_rec* record, int timeout_ms);

/* The configuration saved last; its firmware version is in pkg_description. The texts must not be empty. */
FOTA_NODISCARD int fota_client_cfg_get_current_record(fota_history_rec* record, int timeout_ms);
FOTA_NODISCARD int fota_client_cfg_save_new_record(const char* date, const char* version,
                                                   const char* firmware, int timeout_ms);

/* When an update was last looked for: any text, by convention a date like those of the history. */
FOTA_NODISCARD int fota_client_get_update_check_time(char* text, int timeout_ms);
FOTA_NODISCARD int fota_client_set_update_check_time(const char* text, int timeout_ms);

FOTA_NODISCARD int fota_client_get_kernel_version(char* text, int timeout_ms);

/* Keeps the device in recovery mode for debugging (`stop` 1), or no longer (0). */
FOTA_NODISCARD int fota_client_stop_in_recovery(int stop, int timeout_ms);

/* Answered with success; the daemon does nothing. */
FOTA_NODISCARD int fota_client_decrypt_pkg(int timeout_ms);

/* Small files, through the daemon. `size` is at most 256 bytes; when it is 0, `data` may be null. */
FOTA_NODISCARD int fota_client_file_create(const char* path, int timeout_ms);
FOTA_NODISCARD int fota_client_file_write(const char* path, const void* data, size_t size, int timeout_ms);
FOTA_NODISCARD int fota_client_file_read_str(const char* path, char* text, int timeout_ms);
FOTA_NODISCARD int fota_client_file_read_uint32(const char* path, uint32_t* value, int timeout_ms);
FOTA_NODISCARD int fota_client_file_remove(const char* path, int timeout_ms);

/* Name and meaning of an event, of a result code of the daemon, and of a FOTA_CLIENT_... code. Null when
 * there is none. */
const char* fota_event_name(int event);
const char* fota_result_name(int result);
const char* fota_result_meaning(int result);

#ifdef __cplusplus
}
#endif

#endif
