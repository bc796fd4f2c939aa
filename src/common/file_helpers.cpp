#include "common/file_helpers.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "common/command.h"
#include "common/state_files.h"
#include "common/text.h"
#include "core/log.h"
#include "core/request.h"

namespace {

// Clients may name a named pipe, whose plain open() waits for the other end.
constexpr int NEVER_BLOCK = O_NONBLOCK | O_NOCTTY | O_CLOEXEC;

}  // namespace

file_ptr open_for_reading(const char* path) {
    const int fd = open(path, O_RDONLY | NEVER_BLOCK);
    if (fd < 0) return nullptr;
    file_ptr stream(fdopen(fd, "r"));
    if (!stream) close(fd);
    return stream;
}

file_ptr open_regular_for_reading(const char* path) {
    file_ptr stream = open_for_reading(path);
    struct stat info = {};
    if (stream && (fstat(fileno(stream.get()), &info) != 0 || !S_ISREG(info.st_mode))) stream.reset();
    return stream;
}

bool can_open_for_reading(const char* path) {
    const int fd = open(path, O_RDONLY | NEVER_BLOCK);
    if (fd < 0) return false;
    close(fd);
    return true;
}

bool read_first_line(const char* path, char* out) {
    memset(out, 0, FOTA_TEXT_SIZE);
    const file_ptr stream = open_for_reading(path);
    if (!stream) return false;
    if (fgets(out, FOTA_TEXT_SIZE, stream.get()) == nullptr) out[0] = '\0';
    return true;
}

bool path_exists(const char* path) {
    return access(path, F_OK) == 0;
}

fota_rc sync_directory(const char* path) {
    const int fd = open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        LOG_ERROR("Cannot open dir, errno:%d\n", errno);
        return FOTA_RC_EMPTY_OR_SYNC_FAILED;
    }
    fsync(fd);
    close(fd);
    LOG_NOTICE("complete[%s]\n", path);
    return FOTA_RC_SUCCESS;
}

fota_rc fota_sync_and_close(FILE* stream) {
    if (stream != nullptr) {
        fflush(stream);
        fsync(fileno(stream));
        fclose(stream);
    }
    return sync_directory(FOTA_DATA_DIR);
}

fota_rc fota_remove_a_file(const char* path) {
    struct stat info = {};
    if (lstat(path, &info) != 0) return FOTA_RC_SUCCESS;
    const int ret = unlink(path);
    if (ret != 0) {
        LOG_ERROR("unlink failed ret=%d for file:%s\n", ret, path);
        return FOTA_RC_FAILURE;
    }
    (void)sync_directory(FOTA_DATA_DIR);
    return FOTA_RC_SUCCESS;
}

fota_rc fota_read_str_from_file(const char* path, char* out) {
    if (!read_first_line(path, out)) {
        LOG_NOTICE("File not found: %s\n", path);
        return FOTA_RC_FILE_NOT_FOUND;
    }
    LOG_NOTICE("Read str %s from file:%s\n", out, path);
    return FOTA_RC_SUCCESS;
}

fota_rc fota_read_str_conv_to_uint32(const char* path, uint32_t* value) {
    *value = 0;
    char line[FOTA_TEXT_SIZE];
    if (!read_first_line(path, line)) {
        LOG_NOTICE("File not found: %s\n", path);
        return FOTA_RC_FILE_NOT_FOUND;
    }
    *value = static_cast<uint32_t>(strtoul(line, nullptr, 0));
    LOG_NOTICE("Read value %u from file:%s\n", *value, path);
    return FOTA_RC_SUCCESS;
}

fota_rc fota_create_a_file(const char* path, const void* data, size_t length) {
    LOG_DEBUG("filepath:%s\n", path);
    const int fd = open(path, O_RDWR | O_CREAT | O_TRUNC | NEVER_BLOCK, 0666);
    FILE* stream = fd < 0 ? nullptr : fdopen(fd, "wb+");
    if (stream == nullptr) {
        if (fd >= 0) close(fd);
        LOG_ERROR("File create failed: %s\n", path);
        return FOTA_RC_FILE_CREATE_FAILED;
    }
    // Unbuffered, so that a full disk shows in the count of this write and not in a flush whose result is
    // lost.
    setvbuf(stream, nullptr, _IONBF, 0);
    if (data != nullptr) {
        const size_t written = fwrite(data, 1, length, stream);
        if (written != length) {
            LOG_ERROR("file (%s) write failed expected:%d, returned:%d\n", path, static_cast<int>(length),
                      static_cast<int>(written));
            fclose(stream);
            const int rc = unlink(path);
            if (rc != 0) LOG_ERROR("unlink failed for:%s rc=%d, errno:%d\n", path, rc, errno);
            return FOTA_RC_FILE_WRITE_FAILED;
        }
    }
    const fota_rc rc = fota_sync_and_close(stream);
    if (rc == FOTA_RC_SUCCESS) LOG_NOTICE("File created :%s\n", path);
    return rc;
}

fota_rc fota_write_uint32(const char* path, uint32_t value) {
    char text[16];
    text_format(text, sizeof text, "%u", value);
    return fota_create_a_file(path, text, strlen(text));
}

fota_rc fota_is_regular_file(const char* path) {
    struct stat info = {};
    return stat(path, &info) == 0 && S_ISREG(info.st_mode) ? FOTA_RC_SUCCESS : FOTA_RC_FAILURE;
}

int32_t fota_get_file_size(const char* path) {
    struct stat info = {};
    if (stat(path, &info) != 0 || !S_ISREG(info.st_mode)) return 0;
    return static_cast<int32_t>(std::min<off_t>(info.st_size, INT32_MAX));
}

fota_rc verify_and_create_app_data_dir() {
    for (bool created = false;; created = true) {
        struct stat info = {};
        if (stat(FOTA_DATA_DIR, &info) == 0) {
            if (!S_ISDIR(info.st_mode)) return FOTA_RC_FAILURE;
            LOG_NOTICE("Data directory found\n");
            return FOTA_RC_SUCCESS;
        }
        if (created) {
            LOG_ERROR("Directory not present even after created once\n");
            return FOTA_RC_FAILURE;
        }
        char command[FOTA_TEXT_SIZE];
        text_format(command, sizeof command, "%s %s", "mkdir -p ", FOTA_DATA_DIR);
        const int exit_code = run_command(command);
        if (exit_code != 0) {
            LOG_ERROR("Failed to create FOTA APP data directory, error code:%d\n", exit_code);
            return FOTA_RC_FAILURE;
        }
        LOG_NOTICE("Successfully created Data directory\n");
    }
}
