#include "modem2.h"

#include <cstring>

#include "service_files.h"

extern "C" int modem2_get_info(modem2_info* info) {
    *info = {};
    char* version = info->fw_version;
    const size_t size = sizeof info->fw_version;
    const ssize_t count = platform::read_file("/run/vexa/modem", "fw_version", version, size - 1);
    const size_t length = count < 0 ? 0 : strcspn(version, "\r\n");
    memset(version + length, 0, size - length);
    return 0;
}
