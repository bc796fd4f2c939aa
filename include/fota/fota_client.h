/*
 * Client library of the update daemon: one call per request. Valid C99 and C++11.
 *
 *  1. Results. A call sends one record to the daemon's queue and waits for the answer. It returns the
 * daemon's result code (FOTA_RC_..., always positive), or one of the negative FOTA_CLIENT_... codes when
 * there was no answer. Whoever ignores it is warned.
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
    X(FOTA_CLIENT_UNKNOWN_EVENT, -6, "the daemon does not know this request")

#define FOTA_CLIENT_ERROR(name, value, meaning) name = (value),
enum fota_client_error { FOTA_CLIENT_ERRORS(FOTA_CLIENT_ERROR) };
#undef FOTA_CLIENT_ERROR
/* clang-format on */

/* "MAJOR.MINOR.PATCH" of the library. */
const char* fota_client_version(void);

/*
 * Sends `*msg` and replaces it by the answer; without one only its routing header has changed, which is
 * filled here. The answer's `result` is returned, and for an event that the daemon does not know that is the
 * `result` that the caller put in.
 */
FOTA_NODISCARD int fota_client_request(fota_event_msg* msg, int timeout_ms);

/*
 * Removes the reply queues of the calls under way in this process, and no others: a child leaves those of its
 * parent. A call removes its own; this is for the signal handler of a program that ends in the middle of one.
 * Safe in a signal handler. It knows of 64 calls at once: more of them work, but their queues stay. So does
 * one that another thread is just making.
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
