// Free space for packages and the size limits, in bytes held within a signed 32-bit count. Any thread, but
// for the handlers: main thread.
#pragma once

#include <cstdint>

#include "fota/request.h"

// Never offered to a package.
inline constexpr int32_t FLASH_RESERVE_BYTES = 4 * 1024 * 1024;

// Free bytes of the data directory's file system less a reserve that is never offered to a package; 0 when no
// more than the reserve is free, -1 when the file system cannot be queried.
[[nodiscard]] int32_t get_available_flash_space();

// Checks that the package at `path` fits the size limit and the free space, and stores its size in
// `*package_size` (may be null). With a null `path` asks for room for the largest package. An open session
// whose package is already on flash needs no room. FOTA_RC_SUCCESS; FOTA_RC_FAILURE: `path` cannot be
// queried; FOTA_RC_PKG_TOO_BIG: more than twice the configured maximum; FOTA_RC_NO_FLASH_SPACE.
[[nodiscard]] fota_rc fota_check_free_space(const char* path, uint32_t* package_size);

// FOTA_MSG_GET_MAX_PKG_SIZE: fota_check_free_space for the largest package.
// FOTA_MSG_GET_SIDELOAD_MAX_PKG_SIZE asks for room for the largest side-load, whatever lies on flash.
// FOTA_RC_SUCCESS with the configured maximum, or FOTA_RC_NO_FLASH_SPACE.
void handle_get_max_pkg_size(fota_event_msg* msg);
void handle_get_sideload_max_pkg_size(fota_event_msg* msg);
