// Every path that the daemon touches. Other programs on the device (installer, boot fail-safe, web interface,
// update tools) rely on these names; none is configurable. docs/state-files.md says who writes and reads
// which.
#pragma once

// clang-format off

// Data directory: what has to survive a request or a reboot.
inline constexpr char FOTA_DATA_DIR[]              = "/opt/qast/data/fota";
inline constexpr char FOTA_SESSION_LOCK[]          = "/opt/qast/data/fota/session";
inline constexpr char FOTA_UPGRADE_PKG[]           = "/opt/qast/data/fota/upgrade.zip";
inline constexpr char FOTA_HISTORY_DB[]            = "/opt/qast/data/fota/history.bin";
inline constexpr char FOTA_HISTORY_TMP[]           = "/opt/qast/data/fota/history.tmp";
inline constexpr char FOTA_FACTORY_CFG_REC[]       = "/opt/qast/data/fota/factory_cfg_rec";
inline constexpr char FOTA_UPDATE_CHECK[]          = "/opt/qast/data/fota/update_check";
inline constexpr char FOTA_TRACKING[]              = "/opt/qast/data/fota/tracking";
inline constexpr char FOTA_RESULT_PROCESSED[]      = "/opt/qast/data/fota/result_processed";
inline constexpr char FOTA_REVERT_PROCESSED[]      = "/opt/qast/data/fota/revert_processed";
inline constexpr char FOTA_RECOVERY_DEBUG_MODE[]   = "/opt/qast/data/fota/recovery_debug_mode";
inline constexpr char FOTA_CLEAN_UP[]              = "/opt/qast/data/fota/clean_up";
inline constexpr char FOTA_FULL_FOTA_WAIT[]        = "/opt/qast/data/fota/full_fota_wait";
inline constexpr char FOTA_SIDELOAD_COOKIE[]       = "/opt/qast/data/fota/sl_cookie";
inline constexpr char FOTA_DECRYPT_TEMP[]          = "/opt/qast/data/fota/sl_temp";
inline constexpr char FOTA_SIDELOAD_DEC_OUT[]      = "/opt/qast/data/fota/sl_dec_out";
inline constexpr char FOTA_PREVIOUS_SRC_VER[]      = "/opt/qast/data/fota/previous/config_files/src_ver";
inline constexpr char FOTA_PREVIOUS_TARGET_VER[]   = "/opt/qast/data/fota/previous/config_files/target_ver";

// Staging directory: the unpacked package, progress flags, and the installer's results.
inline constexpr char FOTA_STAGING_DIR[]                          = "/opt/qast/data/fota/staging";
inline constexpr char FOTA_STAGING_CHECKSUM_LIST[]                = "/opt/qast/data/fota/staging/dlpkg_cksum";
inline constexpr char FOTA_STAGING_SRC_VER[]                      = "/opt/qast/data/fota/staging/src_ver";
inline constexpr char FOTA_STAGING_TARGET_VER[]                   = "/opt/qast/data/fota/staging/target_ver";
inline constexpr char FOTA_STAGING_PKG_DESCRIPTION[]              = "/opt/qast/data/fota/staging/pkg_description";
inline constexpr char FOTA_STAGING_FULL_FOTA[]                    = "/opt/qast/data/fota/staging/full_fota";
inline constexpr char FOTA_STAGING_FULL_FOTA_SCRIPT[]             = "/opt/qast/data/fota/staging/full_fota_upgrade_script";
inline constexpr char FOTA_STAGING_PRE_INSTALL_SCRIPT[]           = "/opt/qast/data/fota/staging/pre_install_script";
inline constexpr char FOTA_STAGING_POST_INSTALL_SCRIPT[]          = "/opt/qast/data/fota/staging/post_install_script";
inline constexpr char FOTA_STAGING_POST_INSTALL_FAILED_SCRIPT[]   = "/opt/qast/data/fota/staging/post_install_failed_script";
inline constexpr char FOTA_STAGING_UPDATE_DLPKG_VERIFIED[]        = "/opt/qast/data/fota/staging/update_dlpkg_verified";
inline constexpr char FOTA_STAGING_UPDATE_PRE_INSTALL[]           = "/opt/qast/data/fota/staging/update_pre_install";
inline constexpr char FOTA_STAGING_UPDATE_PRE_FULL_FOTA_INSTALL[] = "/opt/qast/data/fota/staging/update_pre_full_fota_install";
inline constexpr char FOTA_STAGING_EST_UPD_TIME[]                 = "/opt/qast/data/fota/staging/est_upd_time";
inline constexpr char FOTA_STAGING_LPM[]                          = "/opt/qast/data/fota/staging/lpm";
inline constexpr char FOTA_STAGING_SHUTDOWN[]                     = "/opt/qast/data/fota/staging/shutdown";
inline constexpr char FOTA_STAGING_UPDATE_SUCCESS[]               = "/opt/qast/data/fota/staging/result_success";
inline constexpr char FOTA_STAGING_UPDATE_FAILURE[]               = "/opt/qast/data/fota/staging/result_failure";
inline constexpr char FOTA_STAGING_UPDATE_FAILURE_REASON[]        = "/opt/qast/data/fota/staging/result_failure_reason";
inline constexpr char FOTA_STAGING_PRI_LINUX_SUCCESS[]            = "/opt/qast/data/fota/staging/pri_linux_success";
inline constexpr char FOTA_STAGING_PRI_LINUX_FAILURE[]            = "/opt/qast/data/fota/staging/pri_linux_failure";
inline constexpr char FOTA_STAGING_PRI_MODEM_SUCCESS[]            = "/opt/qast/data/fota/staging/pri_modem_success";
inline constexpr char FOTA_STAGING_PRI_MODEM_FAILURE[]            = "/opt/qast/data/fota/staging/pri_modem_failure";
inline constexpr char FOTA_STAGING_SUA_COOKIE[]                   = "/opt/qast/data/fota/staging/sua_cookie";
inline constexpr char FOTA_STAGING_SUA_PKG_DESC[]                 = "/opt/qast/data/fota/staging/sua_pkg_desc";
inline constexpr char FOTA_STAGING_SUA_PKG_NAME[]                 = "/opt/qast/data/fota/staging/sua_pkg_name";
inline constexpr char FOTA_STAGING_SUA_PKG_VER[]                  = "/opt/qast/data/fota/staging/sua_pkg_ver";
inline constexpr char FOTA_STAGING_SUA_PKG_SIZE[]                 = "/opt/qast/data/fota/staging/sua_pkg_size";
inline constexpr char FOTA_STAGING_SUA_PKG_TS[]                   = "/opt/qast/data/fota/staging/sua_pkg_ts";
inline constexpr char FOTA_DEVICE_INFO_DIR[]                      = "/opt/qast/data/fota/staging/device_info";
inline constexpr char FOTA_DEVICE_DETAILS_MDN[]                   = "/opt/qast/data/fota/staging/device_info/device_details_mdn";
inline constexpr char FOTA_DEVICE_DETAILS_IMEI[]                  = "/opt/qast/data/fota/staging/device_info/device_details_imei";
inline constexpr char FOTA_DEVICE_DETAILS_MODEL[]                 = "/opt/qast/data/fota/staging/device_info/device_details_model";
inline constexpr char FOTA_DEVICE_DETAILS_SWV[]                   = "/opt/qast/data/fota/staging/device_info/device_details_swv";

// Put there by the device image.
inline constexpr char FOTA_CONFIG_FILE[]           = "/opt/qast/etc/fota/config.xml";
inline constexpr char FOTA_DEVICE_KEY[]            = "/opt/qast/etc/fota/device.pem";
inline constexpr char FOTA_BUILD_CERT[]            = "/opt/qast/etc/fota/build_cert.pem";
inline constexpr char FOTA_BUILD_PUBKEY[]          = "/opt/qast/etc/fota/build_pubkey.pem";
inline constexpr char FOTA_OS_VERSION[]            = "/opt/qast/etc/vexaos-version";
inline constexpr char FOTA_KERNEL_MINOR_VERSION[]  = "/opt/qast/etc/vexaos-kernel-minor-version";
inline constexpr char FOTA_KERNEL_RELEASE[]        = "/proc/sys/kernel/osrelease";

// Left by the boot fail-safe after a fall-back to the previous firmware.
inline constexpr char FOTA_REVERT_MARKER[]         = "/opt/qast/log/AB_failsafe/fw_verify_failed";
inline constexpr char FOTA_REVERT_ERROR_CODE[]     = "/opt/qast/log/AB_failsafe/fw_verify_failed_error_code";
inline constexpr char FOTA_REVERT_REASON[]         = "/opt/qast/log/AB_failsafe/fw_verify_failed_reason";

// Side-load input, and work files outside the data directory.
inline constexpr char FOTA_WEBUI_UPLOAD[]          = "/opt/qast/data/webui/uploads/uploadedfile";
inline constexpr char FOTA_SIDELOAD_TMP_DIR[]      = "/dev/sideload_tmp";
inline constexpr char FOTA_SIDELOAD_PKG_LIST[]     = "/dev/sideload_tmp/pkg_list";
inline constexpr char FOTA_WORK_DIR[]              = "/tmp";
inline constexpr char FOTA_PKG_DETAILS_MEMBER[]    = "pkg_details.zip.enc";
inline constexpr char FOTA_PKG_DETAILS_ENCRYPTED[] = "/tmp/pkg_details.zip.enc";
inline constexpr char FOTA_PKG_DETAILS[]           = "/tmp/pkg_details.zip";
inline constexpr char FOTA_COMMAND_LOG[]           = "/var/log/debug_log";

// Whose lock the one daemon holds.
inline constexpr char FOTA_DAEMON_LOCK[]           = "/run/fotad.lock";

// clang-format on
