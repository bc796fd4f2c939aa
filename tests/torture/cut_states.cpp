#include "torture/cut_states.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <random>

#include "tools/play/device.h"

namespace {

constexpr size_t BLOCK = 512;
constexpr char DATE[] = "00-00-0000-00:00:00";

uint64_t mix(uint64_t hash, std::string_view bytes) {
    for (const unsigned char byte : bytes) hash = (hash ^ byte) * 0x100000001b3;
    return hash;
}

// Two runs differ in them.
std::string without_dates(std::string text) {
    constexpr size_t LENGTH = sizeof DATE - 1;
    for (size_t at = text.find(':'); at != std::string::npos; at = text.find(':', at + 1)) {
        if (at < 13 || at - 13 + LENGTH > text.size()) continue;
        const bool is_date = std::equal(DATE, DATE + LENGTH, text.data() + at - 13, [](char form, char c) {
            return form == '0' ? std::isdigit(static_cast<unsigned char>(c)) != 0 : form == c;
        });
        if (is_date) text.replace(at - 13, LENGTH, DATE);
    }
    return text;
}

std::string path_of(int fd) {
    return "/proc/self/fd/" + std::to_string(fd);
}

}  // namespace

content_ptr make_content(std::string bytes) {
    const uint64_t hash = mix(bytes.size(), without_dates(bytes));
    return std::make_shared<const file_content>(file_content{std::move(bytes), hash});
}

uint64_t hash_of(const tree& files) {
    uint64_t hash = 0xcbf29ce484222325;
    for (const auto& [path, entry] : files) {
        hash = mix(hash, path) ^ (entry.mode + (entry.content ? entry.content->hash * 31 : 0));
    }
    return hash;
}

void put_tree(const tree& files) {
    for (const char* folder : FLASH_FOLDERS) {
        for (const auto& entry : std::filesystem::directory_iterator(folder)) {
            std::filesystem::remove_all(entry.path());
        }
    }
    for (const auto& [path, entry] : files) {
        if (entry.content) {
            const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
            (void)!write(fd, entry.content->bytes.data(), entry.content->bytes.size());
            close(fd);
        } else {
            mkdir(path.c_str(), 0700);
        }
        chmod(path.c_str(), entry.mode & 07777);
    }
}

void tree_recorder::look() {
    for (const char* folder : FLASH_FOLDERS) {
        const int fd = open(folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (fd < 0) continue;
        struct stat info = {};
        fstat(fd, &info);
        if (!names_.contains(info.st_ino))
            events.push_back({.what = tree_event::IS_NAMED, .node = 0, .name = folder, .child = info.st_ino});
        look_at(folder, fd);
    }
}

void tree_recorder::will_change(const std::string& path) {
    changing_.insert(path);
}

void tree_recorder::look_at_file(ino_t id, mode_t mode, const std::string& path) {
    std::string bytes = device_read(path);
    content_ptr& known = contents_[id];
    if (known && known->bytes == bytes) return;
    known = make_content(std::move(bytes));
    events.push_back({.what = tree_event::IS_WRITTEN, .node = id, .content = known, .mode = mode});
}

void tree_recorder::look_at(const std::string& path, int fd) {
    struct stat info = {};
    fstat(fd, &info);
    const ino_t id = info.st_ino;
    const bool is_known = names_.contains(id);
    std::map<std::string, ino_t>& names = names_[id];
    if (!is_known) events.push_back({.what = tree_event::IS_WRITTEN, .node = id, .mode = info.st_mode});
    std::map<std::string, ino_t> gone = names;
    DIR* const entries = fdopendir(fd);
    while (const dirent* entry = readdir(entries)) {
        const std::string name = entry->d_name;
        const std::string below = std::string(path).append("/").append(name);
        if (name == "." || name == ".." || fstatat(fd, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0)
            continue;
        const ino_t child = info.st_ino;
        const bool by_other = !contents_.contains(child) && !changing_.contains(below);
        gone.erase(name);
        if (S_ISREG(info.st_mode)) look_at_file(child, info.st_mode, below);
        if (names[name] != child) {
            names[name] = child;
            events.push_back({.what = tree_event::IS_NAMED, .node = id, .name = name, .child = child});
        }
        if (S_ISREG(info.st_mode) && by_other)
            events.push_back({.what = tree_event::IS_SYNCED, .node = child});
        if (S_ISDIR(info.st_mode)) look_at(below, open(below.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    }
    closedir(entries);
    for (const auto& [name, child] : gone) {
        names.erase(name);
        events.push_back({.what = tree_event::IS_NAMED, .node = id, .name = name});
    }
}

void tree_recorder::sync(int fd) {
    struct stat info = {};
    if (fd < 0 || fstat(fd, &info) != 0) return;
    // It may have no name yet.
    if (S_ISREG(info.st_mode)) look_at_file(info.st_ino, info.st_mode, path_of(fd));
    events.push_back({.what = tree_event::IS_SYNCED, .node = info.st_ino});
}

void tree_recorder::sync_all() {
    events.push_back({.what = tree_event::IS_SYNCED, .node = 0});
}

void cut_model::sync(node& one) {
    if (!one.written.values.empty()) one.written.values = {one.written.values.back()};
    for (auto& [name, children] : one.names) children.values = {children.values.back()};
    std::erase_if(one.names, [](const auto& entry) { return entry.second.values[0] == 0; });
}

void cut_model::live_through(const tree_event& event) {
    if (event.what == tree_event::IS_SYNCED) {
        if (event.node != 0) return sync(nodes_[event.node]);
        for (auto& [id, one] : nodes_) sync(one);
        return;
    }
    node& self = nodes_[event.node];
    if (event.what == tree_event::IS_NAMED) {
        std::vector<ino_t>& children = self.names[event.name].values;
        if (children.empty()) children.push_back(0);
        children.push_back(event.child);
        return;
    }
    self.mode = event.mode;
    self.is_folder = event.content == nullptr;
    if (self.is_folder) return;
    if (self.written.values.empty()) self.written.values.push_back(make_content(""));
    self.written.values.push_back(event.content);
}

tree cut_model::synced() {
    tree files;
    for_each(1, [&files](size_t, const tree& one) { files = one; });
    return files;
}

void cut_model::add_variants(choice<content_ptr>& written) {
    const std::string last = written.values.back()->bytes;
    const std::string first = written.values.front()->bytes;
    std::vector<content_ptr>& all = written.values;
    for (size_t size = BLOCK; size < last.size(); size += BLOCK) {
        all.push_back(make_content(last.substr(0, size)));
        all.push_back(make_content(last.substr(0, size) + std::string(last.size() - size, '\0')));
    }
    all.push_back(make_content(std::string(last.size(), '\0')));
    const std::string old = first.size() > last.size() ? first : std::string(BLOCK, '\x5a');
    all.push_back(make_content(last + old.substr(last.size() % old.size())));
}

void cut_model::for_each(size_t limit, const std::function<void(size_t, const tree&)>& use) {
    std::vector<std::pair<size_t*, size_t>> choices;  // where the choice is, and of how many
    size_t total = 1;
    const auto add = [&](auto& one) {
        one.chosen = 0;
        if (one.values.size() < 2) return;
        choices.emplace_back(&one.chosen, one.values.size());
        total = std::min(total * one.values.size(), size_t{1} << 40);
    };
    const std::map<ino_t, node> kept = limit > 1 ? nodes_ : std::map<ino_t, node>{};
    for (auto& [id, one] : nodes_) {
        if (limit > 1 && one.written.values.size() > 1) add_variants(one.written);
        add(one.written);
        for (auto& [name, children] : one.names) add(children);
    }
    std::mt19937_64 random(total);
    for (size_t number = 0; number < std::min(limit, total); ++number) {
        // By chance: first with one choice at a time that is not as synced, then with any.
        const bool all = total <= limit, one = number <= choices.size();
        size_t rest = all ? number : 0;
        for (size_t i = 0; i < choices.size(); ++i) {
            const auto& [chosen, count] = choices[i];
            if (!all) rest = one ? (i + 1 == number ? 1 + random() % (count - 1) : 0) : random();
            *chosen = rest % count;
            rest /= count;
        }
        use(number, build());
    }
    if (limit > 1) nodes_ = kept;
}

tree cut_model::build() {
    tree files;
    build_folder("", 0, files);
    return files;
}

void cut_model::build_folder(const std::string& path, ino_t id, tree& into) {
    for (const auto& [name, children] : nodes_[id].names) {
        const ino_t child = children.values[children.chosen];
        if (child == 0) continue;
        const node& one = nodes_[child];
        const std::string below = path + name;
        into[below] = {one.mode, one.is_folder ? nullptr : one.written.values[one.written.chosen]};
        if (one.is_folder) build_folder(below + "/", child, into);
    }
}
