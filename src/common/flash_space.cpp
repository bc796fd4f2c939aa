#include "common/flash_space.h"

#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cerrno>

#include "common/file_helpers.h"
#include "common/state_files.h"
#include "core/config.h"
#include "core/log.h"

namespace {

int32_t held_in_31_bits(uint64_t bytes) {
    return static_cast<int32_t>(std::min<uint64_t>(bytes, INT32_MAX));
}

}  // namespace

int32_t get_available_flash_space() {
    struct statvfs info = {};
    if (statvfs(FOTA_DATA_DIR, &info) != 0) {
        LOG_ERROR("statvfs failed:%d\n", errno);
        return -1;
    }
    const int32_t free_bytes = held_in_31_bits(static_cast<uint64_t>(info.f_bavail) * info.f_bsize);
    if (free_bytes <= FLASH_RESERVE_BYTES) {
        LOG_ERROR("Free space available %ld < %d min required, return 0\n", static_cast<long>(free_bytes),
                  FLASH_RESERVE_BYTES);
        return 0;
    }
    LOG_NOTICE("Total flash free space %ld\n", static_cast<long>(free_bytes));
    return free_bytes - FLASH_RESERVE_BYTES;
}

fota_rc fota_check_free_space(const char* path, uint32_t* package_size) {
    if (fota_is_regular_file(FOTA_SESSION_LOCK) == FOTA_RC_SUCCESS &&
        fota_is_regular_file(FOTA_UPGRADE_PKG) == FOTA_RC_SUCCESS) {
        LOG_NOTICE(
            "Session exists and package also exists. So need to check free space. Return actial value\n");
        return FOTA_RC_SUCCESS;
    }
    const int32_t available = get_available_flash_space();
    int32_t required = static_cast<int32_t>(fota_config.maximum_pkg_size);
    if (path != nullptr) {
        struct stat info = {};
        if (stat(path, &info) != 0) {
            LOG_ERROR("stat(%s) failed, errno:%d\n", path, errno);
            return FOTA_RC_FAILURE;
        }
        const auto size = static_cast<uint64_t>(info.st_size);
        required = held_in_31_bits(size);
        if (size > 2 * static_cast<uint64_t>(fota_config.maximum_pkg_size)) {
            LOG_ERROR("Pkg too big:%ld\n", static_cast<long>(required));
            return FOTA_RC_PKG_TOO_BIG;
        }
        if (package_size != nullptr) *package_size = static_cast<uint32_t>(required);
    }
    if (available < required) {
        LOG_ERROR("Not enough flash space: %ld (required:%ld)\n", static_cast<long>(available),
                  static_cast<long>(required));
        return FOTA_RC_NO_FLASH_SPACE;
    }
    LOG_NOTICE("Required:%ld (Available:%ld)\n", static_cast<long>(required), static_cast<long>(available));
    return FOTA_RC_SUCCESS;
}

void handle_get_max_pkg_size(fota_event_msg* msg) {
    msg->result = fota_check_free_space(nullptr, nullptr);
    if (msg->result == FOTA_RC_SUCCESS) msg->payload.value = fota_config.maximum_pkg_size;
}

void handle_get_sideload_max_pkg_size(fota_event_msg* msg) {
    const int32_t available = get_available_flash_space();
    const auto required = static_cast<int32_t>(fota_config.sideload_maximum_pkg_size);
    if (available < required) {
        LOG_ERROR("Not enough flash space: %ld (required:%ld)\n", static_cast<long>(available),
                  static_cast<long>(required));
        msg->result = FOTA_RC_NO_FLASH_SPACE;
        return;
    }
    LOG_NOTICE("Required:%ld (Available:%ld)\n", static_cast<long>(required), static_cast<long>(available));
    msg->payload.value = fota_config.sideload_maximum_pkg_size;
    msg->result = FOTA_RC_SUCCESS;
}
