// Small files, made durable at once: the only way the daemon creates, reads, tests and removes its state.
// Every creation and removal ends with a sync of the file's folder and of the data directory, so that a power
// cut or the reboot into the installer never finds a half-written state file, and nothing comes back. Paths
// are absolute. Any thread; one writer a file is the callers' duty.
#pragma once

#include <dirent.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>

#include "fota/request.h"

static_assert(sizeof(off_t) == 8, "files of 2 GiB would not open: build with -D_FILE_OFFSET_BITS=64");

struct file_closer {
    void operator()(FILE* stream) const { fclose(stream); }
};
using file_ptr = std::unique_ptr<FILE, file_closer>;

struct dir_closer {
    void operator()(DIR* dir) const { closedir(dir); }
};
using dir_ptr = std::unique_ptr<DIR, dir_closer>;

// Whether a file on which a call failed with `error` may well be there, and hold what it held.
[[nodiscard]] bool is_passing_error(int error);

// Opens a file for reading, closed in child processes. A named pipe or a device never blocks the caller. Null
// with errno set when it cannot be opened.
[[nodiscard]] file_ptr open_for_reading(const char* path);

// The same for a regular file alone; null for anything else. For files that are read to their end, which that
// of a device never comes.
[[nodiscard]] file_ptr open_regular_for_reading(const char* path);

// True when the path can be opened for reading, whatever it is.
[[nodiscard]] bool can_open_for_reading(const char* path);

// True when something is there, whatever it is. Follows links.
[[nodiscard]] bool path_exists(const char* path);

// Reads the first line, its line end included, into `out`, cut to its width; no log line.
// False, and an empty text, when the file cannot be opened or read.
[[nodiscard]] bool read_first_line(const char* path, char (&out)[FOTA_TEXT_SIZE]);

// Syncs an open file or folder; `name` is for the log. False: an error line says so. Who does not look at it
// uses what cannot be synced all the same, since there is no better one.
bool sync_or_log(int fd, const char* name);

// FOTA_RC_SUCCESS, or FOTA_RC_EMPTY_OR_SYNC_FAILED when `path` cannot be opened as a directory.
[[nodiscard]] fota_rc sync_directory(const char* path);

// Flushes, syncs and closes `stream` (may be null), then syncs the data directory. Returns the result of that
// sync.
[[nodiscard]] fota_rc fota_sync_and_close(FILE* stream);

// FOTA_RC_SUCCESS also when there is nothing at `path`; a symbolic link is removed itself. FOTA_RC_FAILURE:
// not removed. Who does not look at the result has nothing better to do than to go on.
[[nodiscard]] fota_rc fota_remove_a_file(const char* path);

// read_first_line with a log line. FOTA_RC_FILE_NOT_FOUND: `out` is empty. An empty file gives an empty text
// and success. Whoever takes a missing file for an empty one need not look at the result.
[[nodiscard]] fota_rc fota_read_str_from_file(const char* path, char (&out)[FOTA_TEXT_SIZE]);

// Reads the first line as strtoul with base 0 does; numbers above 4294967295 are held there. No number gives
// 0 and success. FOTA_RC_FILE_NOT_FOUND: `*value` is 0, which for some callers says enough.
[[nodiscard]] fota_rc fota_read_str_conv_to_uint32(const char* path, uint32_t* value);

// Makes `path` a file of these `length` bytes of `data` (may be null: an empty flag file), whatever file was
// there before. Where the file system can (O_TMPFILE), a power cut leaves the old file or the whole new one;
// else, and for a path that is no plain file, it is created or truncated and then written. Returns
// FOTA_RC_SUCCESS; FOTA_RC_FILE_CREATE_FAILED; FOTA_RC_FILE_WRITE_FAILED on a short write, `path` is then
// gone; FOTA_RC_EMPTY_OR_SYNC_FAILED when the file is complete but the data directory could not be opened to
// be synced. A sync that fails (EIO) does not show in the result: the whole file still gets its name, and the
// log says that a power cut may take it.
[[nodiscard]] fota_rc fota_create_a_file(const char* path, const void* data, size_t length);

// Takes a file's content away and leaves the file; no link is followed, and nothing is said of one that is
// not there.
void empty_a_file(const char* path);

// Whether `path` itself is a symbolic link.
[[nodiscard]] bool is_link(const char* path);

// Whether both paths, links followed, lead to one file, however they are spelled.
[[nodiscard]] bool is_same_file(const char* path, const char* other);

// Removes what a power cut in the middle of fota_create_a_file can leave beside a file in the data directory.
// For the start, before anything is written.
void remove_unfinished_files();

// Writes `value` as decimal text without a line end. Results of fota_create_a_file.
[[nodiscard]] fota_rc fota_write_uint32(const char* path, uint32_t value);

// FOTA_RC_SUCCESS when `path`, links followed, is a regular file, else FOTA_RC_FAILURE.
[[nodiscard]] fota_rc fota_is_regular_file(const char* path);

// Size in bytes of a regular file, held at 2147483647; 0 for anything else.
[[nodiscard]] int32_t fota_get_file_size(const char* path);

// Makes the data directory when it is missing. FOTA_RC_FAILURE: there is none, or the path is something else.
[[nodiscard]] fota_rc verify_and_create_app_data_dir();
