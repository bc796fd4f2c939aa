#include "modem_file.h"

#include <cstring>

#include "service_files.h"

namespace platform {

void read_modem_file(modem2_info* info) {
    char* version = info->fw_version;
    const size_t size = sizeof info->fw_version;
    const ssize_t count = read_file("/run/vexa/modem", "fw_version", version, size - 1);
    const size_t length = count < 0 ? 0 : strcspn(version, "\r\n");
    memset(version + length, 0, size - length);
}

}  // namespace platform
