#include "results/cookies.h"

#include "common/file_helpers.h"
#include "common/state_files.h"

fota_rc fota_set_tracking_cookie(uint32_t rec_id) {
    return fota_write_uint32(FOTA_TRACKING, rec_id);
}
fota_rc fota_get_tracking_cookie(uint32_t* rec_id) {
    return fota_read_str_conv_to_uint32(FOTA_TRACKING, rec_id);
}
fota_rc fota_remove_tracking_cookie() {
    return fota_remove_a_file(FOTA_TRACKING);
}

fota_rc fota_set_result_processed(uint32_t rec_id) {
    return fota_write_uint32(FOTA_RESULT_PROCESSED, rec_id);
}
fota_rc fota_set_revert_processed(uint32_t rec_id) {
    return fota_write_uint32(FOTA_REVERT_PROCESSED, rec_id);
}

fota_rc fota_get_est_update_time(uint32_t* seconds) {
    return fota_read_str_conv_to_uint32(FOTA_STAGING_EST_UPD_TIME, seconds);
}
fota_rc fota_set_est_update_time(uint32_t seconds) {
    return fota_write_uint32(FOTA_STAGING_EST_UPD_TIME, seconds);
}

fota_rc fota_get_pkg_description(char (&text)[FOTA_TEXT_SIZE]) {
    return fota_read_str_from_file(FOTA_STAGING_PKG_DESCRIPTION, text);
}
fota_rc fota_get_src_ver(char (&text)[FOTA_TEXT_SIZE]) {
    return fota_read_str_from_file(FOTA_STAGING_SRC_VER, text);
}
fota_rc fota_get_target_ver(char (&text)[FOTA_TEXT_SIZE]) {
    return fota_read_str_from_file(FOTA_STAGING_TARGET_VER, text);
}
