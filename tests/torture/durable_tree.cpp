#include "torture/durable_tree.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <utility>

namespace {

std::string content_of(int fd) {
    // By a descriptor of its own: the offset of `fd` is shared.
    std::ifstream file("/proc/self/fd/" + std::to_string(fd), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace

durable_tree::durable_tree(std::vector<std::string> roots) : roots_(std::move(roots)) {
    sync_all();
}

void durable_tree::sync_all() {
    for (const std::string& root : roots_) {
        const int fd = open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (fd < 0) continue;
        take_folder(fd, true);
        close(fd);
    }
}

void durable_tree::sync(int fd) {
    struct stat info = {};
    if (fd < 0 || fstat(fd, &info) != 0) return;
    if (S_ISDIR(info.st_mode)) {
        take_folder(fd, false);
    } else if (S_ISREG(info.st_mode)) {
        nodes_[info.st_ino].mode = info.st_mode;
        nodes_[info.st_ino].content = content_of(fd);
    }
}

void durable_tree::take_folder(int fd, bool with_all_below) {
    struct stat folder = {};
    fstat(fd, &folder);
    node& self = nodes_[folder.st_ino];
    self.mode = folder.st_mode;
    self.names.clear();
    DIR* entries = fdopendir(openat(fd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    while (const dirent* entry = readdir(entries)) {
        const std::string name = entry->d_name;
        struct stat info = {};
        if (name == "." || name == ".." || fstatat(fd, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0)
            continue;
        self.names[name] = info.st_ino;
        nodes_[info.st_ino].mode = info.st_mode;
        if (!with_all_below) continue;
        const int below = openat(fd, name.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
        if (S_ISDIR(info.st_mode)) take_folder(below, true);
        if (S_ISREG(info.st_mode)) sync(below);
        close(below);
    }
    closedir(entries);
}

void durable_tree::restore() const {
    for (const std::string& root : roots_) {
        struct stat info = {};
        if (stat(root.c_str(), &info) != 0) continue;
        for (const auto& entry : std::filesystem::directory_iterator(root)) {
            std::filesystem::remove_all(entry.path());
        }
        restore_folder(root, info.st_ino);
    }
}

void durable_tree::restore_folder(const std::string& path, ino_t id) const {
    mkdir(path.c_str(), 0700);  // a root is there
    for (const auto& [name, child] : nodes_.at(id).names) {
        const std::string below = path + "/" + name;
        const node& entry = nodes_.at(child);
        if (S_ISDIR(entry.mode)) {
            restore_folder(below, child);
        } else {
            std::ofstream(below, std::ios::binary) << entry.content;
        }
        chmod(below.c_str(), entry.mode & 07777);
    }
}
