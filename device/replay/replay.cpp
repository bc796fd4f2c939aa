// Replays the block writes of an update on the reference device: replay DISK LOG MARKS IMAGE WAY [in-order]
//
// DISK is what the device's disk was before the first write, LOG the log of all that came then, MARKS what
// the client had been told when, IMAGE the new firmware. After each write, and with the unflushed ones
// arriving or not, the power goes: the data partition is mounted, the daemon starts on it, and all has to be
// so that the device's client was told, and that is promised of any device.
//
// For a machine that is there for nothing else: it mounts, and leaves what it has mounted.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "replay/write_log.h"
#include "support/device_files.h"
#include "tools/play/device.h"
#include "tools/play/programs.h"
#include "tools/play/sandbox.h"
#include "torture/device_checks.h"
#include "torture/update_paths.h"

namespace {

constexpr int NEXT_UPDATES = 4;     // of the points in order, one in so many goes on with another update
constexpr size_t FEW_WRITES = 4;    // unflushed, of which every subset is tried
constexpr size_t MANY_WRITES = 12;  // of which each alone, and all but each, are tried

constexpr char NEXT_PACKAGE[] = "/replay/next.zip";

struct way_of_update {
    const char* name;
    ended_update facts;
    installer_outcome outcome;  // in run level 5; with a revert code: of the boot that follows
};

using enum package_content;
const way_of_update WAYS[] = {
    {"over-the-air", {"dm-agent", GOOD, {}, 1, true, false}, {}},
    {"broken", {"dm-agent", GOOD, {}, 2, true, true}, {.revert_code = 410, .reason = "does not boot\n"}},
    {"failed", {"dm-agent", GOOD, {}, 1, true, false}, {.code = 408}},
    {"sideload", {"dm-agent", GOOD, {}, 1, true, false}, {}},
    {"script", {"SUA", NOT_VALIDATED, {}, 1, true, true}, {}},
    {"full-image", {"dm-agent", GOOD, {}, 1, true, false}, {}},
};

// What the client had been told when the log had this size.
struct mark {
    uint64_t log_size;
    promises told;
};

std::vector<mark> read_marks(const std::string& path) {
    std::vector<mark> marks = {{0, {}}};
    std::ifstream file(path);
    mark next = {};
    while (file >> next.log_size >> next.told.validated_id >> next.told.status >> next.told.processed) {
        marks.push_back(next);
    }
    return marks;
}

promises told_at(const std::vector<mark>& marks, uint64_t log_size) {
    promises told = {};
    for (const mark& mark : marks) {
        if (mark.log_size <= log_size) told = mark.told;
    }
    return told;
}

void run(const std::string& command) {
    if (std::system(command.c_str()) != 0) throw wrong("'" + command + "' fails");
}

struct boot_variables {
    std::string slot, run_level, tries;
};

boot_variables read_variables(const std::string& path) {
    boot_variables found;
    std::istringstream text(get_file(path));
    std::string line;
    while (std::getline(text, line) && line != "end") {
        if (line.starts_with("slot=")) found.slot = line.substr(5);
        if (line.starts_with("run_level=")) found.run_level = line.substr(10);
        if (line.starts_with("tries=")) found.tries = line.substr(6);
    }
    require(line == "end" && (found.slot == "a" || found.slot == "b"), "the boot variables are torn");
    return found;
}

// The disk's partitions, in the order that they lie in.
struct disk {
    disk_part variables, slot_a, slot_b, data;
};

// A file system is gone only when its loop device is: what has just ended may still hold it, and mount would
// find it there again, with what it had in memory.
bool is_held() {
    for (const auto& device : std::filesystem::directory_iterator("/sys/block")) {
        if (exists(device.path() / "loop/backing_file")) return true;
    }
    return false;
}

void put_away() {
    for (int look = 0; look < 10000; ++look) {
        for (const char* place : {"/device/opt/qast/log", "/device/opt/qast/data", "/flash", "/device"}) {
            umount2(place, 0);
        }
        if (!is_held()) return;
        usleep(1000);
    }
    throw std::runtime_error("something holds a file system of the device for ever");
}

void bind(const char* folder, const char* place) {
    require(mount(folder, place, nullptr, MS_BIND, nullptr) == 0, std::string("cannot mount ") + place);
}

// The device below /device, with these partitions.
void set_up(const disk_part& slot, const disk_part& data) {
    run("mount -t ext4 -o loop " + slot.path() + " /device");
    run("mount -o loop " + data.path() + " /flash");
    bind("/flash/data", "/device/opt/qast/data");
    bind("/flash/log", "/device/opt/qast/log");
}

// What the loader leads to before the system of a slot starts: installer and fail-safe.
void start_up(const boot_variables& variables, const installer_outcome& outcome) {
    const bool installs = variables.run_level == "5" && !has_result();
    const bool goes_back = outcome.revert_code && (installs || variables.slot == "b");
    if (goes_back) std::remove(FOTA_STAGING_UPDATE_SUCCESS);
    if (installs || (goes_back && !exists(FOTA_REVERT_MARKER))) leave_result(outcome);
}

// The checks, in a sandbox where the device's folders have their names.
struct device_test {
    ended_update facts;
    installer_outcome outcome;
    char (&complaint)[256];  // shared with the process in the sandbox

    void start(const boot_variables& variables, const promises& told, bool whole) const {
        std::snprintf(complaint, sizeof complaint, "the checks come to no end");
        const pid_t child = fork();
        if (child == 0) {
            sandbox_options options;
            options.keep = {sandbox_program_folder()};
            options.places = {{"/device/opt", "/opt"}};
            sandbox_enter(options);
            check(variables, told, whole);
            _exit(0);
        }
        waitpid(child, nullptr, 0);
        require(complaint[0] == '\0', complaint);
    }

private:
    void check(const boot_variables& variables, const promises& told, bool whole) const {
        try {
            require(device_boot(""), "there is no device");
            start_up(variables, outcome);
            ended_update ended = facts;
            ended.result_left = has_result();
            device_notes notes;
            check_device(ended, told, daemon_program(sandbox_program_folder()),
                         whole ? NEXT_PACKAGE : nullptr, notes);
            complaint[0] = '\0';
        } catch (const std::exception& error) {
            std::snprintf(complaint, sizeof complaint, "%s", error.what());
        }
    }
};

struct replay {
    const char* name;
    const device_test& test;
    std::vector<logged_write> writes;
    std::vector<mark> marks;
    int log;
    std::string image;
    bool only_in_order;  // not what arrives in another order
    disk durable;        // what is on the disk, whatever is lost
    std::set<std::string> tried = {};
    std::vector<const logged_write*> told_apart =
        {};              // the writes to variables and data; numbers are those in here
    size_t flushed = 0;  // of them
    int points = 0, in_order = 0, bad = 0;

    // `whole`: with another update afterwards. The power goes when these writes have arrived on top of what
    // is durable, and the client has been told that.
    void try_point(const std::vector<size_t>& arrived, const promises& told, bool whole = false) {
        // What is there in order, and what arrived beyond a gap: the same disk has the same name.
        size_t whole_to = flushed, next = 0;
        while (next < arrived.size() && arrived[next] == whole_to) ++whole_to, ++next;
        std::string key = std::to_string(whole_to);
        for (; next < arrived.size(); ++next) key += "," + std::to_string(arrived[next]);
        key += "|" + std::to_string(told.validated_id) + " " + std::to_string(told.status) + " " +
               std::to_string(told.processed);
        if (!tried.insert(key).second) return;
        ++points;
        try {
            try_disk(arrived, told, whole);
        } catch (const wrong& found) {
            ++bad;
            std::printf("replay: %s: bad after %s: %s\n", name, key.c_str(), found.what());
        }
        if (points % 20 == 0) std::printf("replay: %s: %d points\n", name, points);
        std::fflush(stdout);
    }

    void try_disk(const std::vector<size_t>& arrived, const promises& told, bool whole) const {
        put_away();  // what the last point has left mounted, when it was bad
        const auto now = [&](const disk_part& part, const char* path) {
            const disk_part copy = part.copy_to(path);
            for (const size_t number : arrived) copy.apply(*told_apart[number], log);
            return copy;
        };
        const boot_variables variables =
            read_variables(now(durable.variables, "/parts/now-variables").path());
        disk parts = durable;
        if (variables.slot == "b") {
            parts.slot_b = now(durable.slot_b, "/parts/now-slot-b");
            run("cmp " + image + " " + parts.slot_b.path());
        }
        const disk_part data = now(durable.data, "/parts/now-data");
        set_up(variables.slot == "b" && !test.outcome.revert_code ? parts.slot_b : parts.slot_a, data);
        test.start(variables, told, whole);
        put_away();
        run("/replay/fsck " + data.path() + " >/parts/fsck 2>&1 || { cat /parts/fsck; false; }");
    }

    // Between two flushes: the writes, in order and not. `told` is what the client has been told before the
    // second.
    void try_between(size_t begin, const promises& told) {
        std::vector<size_t> open;
        for (size_t number = begin; number < told_apart.size(); ++number) {
            open.push_back(number);
            try_point(open, told_at(marks, told_apart[number]->log_end), ++in_order % NEXT_UPDATES == 0);
        }
        // What has been told counts even if nothing arrives that has not been flushed.
        try_point({}, told);
        try_point(open, told);
        if (only_in_order) return;
        if (open.size() <= FEW_WRITES) {
            for (unsigned set = 0; set < 1u << open.size(); ++set) {
                std::vector<size_t> arrived;
                for (size_t i = 0; i < open.size(); ++i) {
                    if ((set >> i & 1) != 0) arrived.push_back(open[i]);
                }
                try_point(arrived, told);
            }
            return;
        }
        const size_t step = (open.size() + MANY_WRITES - 1) / MANY_WRITES;
        for (size_t i = 0; i < open.size(); i += step) {
            try_point({open[i]}, told);
            std::vector<size_t> all_but = open;
            all_but.erase(all_but.begin() + static_cast<ptrdiff_t>(i));
            try_point(all_but, told);
        }
    }

    void try_all() {
        auto unflushed = writes.begin();
        for (auto write = writes.begin(); write != writes.end(); ++write) {
            if (durable.variables.holds(*write) || durable.data.holds(*write)) told_apart.push_back(&*write);
            if (!write->is_flush) continue;
            try_between(flushed,
                        told_at(marks, write->log_offset - 1));  // at that size it was in the log already
            for (; unflushed != write; ++unflushed) {
                for (const disk_part* part : {&durable.variables, &durable.slot_b, &durable.data}) {
                    part->apply(*unflushed, log);
                }
            }
            flushed = told_apart.size();
        }
        try_between(flushed, told_at(marks, UINT64_MAX));
    }
};

}  // namespace

int main(int argc, char** argv) {
    const auto* const way = std::ranges::find_if(
        WAYS, [&](const way_of_update& one) { return argc >= 6 && std::strcmp(one.name, argv[5]) == 0; });
    if (way == std::end(WAYS) || !exists(NEXT_PACKAGE)) {
        std::fprintf(stderr, "replay: on a machine of its own: replay DISK LOG MARKS IMAGE WAY [in-order]\n");
        return 2;
    }
    const std::string disk_path = argv[1], log = argv[2], image = "/parts/image";
    run(std::string("cat ") + argv[4] + " >" + image);
    const std::vector<package_file> files = {{"rootfs.img", "", image}};
    ended_update facts = way->facts;
    if (std::strcmp(way->name, "failed") != 0) facts.files = files;
    void* const shared =
        mmap(nullptr, sizeof(char[256]), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    const device_test test = {facts, way->outcome, *static_cast<char(*)[256]>(shared)};

    const auto part = [&](int number, const char* path) {
        const std::string entry = "/sys/class/block/" + disk_path.substr(5) + std::to_string(number);
        const auto sectors = [&](const char* name) { return std::stoull(get_file(entry + name)) * 512; };
        return disk_part(disk_path, sectors("/start"), sectors("/size"), path);
    };
    replay all = {.name = way->name,
                  .test = test,
                  .writes = read_write_log(log),
                  .marks = read_marks(argv[3]),
                  .log = open(log.c_str(), O_RDONLY | O_CLOEXEC),
                  .image = image,
                  .only_in_order = argc > 6,
                  .durable = {part(1, "/parts/variables"), part(2, "/parts/slot-a"), part(3, "/parts/slot-b"),
                              part(4, "/parts/data")}};
    all.try_all();
    std::printf("replay: %s: %d of %d points as they should be\n", all.name, all.points - all.bad,
                all.points);
    return all.bad == 0 ? 0 : 1;
}
