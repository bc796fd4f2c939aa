// Modem information.
#ifndef FOTA_PLATFORM_MODEM2_H
#define FOTA_PLATFORM_MODEM2_H

#include "platform_result.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct modem2_info {
    char fw_version[255];  // modem firmware version; ends in NUL
    char reserved[769];
} modem2_info;

// Fills the caller's block; what is not known is empty, also when it returns another value than 0,
// for success. Main thread only.
PLATFORM_RESULT int modem2_get_info(modem2_info* info);

#ifdef __cplusplus
}
#endif

#endif
