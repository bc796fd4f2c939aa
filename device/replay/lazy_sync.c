/* A daemon that does not sync, to see that its cuts are noticed: preloaded into it, all syncs do nothing and
   succeed, or with LAZY_SYNC=folders those of folders. */
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

static int only_folders(void) {
    const char* const lazy = getenv("LAZY_SYNC");
    return lazy != NULL && strcmp(lazy, "folders") == 0;
}

int fsync(int fd) {
    struct stat info;
    if (!only_folders() || fstat(fd, &info) != 0 || S_ISDIR(info.st_mode)) return 0;
    return (int)syscall(SYS_fsync, fd);
}

void sync(void) {
    if (only_folders()) syscall(SYS_sync);
}
