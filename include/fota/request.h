/*
 * The request record and its events. Valid C99 and C++11: clients include it.
 *
 * A client puts one fota_event_msg on the request queue; the daemon writes `result` and, where the event has
 * an answer, the payload, and sends the same 3072 bytes back. 32-bit words are little-endian. Texts end in
 * NUL inside their field; the daemon never reads past a field's width.
 */
#ifndef FOTA_REQUEST_H
#define FOTA_REQUEST_H

#include "fota/history_record.h"
#include "fota/result_codes.h"

#define FOTA_REQUEST_QUEUE "/fota_mq"
#define FOTA_REQUEST_QUEUE_DEPTH 10
#define FOTA_REQUEST_SIZE 3072
#define FOTA_ROUTING_HEADER_SIZE 216
#define FOTA_PAYLOAD_SIZE 2844

/*
 * Most text fields, and every text buffer of the daemon, hold 254 characters and the NUL. The texts of events
 * 7 and 24 alone may fill the payload: 7 stores the whole text, of which 6 answers 254 characters; 24 takes a
 * path of that length.
 */
#define FOTA_TEXT_SIZE 255

/* clang-format off */
/* Each event once: X(name, number), and the members of the payload that it takes and answers. */
#define FOTA_EVENTS(X)                                                                            \
    X(FOTA_MSG_GET_MAX_PKG_SIZE,            1)  /* out: value */                                  \
    X(FOTA_MSG_CREATE_SESSION_LOCK,         2)  /* in: agent_id */                                \
    X(FOTA_MSG_CLEAR_SESSION_LOCK,          3)  /* in: agent_id */                                \
    X(FOTA_MSG_GET_UPDATE_STATUS,           4)  /* in: agent_id; out: record */                   \
    X(FOTA_MSG_GET_LAST_SUCCESS_REC,        5)  /* out: record */                                 \
    X(FOTA_MSG_GET_UPDATE_CHECK_TIME,       6)  /* out: text */                                   \
    X(FOTA_MSG_SET_UPDATE_CHECK_TIME,       7)  /* in: text */                                    \
    X(FOTA_MSG_GET_NO_OF_RECORDS,           8)  /* out: record_count */                           \
    X(FOTA_MSG_GET_RECORD_BY_INDEX,         9)  /* in: value; out: record */                      \
    X(FOTA_MSG_GET_RECORD_BY_ID,            10) /* in: record.rec_id; out: record */              \
    X(FOTA_MSG_GET_SRC_PKG_VERSION,         11) /* in: agent_id; out: text */                     \
    X(FOTA_MSG_GET_TGT_PKG_VERSION,         12) /* in: agent_id; out: text */                     \
    X(FOTA_MSG_ABORT_CURRENT_SESS,          13) /* in: abort */                                   \
    X(FOTA_MSG_GET_CURRENT_SESS_RECORD,     14) /* in: record.pkg_info.agent_name; out: record */ \
    X(FOTA_MSG_CFG_GET_CURRENT_RECORD,      15) /* out: record */                                 \
    X(FOTA_MSG_CFG_SAVE_NEW_RECORD,         16) /* in: record */                                  \
    X(FOTA_MSG_INCR_INSTALL_DEFER_COUNT,    17) /* in: agent_id */                                \
    X(FOTA_MSG_MODIFY_RECORD_BY_ID,         18) /* in, out: record */                             \
    X(FOTA_MSG_VALIDATE_UPDATE_PKG,         19) /* in: validate; out: value (record id) */        \
    X(FOTA_MSG_START_INSTALLATION,          20) /* in: install */                                 \
    X(FOTA_MSG_SIDELOAD_START_INSTALLATION, 21) /* in: sideload */                                \
    X(FOTA_MSG_SUA_UPATE_START,             22) /* in: device_info */                             \
    X(FOTA_MSG_GET_REVERT_STATUS,           23) /* out: record */                                 \
    X(FOTA_MSG_SIDELOAD_PREPARE_PACKAGE,    24) /* in: text */                                    \
    X(FOTA_MSG_FACTORY_RESET,               25)                                                   \
    X(FOTA_MSG_STOP_IN_RECOVERY,            26) /* in: value */                                   \
    X(FOTA_MSG_DECRYPT_PKG,                 27)                                                   \
    X(FOTA_MSG_FILE_OPS,                    28) /* in, out: file_ops */                           \
    X(FOTA_MSG_GET_SIDELOAD_MAX_PKG_SIZE,   29) /* out: value */                                  \
    X(FOTA_MSG_GET_UPGRADE_STATUS,          30) /* out: value */                                  \
    X(FOTA_MSG_GET_KERNEL_VERSION,          31) /* out: text */

#define FOTA_EVENT(name, number) name = (number),
enum fota_event { FOTA_EVENTS(FOTA_EVENT) };
#undef FOTA_EVENT

enum fota_fops_code {
    FOTA_FOPS_CREATE_ONLY      = 0,
    FOTA_FOPS_CREATE_AND_WRITE = 1,
    FOTA_FOPS_READ_STR         = 2,
    FOTA_FOPS_READ_UINT32      = 3,
    FOTA_FOPS_REMOVE           = 4
};

/* Where the device is to come up after the installation. */
enum fota_boot_preference {
    FOTA_BOOT_ONLINE   = 0,
    FOTA_BOOT_SHUTDOWN = 1,
    FOTA_BOOT_LPM      = 2  /* low-power mode */
};
/* clang-format on */

typedef struct fota_file_ops {
    uint32_t fops_code;
    char fops_path[255];
    char fops_data[256];
    char pad[1];
    uint32_t fops_data_len; /* bytes */
} fota_file_ops;

typedef struct fota_validate_request {
    char pkg_path[256];
    fota_pkg_info pkg_info;
} fota_validate_request;

typedef struct fota_install_request {
    char agent_id[256];
    uint32_t boot_preference;
    uint32_t wait_secs; /* 0: at once */
} fota_install_request;

typedef struct fota_abort_request {
    char agent_id[256];
    uint32_t status;
    char reason[255];
} fota_abort_request;

typedef struct fota_record_count {
    uint32_t count;
    char list[256]; /* the ids in decimal, a comma after each */
} fota_record_count;

typedef struct fota_sideload_request {
    char agent_id[255];
    char pkg_path[255];
    char unused[766];
    uint32_t est_update_time; /* answer: seconds */
} fota_sideload_request;

/* What a script-driven update says of the device. */
typedef struct fota_device_info {
    char modem_version[255];
    char os_version[255];
    char pri_version[255];
    char imei[255];
    char mdn[255]; /* phone number */
    char model[255];
} fota_device_info;

typedef union fota_payload {
    uint8_t bytes[FOTA_PAYLOAD_SIZE];
    char text[FOTA_TEXT_SIZE];
    char agent_id[FOTA_TEXT_SIZE];
    uint32_t value;
    fota_file_ops file_ops;
    fota_validate_request validate;
    fota_install_request install;
    fota_abort_request abort;
    fota_record_count record_count;
    fota_sideload_request sideload;
    fota_device_info device_info;
    fota_history_rec record;
} fota_payload;

typedef struct fota_event_msg {
    uint8_t routing_header[FOTA_ROUTING_HEADER_SIZE]; /* the message-queue library's; returned as received */
    fota_rc result;
    int32_t event;
    uint32_t reserved; /* returned as received */
    fota_payload payload;
} fota_event_msg;

/* clang-format off */
FOTA_LAYOUT(sizeof(fota_event_msg) == FOTA_REQUEST_SIZE);
FOTA_LAYOUT(offsetof(fota_event_msg, result) == 216 && offsetof(fota_event_msg, event) == 220 &&
            offsetof(fota_event_msg, reserved) == 224 && offsetof(fota_event_msg, payload) == 228);
FOTA_LAYOUT(sizeof(fota_payload) == sizeof(fota_history_rec)); /* the payload is one */
FOTA_LAYOUT(offsetof(fota_file_ops, fops_path) == 4 && offsetof(fota_file_ops, fops_data) == 259 &&
            offsetof(fota_file_ops, fops_data_len) == 516 && sizeof(fota_file_ops) == 520);
FOTA_LAYOUT(offsetof(fota_validate_request, pkg_info) == 256 && sizeof(fota_validate_request) == 2312);
FOTA_LAYOUT(offsetof(fota_install_request, boot_preference) == 256 &&
            offsetof(fota_install_request, wait_secs) == 260);
FOTA_LAYOUT(offsetof(fota_abort_request, status) == 256 && offsetof(fota_abort_request, reason) == 260);
FOTA_LAYOUT(offsetof(fota_sideload_request, pkg_path) == 255 &&
            offsetof(fota_sideload_request, est_update_time) == 1276);
FOTA_LAYOUT(offsetof(fota_device_info, os_version) == 255 && offsetof(fota_device_info, imei) == 765 &&
            offsetof(fota_device_info, mdn) == 1020 && offsetof(fota_device_info, model) == 1275);
FOTA_LAYOUT(offsetof(fota_record_count, list) == 4 && sizeof(fota_record_count) == 260);
/* clang-format on */

#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__
#error "records are little-endian on the wire and on flash; this target is not"
#endif

#endif
