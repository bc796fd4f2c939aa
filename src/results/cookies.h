// One-line state files that follow an update across requests and across the reboot that installs it. Getters
// return FOTA_RC_SUCCESS or FOTA_RC_FILE_NOT_FOUND (the output is then 0 or empty); setters the codes of
// fota_create_a_file. Text buffers hold 255 bytes; a text keeps its line end. Any thread.
#pragma once

#include <cstdint>

#include "fota/request.h"

// A cookie that cannot be written or removed is logged. Callers go on without it and then do not look at the
// result: the update itself is worth more than who is told of it.

// The record of the update in progress.
[[nodiscard]] fota_rc fota_set_tracking_cookie(uint32_t rec_id);
[[nodiscard]] fota_rc fota_get_tracking_cookie(uint32_t* rec_id);
[[nodiscard]] fota_rc fota_remove_tracking_cookie();

// The record whose installation result, or revert, has been recorded and waits to be asked for.
[[nodiscard]] fota_rc fota_set_result_processed(uint32_t rec_id);
[[nodiscard]] fota_rc fota_set_revert_processed(uint32_t rec_id);

// Estimated installation time of the staged package, in seconds.
[[nodiscard]] fota_rc fota_get_est_update_time(uint32_t* seconds);
[[nodiscard]] fota_rc fota_set_est_update_time(uint32_t seconds);

// What the staged package says of itself.
[[nodiscard]] fota_rc fota_get_pkg_description(char (&text)[FOTA_TEXT_SIZE]);
[[nodiscard]] fota_rc fota_get_src_ver(char (&text)[FOTA_TEXT_SIZE]);
[[nodiscard]] fota_rc fota_get_target_ver(char (&text)[FOTA_TEXT_SIZE]);
