// Takes from this process, for good, all that speaking HTTP over descriptors that are open does not need.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

struct confinement {
    std::string folder;  // empty, and only root's: becomes the root, when this process may do that
    bool change_user = false;
    uid_t user = 0;
    gid_t group = 0;
};

// Leaves this process the descriptors `kept` and standard error; standard input and output lead to nothing.
// Throws std::exception.
void close_others(const std::vector<int>& kept);

// Afterwards opening a file, a queue or a socket, starting a program, a process or a thread, and everything
// else that is not in the list of confine.cpp, fails with EPERM; no program could give rights back; a file
// that is open for writing grows no further than RLIMIT_FSIZE, which another process sets. Dies with its
// parent. Throws std::exception when any of it cannot be had: then nothing may be served.
void confine(const confinement& how);
