// Configuration and feature set, read once at start-up and only read afterwards, by any thread.
#pragma once

#include <cstdint>

#include "fota/result_codes.h"
#include "settings.h"

// Of both size limits, where the configuration does not set them.
inline constexpr uint32_t FOTA_DEFAULT_PKG_SIZE = 35 * 1024 * 1024;

struct fota_config_block {
    // These three are held at 2147483647.
    uint32_t maximum_pkg_size;           // bytes, told to agents; what is twice as large is refused
    uint32_t sideload_maximum_pkg_size;  // bytes, told to those who side-load
    uint32_t pre_install_wait_secs;      // before a side-load or script-driven installation starts
    char platform_prefix[256];           // of the version string handed to the script-driven updater
    uint32_t no_modem_version;           // non-zero: that string carries "0" instead of the modem version
};

extern fota_config_block fota_config;
extern settings_features fota_features;

// Fills fota_config; elements that the file lacks keep their defaults. FOTA_RC_FAILURE when it cannot be
// opened.
[[nodiscard]] fota_rc fota_init_config();

// Waits up to 60 seconds for the settings service, then fills fota_features. FOTA_RC_FAILURE when the service
// is not ready, gives no features, or the device takes no firmware updates.
[[nodiscard]] fota_rc fota_init_settings();
