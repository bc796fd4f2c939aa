// One-line state files that follow an update across requests and across the reboot that installs it. Getters
// return FOTA_RC_SUCCESS or FOTA_RC_FILE_NOT_FOUND (the output is then 0 or empty); setters the codes of
// fota_create_a_file. Text buffers hold 255 bytes; a text keeps its line end. Any thread.
#pragma once

#include <cstdint>

#include "fota/result_codes.h"

// The record of the update in progress.
fota_rc fota_set_tracking_cookie(uint32_t rec_id);
fota_rc fota_get_tracking_cookie(uint32_t* rec_id);
fota_rc fota_remove_tracking_cookie();

// The record whose installation result, or revert, has been recorded and waits to be asked for.
fota_rc fota_set_result_processed(uint32_t rec_id);
fota_rc fota_set_revert_processed(uint32_t rec_id);

// Estimated installation time of the staged package, in seconds.
fota_rc fota_get_est_update_time(uint32_t* seconds);
fota_rc fota_set_est_update_time(uint32_t seconds);

// What the staged package says of itself.
fota_rc fota_get_pkg_description(char* text);
fota_rc fota_get_src_ver(char* text);
fota_rc fota_get_target_ver(char* text);
