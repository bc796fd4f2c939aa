// File-system tools for unpacking and clearing update packages. Stateless; two calls on the same folder at
// once are not coordinated. Any thread. Paths that reach a shell command must be plain (is_shell_safe);
// others are refused with FOTA_RC_FAILURE before any command runs.
#pragma once

#include "fota/result_codes.h"

// Flushes every file of a tree, then its folders. Goes on past failures. Returns 0, or 1 when a step failed;
// 0 when `dir` cannot be opened.
[[nodiscard]] int dir_sync_up(const char* dir);

// Deletes a tree, `dir` itself included; links are removed, not followed, also when `dir` is one. Goes on
// past failures. Returns 0, or 1 when something stayed, which is logged; 0 when `dir` cannot be opened.
[[nodiscard]] int dir_clean_up(const char* dir);

// Makes `path` an empty folder of mode 0700, whatever was there before. FOTA_RC_SUCCESS or FOTA_RC_FAILURE.
[[nodiscard]] fota_rc create_a_fresh_dir(const char* path);

// Removes whatever lies at `path` in a folder that others may write to; a link is removed, not followed.
void remove_planted(const char* path);

// create_a_fresh_dir for a folder that others could have planted, or that is a mount of its own:
// FOTA_RC_FAILURE, with an error line, also when what lies there in the end is not a folder of this user's,
// to which nobody else has access.
[[nodiscard]] fota_rc create_a_private_dir(const char* path);

// Extracts a whole zip archive, or its member `member` without stored folders, into `destination`, over
// existing files. The tool's output goes to the debug log file. FOTA_RC_SUCCESS, or FOTA_RC_FAILURE for any
// exit status but 0: also for 1, with which it warns of what it has extracted all the same.
[[nodiscard]] fota_rc unzip_a_file(const char* zip, const char* destination);
[[nodiscard]] fota_rc unzip_a_specific_file(const char* zip, const char* member, const char* destination);

// Appends `source` to `target`, made if missing, and removes `source`. FOTA_RC_SUCCESS;
// FOTA_RC_EMPTY_OR_SYNC_FAILED: `source` is empty or no regular file; FOTA_RC_FILE_NOT_FOUND: one of them
// cannot be opened; FOTA_RC_FILE_WRITE_FAILED: copied in part, the part stays in `target`; FOTA_RC_FAILURE:
// copied, but `source` stays.
[[nodiscard]] fota_rc append_file_and_delete_source(const char* target, const char* source);

// Moves a file, over an existing one. FOTA_RC_SUCCESS or FOTA_RC_FAILURE.
[[nodiscard]] fota_rc move_file(const char* source, const char* destination);
