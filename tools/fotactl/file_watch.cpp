#include "file_watch.h"

#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <vector>

namespace {

constexpr uint32_t EVENTS = IN_CREATE | IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE |
                            IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;

std::string folder_of(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == 0 ? "/" : path.substr(0, slash);
}

// Tells one version of a file from the next; all zero for none.
struct version {
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    timespec changed = {};

    bool operator==(const version& other) const {
        return device == other.device && inode == other.inode && size == other.size &&
               changed.tv_sec == other.changed.tv_sec && changed.tv_nsec == other.changed.tv_nsec;
    }
};

version version_of(const char* path) {
    struct stat info = {};
    if (stat(path, &info) != 0) return {};
    return {info.st_dev, info.st_ino, info.st_size, info.st_ctim};
}

struct watcher {
    const file_watch& watch;
    int fd = -1;
    std::map<int, std::string> folders = {};   // those that are watched, by the watch's descriptor
    std::map<std::string, int> troubles = {};  // errno of folders that cannot be, told already
    std::vector<bool> is_there = std::vector<bool>(watch.files.size());
    std::vector<version> told = std::vector<version>(watch.files.size());
    file_change arrival = file_change::BEFORE;
    bool goes_on = true;

    explicit watcher(const file_watch& given) : watch(given), fd(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {}
    ~watcher() {
        if (fd >= 0) close(fd);
    }
    watcher(const watcher&) = delete;
    watcher& operator=(const watcher&) = delete;

    void tell(size_t file, file_change change) {
        if (goes_on) goes_on = watch.on_change(file, change);
    }

    // Events come late: this version may have been told of already, or be gone again.
    void came(size_t file) {
        const version now = version_of(watch.files[file].path);
        if (is_there[file] && (watch.files[file].is_flag || now == told[file])) return;
        is_there[file] = true;
        told[file] = now;
        tell(file, arrival);
    }

    void went(size_t file) {
        const bool is_late = told[file] != version() && version_of(watch.files[file].path) == told[file];
        if (!is_there[file] || is_late) return;
        is_there[file] = false;
        tell(file, file_change::GONE);
    }

    // What no event tells.
    void compare(const std::string& folder) {
        for (size_t file = 0; file < watch.files.size(); ++file) {
            if (folder_of(watch.files[file].path) != folder) continue;
            if (version_of(watch.files[file].path) == version()) {
                went(file);
            } else {
                came(file);
            }
        }
    }

    bool is_watched(const std::string& folder) const {
        for (const auto& [descriptor, path] : folders) {
            if (path == folder) return true;
        }
        return false;
    }

    bool watch_folder(const std::string& folder) {
        if (is_watched(folder)) return true;
        const int descriptor = inotify_add_watch(fd, folder.c_str(), EVENTS);
        if (descriptor >= 0) {
            folders[descriptor] = folder;
            troubles.erase(folder);
            compare(folder);
            return true;
        }
        const int error = errno;
        if (error != ENOENT && error != ENOTDIR && troubles[folder] != error) {
            watch.on_trouble("cannot watch " + folder + ": " + strerror(error));
        }
        troubles[folder] = error;
        return false;
    }

    // A folder that is not there is waited for in the nearest one above it that is. It may have come while
    // that one was not watched yet, so look once more then.
    void watch_folders() {
        for (const watched_file& file : watch.files) {
            const std::string wanted = folder_of(file.path);
            for (std::string folder = wanted; !watch_folder(folder);) {
                if (folder == "/") break;
                folder = folder_of(folder);
                const bool is_news = !is_watched(folder);
                if (watch_folder(folder) && is_news) folder = wanted;
            }
        }
    }

    void forget(int descriptor) {
        const auto found = folders.find(descriptor);
        if (found == folders.end()) return;
        const std::string folder = found->second;
        folders.erase(found);
        compare(folder);
    }

    void on_event(const inotify_event& event) {
        if ((event.mask & IN_Q_OVERFLOW) != 0) {
            watch.on_trouble("changes came too fast and some are lost; looking at all files again");
            folders.clear();  // some may have been replaced by others
            watch_folders();
            for (const watched_file& file : watch.files) compare(folder_of(file.path));
        } else if ((event.mask & (IN_IGNORED | IN_DELETE_SELF | IN_MOVE_SELF)) != 0) {
            if ((event.mask & IN_MOVE_SELF) != 0) inotify_rm_watch(fd, event.wd);
            forget(event.wd);
        } else if (event.len > 0) {
            const auto folder = folders.find(event.wd);
            if (folder != folders.end()) on_name(folder->second + "/" + event.name, event.mask);
        }
    }

    void on_name(const std::string& path, uint32_t mask) {
        for (size_t file = 0; file < watch.files.size(); ++file) {
            if (path != watch.files[file].path) continue;
            if ((mask & (IN_DELETE | IN_MOVED_FROM)) != 0) {
                went(file);
            } else if ((mask & IN_CREATE) == 0 || watch.files[file].is_flag) {
                came(file);  // what has a content is told of when that is written
            }
        }
    }

    void read_events() {
        alignas(inotify_event) char buffer[16384];
        const ssize_t size = read(fd, buffer, sizeof buffer);
        for (ssize_t at = 0; at < size && goes_on;) {
            const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
            on_event(*event);
            at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
        }
    }
};

}  // namespace

int follow_files(const file_watch& watch, int stop_fd) {
    watcher watcher(watch);
    if (watcher.fd < 0) return errno;
    watcher.watch_folders();
    if (watcher.folders.empty()) return watcher.troubles["/"];
    watcher.arrival = file_change::THERE;
    watcher.goes_on = watcher.goes_on && watch.on_start();
    while (watcher.goes_on) {
        pollfd ready[] = {{watcher.fd, POLLIN, 0}, {stop_fd, POLLIN, 0}};
        if (poll(ready, 2, -1) < 0 && errno != EINTR) return errno;
        if (ready[1].revents != 0) return 0;
        if (ready[0].revents == 0) continue;
        watcher.read_events();
        watcher.watch_folders();
    }
    return 0;
}
