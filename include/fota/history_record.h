/*
 * One entry of the update history. Valid C99 and C++11: clients include it.
 *
 * The same 2844 bytes lie in history.bin, travel as the payload of history and status requests, and are
 * broadcast on the message bus. Integers are little-endian. Texts end in NUL inside their field; a reader
 * never trusts that and never reads past the field's width.
 */
#ifndef FOTA_HISTORY_RECORD_H
#define FOTA_HISTORY_RECORD_H

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

/* What a client says about its package. Also part of the validation request. */
typedef struct fota_pkg_info {
    uint32_t pkg_info_word; /* the client's own; never interpreted */
    uint32_t pkg_size;      /* bytes; 0: the daemon takes the size of the package file */
    char pkg_ver[255];      /* empty: the package's target version */
    char pkg_name[255];     /* empty: a copy of the description */
    char pkg_description[255];
    char update_method[255];
    char manufacturer[256];
    uint32_t est_update_time; /* seconds; 0: the staged estimate */
    char aux_text1[255];      /* the client's own; never interpreted */
    char aux_text2[255];
    char agent_name[255];
    char alignment[3];
} fota_pkg_info;

enum fota_rec_type {
    FOTA_REC_UPDATE = 0,      /* over the air, side-loaded or script-driven */
    FOTA_REC_FACTORY_CFG = 1, /* configuration of the device */
    FOTA_REC_REVERT = 2       /* the device went back to its previous firmware */
};

typedef struct fota_history_rec {
    uint32_t rec_type;
    uint32_t status;       /* 0 pending, 200 success, otherwise an OMA-DM FUMO code */
    char reason[255];      /* text that goes with `status` */
    char update_date[255]; /* local time, %m-%d-%Y-%H:%M:%S */
    char alignment[2];
    uint32_t rec_id; /* from 1 upwards; 0 marks an empty slot */
    uint32_t install_defer_count;
    uint32_t reserved1;
    fota_pkg_info pkg_info;
    uint32_t linux_pri_result; /* 0 none, 200 success, 410 failed */
    uint32_t modem_pri_result;
    char reserved2[248];
} fota_history_rec;

/* Status values that the daemon itself writes. */
enum fota_status {
    FOTA_STATUS_PENDING = 0,
    FOTA_STATUS_SUCCESS = 200,
    FOTA_STATUS_VALIDATION_FAILED = 404,
    FOTA_STATUS_UNDEFINED_ERROR = 409,
    FOTA_STATUS_UPDATE_FAILED = 410
};

/* A compiler that lays a record out in another way is refused; C99 has no static_assert. */
#if defined(__cplusplus) || __STDC_VERSION__ >= 201112L
#define FOTA_LAYOUT(condition) static_assert(condition, "layout")
#else
#define FOTA_LAYOUT(condition) extern char fota_layout[(condition) ? 1 : -1]
#endif

/* clang-format off */
FOTA_LAYOUT(sizeof(fota_pkg_info) == 2056);
FOTA_LAYOUT(offsetof(fota_pkg_info, pkg_size) == 4 && offsetof(fota_pkg_info, pkg_ver) == 8 &&
            offsetof(fota_pkg_info, pkg_name) == 263 && offsetof(fota_pkg_info, pkg_description) == 518 &&
            offsetof(fota_pkg_info, update_method) == 773 && offsetof(fota_pkg_info, manufacturer) == 1028 &&
            offsetof(fota_pkg_info, est_update_time) == 1284 && offsetof(fota_pkg_info, aux_text1) == 1288 &&
            offsetof(fota_pkg_info, aux_text2) == 1543 && offsetof(fota_pkg_info, agent_name) == 1798);
FOTA_LAYOUT(sizeof(fota_history_rec) == 2844);
FOTA_LAYOUT(offsetof(fota_history_rec, status) == 4 && offsetof(fota_history_rec, reason) == 8 &&
            offsetof(fota_history_rec, update_date) == 263 && offsetof(fota_history_rec, rec_id) == 520 &&
            offsetof(fota_history_rec, install_defer_count) == 524 &&
            offsetof(fota_history_rec, pkg_info) == 532 &&
            offsetof(fota_history_rec, linux_pri_result) == 2588 &&
            offsetof(fota_history_rec, modem_pri_result) == 2592 &&
            offsetof(fota_history_rec, reserved2) == 2596);
/* clang-format on */

#endif
