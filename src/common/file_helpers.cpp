#include "common/file_helpers.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "common/command.h"
#include "common/state_files.h"
#include "common/text.h"
#include "core/log.h"
#include "fota/request.h"

namespace {

// Clients may name a named pipe, whose plain open() waits for the other end.
constexpr int NEVER_BLOCK = O_NONBLOCK | O_NOCTTY | O_CLOEXEC;

constexpr char CREATE_A_FILE[] = "fota_create_a_file";  // whose log lines these are

// Of a file that is whole and about to take the place of another one.
constexpr char BESIDE[] = ".fota_new";

constexpr mode_t NEW_FILE_MODE = 0666;  // less what the process's mask takes away

// The folder of a path, which is "." for a bare name. False when it does not fit.
bool folder_of(const char* path, char* folder, size_t size) {
    const char* slash = strrchr(path, '/');
    if (slash == nullptr) return text_format(folder, size, ".");
    const auto length = static_cast<size_t>(slash - path);
    return text_format(folder, size, "%.*s", static_cast<int>(length == 0 ? 1 : length), path);
}

// A name in another folder than the data directory is as durable as one in it.
void sync_own_folder(const char* path) {
    char folder[PATH_MAX];
    if (!folder_of(path, folder, sizeof folder) || strcmp(folder, FOTA_DATA_DIR) == 0) return;
    const int fd = open(folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    sync_or_log(fd, folder);
    close(fd);
}

bool write_all(int fd, const void* data, size_t length) {
    const char* next = static_cast<const char*>(data);
    while (length > 0) {
        const ssize_t written = write(fd, next, length);
        if (written <= 0) return false;
        next += written;
        length -= static_cast<size_t>(written);
    }
    return true;
}

// Gives an unnamed file its name, over a file that has it.
bool give_name(int fd, const char* path) {
    char unnamed[32];
    text_format(unnamed, sizeof unnamed, "/proc/self/fd/%d", fd);
    if (linkat(AT_FDCWD, unnamed, AT_FDCWD, path, AT_SYMLINK_FOLLOW) == 0) return true;
    char beside[PATH_MAX];
    if (errno != EEXIST || !text_format(beside, sizeof beside, "%s%s", path, BESIDE)) return false;
    unlink(beside);
    if (linkat(AT_FDCWD, unnamed, AT_FDCWD, beside, AT_SYMLINK_FOLLOW) != 0) return false;
    if (rename(beside, path) == 0) return true;
    unlink(beside);
    return false;
}

// A file of that folder without a name, with the rights of `old` (may be null). -1: it cannot be made, or
// written whole.
int write_unnamed(const char* folder, const struct stat* old, const void* data, size_t length) {
    const int fd = open(folder, O_TMPFILE | O_WRONLY | O_CLOEXEC, NEW_FILE_MODE);
    if (fd < 0) return -1;
    const bool as_before = old == nullptr || (fchown(fd, old->st_uid, old->st_gid) == 0 &&
                                              fchmod(fd, old->st_mode & 07777) == 0);
    if (as_before && write_all(fd, data, length)) return fd;
    close(fd);
    return -1;
}

// Writes a file that has its name only once it is whole and synced, where file system and path allow that: a
// power cut must not leave a lock without an owner. False, and nothing changed, where they do not.
bool create_at_once(const char* path, const void* data, size_t length) {
    struct stat old = {};
    const bool exists = lstat(path, &old) == 0;
    if (exists && (!S_ISREG(old.st_mode) || old.st_nlink != 1)) return false;
    char folder[PATH_MAX];
    if (!folder_of(path, folder, sizeof folder)) return false;
    const struct stat* const rights = exists ? &old : nullptr;
    int fd = write_unnamed(folder, rights, data, length);
    if (fd < 0) return false;
    if (!sync_or_log(fd, path)) {
        // A block of the flash may be bad, and others are not. When they are, the file is used all the same:
        // whole it is, and the old one would be lost with any other way.
        const int other = write_unnamed(folder, rights, data, length);
        if (other >= 0) {
            close(fd);
            fd = other;
            sync_or_log(fd, path);
        }
    }
    const bool created = give_name(fd, path);
    close(fd);
    // Whoever watches the folder waits for the file of that name to be closed by a writer.
    const int named = created ? open(path, O_WRONLY | O_NOFOLLOW | NEVER_BLOCK) : -1;
    if (named >= 0) close(named);
    return created;
}

// Creates or truncates; says what goes wrong.
fota_rc create_in_place(const char* path, const void* data, size_t length) {
    const int fd = open(path, O_RDWR | O_CREAT | O_TRUNC | NEVER_BLOCK, NEW_FILE_MODE);
    FILE* stream = fd < 0 ? nullptr : fdopen(fd, "wb+");
    if (stream == nullptr) {
        if (fd >= 0) close(fd);
        LOG_ERROR_AS(CREATE_A_FILE, "File create failed: %s\n", path);
        return FOTA_RC_FILE_CREATE_FAILED;
    }
    // Unbuffered, so that a full disk shows in the count of this write and not in a flush whose result is
    // lost.
    setvbuf(stream, nullptr, _IONBF, 0);
    if (data != nullptr) {
        const size_t written = fwrite(data, 1, length, stream);
        if (written != length) {
            LOG_ERROR_AS(CREATE_A_FILE, "file (%s) write failed expected:%d, returned:%d\n", path,
                         static_cast<int>(length), static_cast<int>(written));
            fclose(stream);
            const int rc = unlink(path);
            if (rc != 0) {
                LOG_ERROR_AS(CREATE_A_FILE, "unlink failed for:%s rc=%d, errno:%d\n", path, rc, errno);
            }
            return FOTA_RC_FILE_WRITE_FAILED;
        }
    }
    return fota_sync_and_close(stream);
}

// As strtoul with base 0 does where a long has 32 bits: what is larger is held at the largest.
uint32_t to_uint32(const char* text) {
    const long long number = strtoll(text, nullptr, 0);
    constexpr long long LARGEST = UINT32_MAX;
    return static_cast<uint32_t>(number > LARGEST || number < -LARGEST ? LARGEST : number);
}

}  // namespace

bool is_passing_error(int error) {
    return error == EMFILE || error == ENFILE || error == ENOMEM || error == EIO || error == EINTR;
}

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

bool read_first_line(const char* path, char (&out)[FOTA_TEXT_SIZE]) {
    memset(out, 0, FOTA_TEXT_SIZE);
    const file_ptr stream = open_for_reading(path);
    if (!stream) return false;
    if (fgets(out, FOTA_TEXT_SIZE, stream.get()) != nullptr) return true;
    out[0] = '\0';
    return ferror(stream.get()) == 0 || errno == EISDIR;  // a folder is empty
}

bool path_exists(const char* path) {
    return access(path, F_OK) == 0;
}

bool sync_or_log(int fd, const char* name) {
    if (fsync(fd) == 0) return true;
    LOG_ERROR("fsync failed, errno:%d for:%s\n", errno, name);
    return false;
}

fota_rc sync_directory(const char* path) {
    const int fd = open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        LOG_ERROR("Cannot open dir, errno:%d\n", errno);
        return FOTA_RC_EMPTY_OR_SYNC_FAILED;
    }
    sync_or_log(fd, path);
    close(fd);
    LOG_NOTICE("complete[%s]\n", path);
    return FOTA_RC_SUCCESS;
}

fota_rc fota_sync_and_close(FILE* stream) {
    if (stream != nullptr) {
        fflush(stream);
        sync_or_log(fileno(stream), "the file just written");
        fclose(stream);
    }
    return sync_directory(FOTA_DATA_DIR);
}

fota_rc fota_remove_a_file(const char* path) {
    struct stat info = {};
    if (lstat(path, &info) != 0 && !is_passing_error(errno)) return FOTA_RC_SUCCESS;
    const int ret = unlink(path);
    if (ret != 0) {
        LOG_ERROR("unlink failed ret=%d for file:%s\n", ret, path);
        return FOTA_RC_FAILURE;
    }
    sync_own_folder(path);
    (void)sync_directory(FOTA_DATA_DIR);
    return FOTA_RC_SUCCESS;
}

fota_rc fota_read_str_from_file(const char* path, char (&out)[FOTA_TEXT_SIZE]) {
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
    *value = to_uint32(line);
    LOG_NOTICE("Read value %u from file:%s\n", *value, path);
    return FOTA_RC_SUCCESS;
}

fota_rc fota_create_a_file(const char* path, const void* data, size_t length) {
    LOG_DEBUG("filepath:%s\n", path);
    const bool at_once = data != nullptr && length > 0 && create_at_once(path, data, length);
    const fota_rc rc = at_once ? sync_directory(FOTA_DATA_DIR) : create_in_place(path, data, length);
    if (rc != FOTA_RC_SUCCESS) return rc;
    sync_own_folder(path);
    LOG_NOTICE("File created :%s\n", path);
    return FOTA_RC_SUCCESS;
}

void empty_a_file(const char* path) {
    const int fd = open(path, O_WRONLY | O_TRUNC | O_NOFOLLOW | NEVER_BLOCK);
    if (fd >= 0) close(fd);
}

bool is_link(const char* path) {
    struct stat info = {};
    return lstat(path, &info) == 0 && S_ISLNK(info.st_mode);
}

bool is_same_file(const char* path, const char* other) {
    struct stat info = {};
    struct stat other_info = {};
    return stat(path, &info) == 0 && stat(other, &other_info) == 0 && info.st_dev == other_info.st_dev &&
           info.st_ino == other_info.st_ino;
}

void remove_unfinished_files() {
    const dir_ptr dir(opendir(FOTA_DATA_DIR));
    if (!dir) return;
    while (const dirent* entry = readdir(dir.get())) {
        const size_t length = strlen(entry->d_name);
        if (length < sizeof BESIDE || strcmp(entry->d_name + length - strlen(BESIDE), BESIDE) != 0) continue;
        unlinkat(dirfd(dir.get()), entry->d_name, 0);
    }
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
        sync_own_folder(FOTA_DATA_DIR);  // all state goes with its name
        LOG_NOTICE("Successfully created Data directory\n");
    }
}
