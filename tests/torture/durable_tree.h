// What a power cut leaves of a folder when only that stays which has been synced: of each file its content at
// its last sync, of each folder its names.
#pragma once

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

class durable_tree {
public:
    // Takes all that is there as durable.
    explicit durable_tree(std::vector<std::string> roots);
    void sync_all();

    // The file or folder that `fd` has open is about to be synced.
    void sync(int fd);

    // Puts what is durable in the place of what is there.
    void restore() const;

private:
    struct node {
        mode_t mode = 0;
        std::string content;                 // of a file
        std::map<std::string, ino_t> names;  // of a folder
    };

    void take_folder(int fd, bool with_all_below);
    void restore_folder(const std::string& path, ino_t id) const;

    std::vector<std::string> roots_;
    std::map<ino_t, node> nodes_;  // all on one file system, which does not use a number again
};
