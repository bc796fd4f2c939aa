/*
 * Client library of the update daemon: one call per request. C11 and C++20.
 *
 * A call sends one record to the daemon's queue and waits for the answer at most `timeout_ms` milliseconds
 * (it may be any positive number; validating a large package takes minutes on a slow device). It returns the
 * daemon's result code (FOTA_RC_..., always positive), or one of the negative FOTA_CLIENT_... codes when
 * there was no answer. Outputs are written only with FOTA_RC_SUCCESS, where a call does not say otherwise.
 * No pointer may be null, inputs and outputs alike, where a call does not say otherwise: a null pointer, and
 * a text longer than its field, are refused with FOTA_CLIENT_BAD_ARGUMENT before anything is sent. Texts that
 * come back end in NUL inside their field; a `text` output holds FOTA_TEXT_SIZE bytes, and one that the
 * daemon read from a file may keep the line end that is there. Calls keep no state and may run on several
 * threads.
 */
#ifndef FOTA_CLIENT_H
#define FOTA_CLIENT_H

#include <stddef.h>

#include "core/request.h"

#ifdef __cplusplus
extern "C" {
#endif

/* clang-format off */

/*
 * Why there is no answer, X(name, value, meaning). NO_RESOURCES leaves the cause in errno; BAD_ARGUMENT is a
 * null pointer, a text or data too long, or a time that is not positive.
 */
#define FOTA_CLIENT_ERRORS(X)                                                                       \
    X(FOTA_CLIENT_NO_DAEMON,     -1, "the daemon is not running: its request queue does not exist") \
    X(FOTA_CLIENT_NO_PERMISSION, -2, "this user may not write to the daemon's request queue")       \
    X(FOTA_CLIENT_TIMEOUT,       -3, "the daemon did not answer in time")                           \
    X(FOTA_CLIENT_NO_RESOURCES,  -4, "the message queues of this system cannot be used")            \
    X(FOTA_CLIENT_BAD_ARGUMENT,  -5, "an argument does not fit into the request")                   \
    X(FOTA_CLIENT_UNKNOWN_EVENT, -6, "the daemon does not know this request")

#define FOTA_CLIENT_ERROR(name, value, meaning) name = value,
enum fota_client_error { FOTA_CLIENT_ERRORS(FOTA_CLIENT_ERROR) };
#undef FOTA_CLIENT_ERROR
/* clang-format on */

/*
 * Sends `*msg` and replaces it by the answer. Fills the routing header itself. The answer's `result` is
 * returned, and for an event that the daemon does not know that is the `result` that the caller put in. A
 * request that timed out may still be carried out, as long as it waits in the daemon's queue.
 */
int fota_client_request(fota_event_msg* msg, int timeout_ms);

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
int fota_client_create_session_lock(const char* agent, int timeout_ms);
int fota_client_clear_session_lock(const char* agent, int timeout_ms);

/*
 * Largest package, in bytes, that agents are to bring now over the air, and by side-load. Only the start of a
 * side-load looks at a package's size, and refuses what is more than twice as large.
 */
int fota_client_get_max_pkg_size(uint32_t* bytes, int timeout_ms);
int fota_client_get_sideload_max_pkg_size(uint32_t* bytes, int timeout_ms);

/*
 * Validates the package at `path` (absolute, on the device). `info` says what the client knows of it, its
 * agent_name is the session's owner. `*rec_id` is the history record made, also with a result that is not
 * success; 0 without one.
 */
int fota_client_validate_update_pkg(const char* path, const fota_pkg_info* info, uint32_t* rec_id,
                                    int timeout_ms);

/* Source version, the first when there are several, and target version of the session's validated package. */
int fota_client_get_src_pkg_version(const char* agent, char* text, int timeout_ms);
int fota_client_get_tgt_pkg_version(const char* agent, char* text, int timeout_ms);

/* The owner is answered FOTA_RC_INVALID_PARAM too, as long as it has no validated package. */
int fota_client_get_current_sess_record(const char* agent, fota_history_rec* record, int timeout_ms);
int fota_client_incr_install_defer_count(const char* agent, int timeout_ms);

/* Starts the installation, after `wait_secs` seconds. `boot_preference` is one of FOTA_BOOT_... */
int fota_client_start_installation(const char* agent, uint32_t boot_preference, uint32_t wait_secs,
                                   int timeout_ms);

/* Ends the session and records `status` and `reason` as the outcome of its update. */
int fota_client_abort_current_session(const char* agent, uint32_t status, const char* reason, int timeout_ms);

/*
 * The outcome of an update of `agent`, and of a fall-back to the previous firmware. Each is handed out once;
 * afterwards, and when there is none, `record->rec_id` is 0.
 */
int fota_client_get_update_status(const char* agent, fota_history_rec* record, int timeout_ms);
int fota_client_get_revert_status(fota_history_rec* record, int timeout_ms);

/* 0 nothing under way, 1 an installation has been started, 2 the full-image installation resets the device.
 */
int fota_client_get_upgrade_status(int32_t* status, int timeout_ms);

/*
 * A package that a user uploaded. Preparing checks the pieces of the bundle at `path` (absolute, on the
 * device), joins them to /opt/qast/data/fota/upgrade.zip and removes the bundle. Starting takes the session
 * for `agent`, moves the package at `path` there unless that is its path, validates it and starts its
 * installation after the daemon's waiting time; `*est_secs` is the estimated time of the installation, 0 when
 * it is not known.
 */
int fota_client_sideload_prepare_package(const char* path, int timeout_ms);
int fota_client_sideload_start_installation(const char* agent, const char* path, uint32_t* est_secs,
                                            int timeout_ms);

/* Starts a script-driven update. Takes the session, also from an agent that holds it. */
int fota_client_sua_update_start(const fota_device_info* info, int timeout_ms);

/* Ends whatever session there is; refused with FOTA_RC_FAILURE once an installation has been started. */
int fota_client_factory_reset(int timeout_ms);

/*
 * History. The list that a user sees leaves out the factory configuration and the update that waits for its
 * installation; all records are found by id. Index 0 is the oldest of the list. Ids that are missing between
 * others leave positions without a record.
 */
int fota_client_get_record_count(fota_record_count* count, int timeout_ms);
int fota_client_get_record_by_index(uint32_t index, fota_history_rec* record, int timeout_ms);
int fota_client_get_record_by_id(uint32_t rec_id, fota_history_rec* record, int timeout_ms);

/* The newest successful update: `record->status` is FOTA_STATUS_SUCCESS. A record of zeros: there is none. */
int fota_client_get_last_success_rec(fota_history_rec* record, int timeout_ms);

/*
 * Replaces the record of the same id, all but its status and reason, and replaces `*record` by what is stored
 * now. An estimated time of 0 leaves the stored one.
 */
int fota_client_modify_record_by_id(fota_history_rec* record, int timeout_ms);

/* The configuration saved last; its firmware version is in pkg_description. The texts must not be empty. */
int fota_client_cfg_get_current_record(fota_history_rec* record, int timeout_ms);
int fota_client_cfg_save_new_record(const char* date, const char* version, const char* firmware,
                                    int timeout_ms);

/* When an update was last looked for: any text, by convention a date like those of the history. */
int fota_client_get_update_check_time(char* text, int timeout_ms);
int fota_client_set_update_check_time(const char* text, int timeout_ms);

int fota_client_get_kernel_version(char* text, int timeout_ms);

/* Keeps the device in recovery mode for debugging (`stop` 1), or no longer (0). */
int fota_client_stop_in_recovery(int stop, int timeout_ms);

/* Answered with success; the daemon does nothing. */
int fota_client_decrypt_pkg(int timeout_ms);

/* Small files, through the daemon. `size` is at most 256 bytes; when it is 0, `data` may be null. */
int fota_client_file_create(const char* path, int timeout_ms);
int fota_client_file_write(const char* path, const void* data, size_t size, int timeout_ms);
int fota_client_file_read_str(const char* path, char* text, int timeout_ms);
int fota_client_file_read_uint32(const char* path, uint32_t* value, int timeout_ms);
int fota_client_file_remove(const char* path, int timeout_ms);

/* Name and meaning of an event, of a result code of the daemon, and of a FOTA_CLIENT_... code. Null when
 * there is none. */
const char* fota_event_name(int event);
const char* fota_result_name(int result);
const char* fota_result_meaning(int result);

#ifdef __cplusplus
}
#endif

#endif
