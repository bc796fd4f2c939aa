#include "package/staging_tools.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "common/command.h"
#include "common/file_helpers.h"
#include "common/text.h"
#include "core/log.h"

namespace {

constexpr size_t PATH_SIZE = 1024;
constexpr size_t COPY_SIZE = 1024;

// Runs a command line unless it was `cut` to fit its buffer: it would do something else.
int run_whole(const char* command, bool cut) {
    return cut ? COMMAND_NOT_STARTED : run_command(command);
}

// The next entry that is not the folder itself or its parent; null at the end.
const dirent* next_entry(DIR* dir) {
    const dirent* entry = readdir(dir);
    while (entry != nullptr && (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0)) {
        entry = readdir(dir);
    }
    return entry;
}

// One entry of a folder: where it is, for the system, and its path, for the log.
struct tree_entry {
    int folder;  // descriptor of the folder that it lies in
    const char* name;
    const char* path;
};

// What a walk does with each entry, and the name that its log lines carry. Both return 0, or 1 after a
// failure.
struct tree_walk {
    const char* function;
    int (*on_folder)(const tree_entry& entry);
    int (*on_file)(const tree_entry& entry, const char* function);
};

// Walks the entries of one folder and goes on past failures. Returns the OR of what the calls return, or -1
// when the folder cannot be opened. By descriptor and without following links, so that nobody can lead a walk
// astray while it runs.
int for_each_entry(const tree_entry& dir, const tree_walk& walk) {
    const int fd = openat(dir.folder, dir.name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    const dir_ptr stream(fd < 0 ? nullptr : fdopendir(fd));
    if (!stream) {
        if (fd >= 0) close(fd);
        return -1;
    }
    LOG_DEBUG_AS(walk.function, "Opened dir:%s\n", dir.path);
    int failed = 0;
    while (const dirent* next = next_entry(stream.get())) {
        char path[PATH_SIZE];
        text_format(path, sizeof path, "%s/%s", dir.path, next->d_name);
        const bool fits = strlen(dir.path) + 1 + strlen(next->d_name) < sizeof path;
        const tree_entry entry = {fd, next->d_name, path};
        struct stat info = {};
        if (!fits || fstatat(fd, next->d_name, &info, AT_SYMLINK_NOFOLLOW) != 0) {
            LOG_ERROR_AS(walk.function, "stat failed for %s\n", path);
            failed = 1;
        } else if (S_ISDIR(info.st_mode)) {
            LOG_DEBUG_AS(walk.function, "Entering sub directory: %s\n", path);
            failed |= walk.on_folder(entry);
        } else {
            failed |= walk.on_file(entry, walk.function);
        }
    }
    return failed;
}

int sync_file(const tree_entry& entry, const char* function) {
    const int fd = openat(entry.folder, entry.name, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) {
        LOG_ERROR_AS(function, "failed to open[%s]\n", entry.path);
        return 1;
    }
    LOG_DEBUG_AS(function, "fsync[%s]\n", entry.path);
    sync_or_log(fd, entry.path);
    close(fd);
    return 0;
}

int remove_or_log(const tree_entry& entry, int flags, const char* function) {
    if (unlinkat(entry.folder, entry.name, flags) == 0) return 0;
    LOG_ERROR_AS(function, "Remove failed for: %s, erron no:%d\n", entry.path, errno);
    return 1;
}

int delete_file(const tree_entry& entry, const char* function) {
    LOG_DEBUG_AS(function, "Deleting: %s\n", entry.path);
    return remove_or_log(entry, 0, function);
}

int sync_folder(const tree_entry& dir) {
    const int failed = for_each_entry(dir, {"dir_sync_up", sync_folder, sync_file});
    if (failed < 0) return 0;
    return sync_directory(dir.path) == FOTA_RC_SUCCESS ? failed : 1;
}

int clean_folder(const tree_entry& dir) {
    const int failed = for_each_entry(dir, {"dir_clean_up", clean_folder, delete_file});
    if (failed >= 0) return failed | remove_or_log(dir, AT_REMOVEDIR, "dir_clean_up");
    return is_link(dir.path) ? delete_file(dir, "dir_clean_up") : 0;
}

}  // namespace

int dir_sync_up(const char* dir) {
    return sync_folder({AT_FDCWD, dir, dir});
}

int dir_clean_up(const char* dir) {
    return clean_folder({AT_FDCWD, dir, dir});
}

fota_rc create_a_fresh_dir(const char* path) {
    if (!is_shell_safe(path)) return FOTA_RC_FAILURE;
    struct stat info = {};
    if (stat(path, &info) == 0) {
        if (S_ISDIR(info.st_mode)) {
            LOG_NOTICE_BOTH("Found stale dir for:%s, Deleting..\n", path);
            (void)dir_clean_up(path);
        } else {
            LOG_ERROR("Found a file with same name as staging dir, Deleting\n");
            if (unlink(path) != 0) {
                LOG_NOTICE("Removing stale file: %s failed\n", path);
                return FOTA_RC_FAILURE;
            }
        }
    }
    LOG_NOTICE("Creating directory:%s\n", path);
    char command[PATH_SIZE];
    const bool cut = !text_format(command, sizeof command, "%s %s", "mkdir -p -m 0700", path);
    const int exit_code = run_whole(command, cut);
    if (exit_code != 0) {
        LOG_NOTICE("%s\n", command);
        LOG_ERROR("Failed to create directory:%s, error code:%d\n", path, exit_code);
        return FOTA_RC_FAILURE;
    }
    LOG_NOTICE("Directory created!!\n");
    return FOTA_RC_SUCCESS;
}

void remove_planted(const char* path) {
    (void)dir_clean_up(path);
    unlink(path);  // what is no folder is still there
}

fota_rc create_a_private_dir(const char* path) {
    struct stat info = {};
    if (lstat(path, &info) == 0 && !S_ISDIR(info.st_mode)) unlink(path);
    const fota_rc rc = create_a_fresh_dir(path);
    if (rc != FOTA_RC_SUCCESS) return rc;
    // mkdir -p is content with a folder, or a link to one, that somebody made in between; and a folder that
    // is a mount of its own is emptied, not made anew, and keeps its mode.
    const int fd = open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    const bool ours = fd >= 0 && fstat(fd, &info) == 0 && info.st_uid == geteuid() && fchmod(fd, 0700) == 0;
    if (fd >= 0) close(fd);
    if (!ours) LOG_ERROR("Refused, not a folder of this user's own:%s\n", path);
    return ours ? FOTA_RC_SUCCESS : FOTA_RC_FAILURE;
}

fota_rc unzip_a_file(const char* zip, const char* destination) {
    LOG_NOTICE("Extracting file:%s to:%s\n", zip, destination);
    if (!is_shell_safe(zip) || !is_shell_safe(destination)) return FOTA_RC_FAILURE;
    char command[PATH_SIZE];
    const bool cut = !text_format(command, sizeof command, "%s %s %s %s >>/var/log/debug_log 2>&1",
                                  "/usr/bin/unzip -o", zip, "-d", destination);
    const int exit_code = run_whole(command, cut);
    if (exit_code == 0) return FOTA_RC_SUCCESS;
    LOG_NOTICE("%s\n", command);
    LOG_ERROR("Unzip of %s failed, error code:%d\n", zip, exit_code);
    return FOTA_RC_FAILURE;
}

fota_rc unzip_a_specific_file(const char* zip, const char* member, const char* destination) {
    LOG_NOTICE("Extracting file:%s to:%s\n", zip, destination);
    if (!is_shell_safe(zip) || !is_shell_safe(member) || !is_shell_safe(destination)) return FOTA_RC_FAILURE;
    char command[PATH_SIZE];
    const bool cut = !text_format(command, sizeof command, "%s %s %s %s %s >>/var/log/debug_log 2>&1",
                                  "/usr/bin/unzip -jo", zip, member, "-d", destination);
    const int exit_code = run_whole(command, cut);
    if (exit_code == 0) return FOTA_RC_SUCCESS;
    LOG_NOTICE("%s\n", command);
    LOG_ERROR("Unzip of specific_file [%s] from %s failed, error code:%d\n", member, zip, exit_code);
    return FOTA_RC_FAILURE;
}

fota_rc append_file_and_delete_source(const char* target, const char* source) {
    const auto size = static_cast<uint32_t>(fota_get_file_size(source));
    if (size == 0) {
        LOG_ERROR("source file: %s, size is 0\n", source);
        return FOTA_RC_EMPTY_OR_SYNC_FAILED;
    }
    file_ptr in(fopen(source, "rbe"));
    if (!in) {
        LOG_ERROR("source file: %s not found\n", source);
        return FOTA_RC_FILE_NOT_FOUND;
    }
    file_ptr out(fopen(target, "ab+e"));
    if (!out) {
        LOG_ERROR("target file: %s not found\n", target);
        return FOTA_RC_FILE_NOT_FOUND;
    }
    // Unbuffered, so that a full disk shows in the count of the write it hits.
    setvbuf(out.get(), nullptr, _IONBF, 0);
    uint32_t copied = 0;
    while (copied != size) {
        char buffer[COPY_SIZE] = {};
        const size_t count = fread(buffer, 1, sizeof buffer, in.get());
        if (count == 0) break;
        const size_t written = fwrite(buffer, 1, count, out.get());
        if (written < count) {
            LOG_ERROR("fwrite of file:%s failed, expected:%d but returned:%d\n", target,
                      static_cast<int>(count), static_cast<int>(written));
            break;
        }
        copied += static_cast<uint32_t>(count);
    }
    in.reset();
    out.reset();
    if (copied != size) {
        LOG_ERROR("filesize (%u) != read_count (%u)\n", size, copied);
        return FOTA_RC_FILE_WRITE_FAILED;
    }
    const fota_rc rc = fota_remove_a_file(source);
    if (rc != FOTA_RC_SUCCESS) {
        LOG_ERROR("fota_remove_a_file() failed to remove:%s, rc=%d\n", source, static_cast<int>(rc));
        return FOTA_RC_FAILURE;
    }
    return FOTA_RC_SUCCESS;
}

fota_rc move_file(const char* source, const char* destination) {
    LOG_NOTICE("Moving file from %s to %s \n", source, destination);
    if (!is_shell_safe(source) || !is_shell_safe(destination)) return FOTA_RC_FAILURE;
    char command[PATH_SIZE];
    const bool cut = !text_format(command, sizeof command, "mv %s %s", source, destination);
    LOG_NOTICE_BOTH("Executing.. [%s]\n", command);
    if (run_whole(command, cut) == 0) return FOTA_RC_SUCCESS;
    LOG_NOTICE_BOTH("%s\n", command);
    LOG_NOTICE("Moving file from %s to %s is failed\n", source, destination);
    return FOTA_RC_FAILURE;
}
