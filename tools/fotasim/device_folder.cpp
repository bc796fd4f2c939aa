#include "device_folder.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>

namespace {

namespace fs = std::filesystem;

// Lies in every such folder, and is locked by who runs the device.
constexpr char MARK[] = "simulated-device.txt";
constexpr char MARK_TEXT[] =
    "This folder is a simulated device of fotasim: opt/ is its flash, log/ its /var/log.\n"
    "Remove the whole folder to be rid of the device.\n";

void need(bool done, const std::string& what) {
    if (!done) throw std::runtime_error(what + ": " + std::strerror(errno));
}

}  // namespace

void device_folder_open(const std::string& folder, sandbox_options& options) {
    need(mkdir(folder.c_str(), 0755) == 0 || errno == EEXIST, "cannot make the device folder " + folder);
    const fs::path path = fs::canonical(folder);
    const std::string mark = path / MARK;
    if (!fs::exists(mark) && !fs::is_empty(path)) {
        throw std::runtime_error(
            folder + " holds something else than a simulated device; name a new or an empty folder");
    }
    // Open until this process and its children have ended, and with it the lock.
    const int fd = open(mark.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644);
    need(fd >= 0, "cannot use the device folder " + folder);
    struct stat status {};
    if (fstat(fd, &status) != 0 || status.st_uid != geteuid()) {
        throw std::runtime_error("the device in " + folder + " is another user's; name a folder of your own");
    }
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        throw std::runtime_error("the device in " + folder +
                                 " is running already; end that run, or name another folder");
    }
    need(pwrite(fd, MARK_TEXT, sizeof MARK_TEXT - 1, 0) == sizeof MARK_TEXT - 1, "cannot write " + mark);
    for (const auto& [inside, place] : {std::pair{"opt", "/opt"}, std::pair{"log", "/var/log"}}) {
        fs::create_directories(path / inside);
        options.places.push_back({path / inside, place});
    }
}

std::string device_folder_log(const std::string& folder) {
    return fs::absolute(folder) / "log" / "debug_log";
}
