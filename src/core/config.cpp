#include "core/config.h"

#include <algorithm>

#include "common/state_files.h"
#include "core/log.h"
#include "core/runtime.h"
#include "msgbus.h"
#include "xmldata.h"

fota_config_block fota_config;
settings_features fota_features;

namespace {

constexpr uint32_t DEFAULT_PRE_INSTALL_WAIT_SECS = 5;
constexpr int SETTINGS_READS = 60;

constexpr char KEY_PLATFORM_PREFIX[] = "/Config/version/platformPrefix";
constexpr char KEY_NO_MODEM_VERSION[] = "/Config/version/noModemVersion";

bool has_element(const char* key) {
    int count = 0;
    (void)xmldata_getcount(key, &count);
    return count > 0;
}

}  // namespace

fota_rc fota_init_config() {
    fota_config = {};
    if (xmldata_initialize(FOTA_CONFIG_FILE, FOTA_CONFIG_FILE) != 0) {
        LOG_ERROR_AS(nullptr, "Failed to open configuration file: %s", FOTA_CONFIG_FILE);
        return FOTA_RC_FAILURE;
    }
    (void)xmldata_getuint32_default("/Config/MaxPkgSizeAllowed", &fota_config.maximum_pkg_size,
                                    FOTA_DEFAULT_PKG_SIZE);
    (void)xmldata_getuint32_default("/Config/SideloadMaxPkgSizeAllowed",
                                    &fota_config.sideload_maximum_pkg_size, FOTA_DEFAULT_PKG_SIZE);
    (void)xmldata_getuint32_default("/Config/preInstallWaitSecs", &fota_config.pre_install_wait_secs,
                                    DEFAULT_PRE_INSTALL_WAIT_SECS);
    // Compared with what is free, or counted down, in 31 bits.
    for (uint32_t* value : {&fota_config.maximum_pkg_size, &fota_config.sideload_maximum_pkg_size,
                            &fota_config.pre_install_wait_secs}) {
        *value = std::min<uint32_t>(*value, INT32_MAX);
    }
    if (has_element(KEY_PLATFORM_PREFIX)) {
        (void)xmldata_getstring_default(KEY_PLATFORM_PREFIX, fota_config.platform_prefix,
                                        sizeof fota_config.platform_prefix - 1, "");
    }
    if (has_element(KEY_NO_MODEM_VERSION)) {
        (void)xmldata_getuint32_default(KEY_NO_MODEM_VERSION, &fota_config.no_modem_version, 0);
    }
    xmldata_shutdown();

    LOG_NOTICE_AS(nullptr, "FOTA initialized with the following configurations: ");
    LOG_NOTICE_AS(nullptr, "maximum_pkg_size=[%u] bytes", fota_config.maximum_pkg_size);
    LOG_NOTICE_AS(nullptr, "sideload_maximum_pkg_size=[%u] bytes", fota_config.sideload_maximum_pkg_size);
    LOG_NOTICE_AS(nullptr, "platform_prefix=[%s]", fota_config.platform_prefix);
    LOG_NOTICE_AS(nullptr, "no_modem_version=[%u]", fota_config.no_modem_version);
    return FOTA_RC_SUCCESS;
}

fota_rc fota_init_settings() {
    MsgBusValue ready = {};
    for (int reads_left = SETTINGS_READS; reads_left > 0;) {
        (void)MsgBusGet("settings.ready", &ready);
        if (ready.value != 0) {
            LOG_NOTICE_AS(nullptr, "settings sub-system initialized successfully");
            break;
        }
        wait_seconds(1);
        --reads_left;
        LOG_DEBUG_AS(nullptr, "settings sub-system is not ready. retries left %d", reads_left);
    }
    if (ready.value == 0) {
        LOG_ERROR_AS(nullptr, "Failed to initialize settings. Settings sub-system not ready?");
        return FOTA_RC_FAILURE;
    }

    fota_features = {};
    const int rc = settings_get_features(&fota_features);
    if (rc != SETTINGS_SUCCESS) {
        LOG_ERROR_AS(nullptr, "Failed to initialize settings. settings_get_features returned %d", rc);
        return FOTA_RC_FAILURE;
    }
    if (fota_features.fota_enabled == 0) {
        LOG_NOTICE_AS(nullptr, "FOTA subsystem disabled in features.xml");
        return FOTA_RC_FAILURE;
    }
    return FOTA_RC_SUCCESS;
}
