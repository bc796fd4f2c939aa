// Modem information.
#ifndef FOTA_PLATFORM_MODEM2_H
#define FOTA_PLATFORM_MODEM2_H

#ifdef __cplusplus
extern "C" {
#endif

typedef struct modem2_info {
    char fw_version[255];  // modem firmware version; ends in NUL
    char reserved[769];
} modem2_info;

// Fills the caller's block; what is not known is empty. Returns 0 on success.
int modem2_get_info(modem2_info* info);

#ifdef __cplusplus
}
#endif

#endif
