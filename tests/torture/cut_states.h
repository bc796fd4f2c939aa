// What a power cut can leave of the device's flash, by what POSIX promises: of each name in a folder any that
// it had since the folder was last synced, and of a file that was written since its own last sync nothing,
// all, any part of it in blocks, zeros or old bytes in the place of the rest.
//
// A recorder notes what happens to the files of a real run. A model then lives through those notes, as often
// as one likes, and in ways that the run did not take: as if a sync had done nothing, or a change had come
// late.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

inline constexpr const char* FLASH_FOLDERS[] = {"/opt/qast/data", "/opt/qast/log"};

struct file_content {
    std::string bytes;
    uint64_t hash;  // of the bytes but for dates
};
using content_ptr = std::shared_ptr<const file_content>;
[[nodiscard]] content_ptr make_content(std::string bytes);

struct tree_entry {
    mode_t mode;
    content_ptr content;  // null: a folder
};

// All that is in the flash folders, by path.
using tree = std::map<std::string, tree_entry>;

[[nodiscard]] uint64_t hash_of(const tree& files);

// Puts that in the place of what is there.
void put_tree(const tree& files);

struct tree_event {
    enum { IS_NAMED, IS_WRITTEN, IS_SYNCED } what;
    ino_t node;             // the folder; the file; what is synced, 0: everything
    std::string name{};     // IS_NAMED: in that folder
    ino_t child = 0;        // what has the name now; 0: nothing
    content_ptr content{};  // IS_WRITTEN; null: it is a folder
    mode_t mode = 0;
};

class tree_recorder {
public:
    std::vector<tree_event> events;

    // Takes what has changed since it last looked. What the daemon has not opened somebody else has written,
    // who has synced it.
    void look();
    void will_change(const std::string& path);

    // The file or folder that `fd` has open, or everything, is about to be synced.
    void sync(int fd);
    void sync_all();

private:
    void look_at(const std::string& path, int fd);
    void look_at_file(ino_t id, mode_t mode, const std::string& path);

    std::map<ino_t, std::map<std::string, ino_t>> names_;
    std::map<ino_t, content_ptr> contents_;
    std::set<std::string> changing_;
};

class cut_model {
public:
    void live_through(const tree_event& event);

    // Only what has been synced; all that has been written.
    [[nodiscard]] tree synced();

    // The states that a cut can leave, numbered from 0, which is synced(): all of them, or so many by chance.
    void for_each(size_t limit, const std::function<void(size_t number, const tree& files)>& use);

private:
    template <typename T>
    struct choice {
        std::vector<T> values;  // since the last sync, which left the first
        size_t chosen = 0;
    };
    struct node {
        mode_t mode = 0;
        bool is_folder = false;
        choice<content_ptr> written{};
        std::map<std::string, choice<ino_t>> names{};
    };
    static void sync(node& one);
    void add_variants(choice<content_ptr>& written);
    [[nodiscard]] tree build();
    void build_folder(const std::string& path, ino_t id, tree& into);

    std::map<ino_t, node> nodes_;
};
