// Updates by every path on UBIFS, with the power cut as UBI emulates it: ubifs_trials CUTS SEED plays as many
// at random moments, ubifs_trials PATH:POINT:SHIFT one. After each, the device has to be as it should be.
//
// The flash is nandsim's, in a virtual machine that device/flash/init has made ready. POINT counts the
// headers that UBI writes from the first start of the daemon on: it cuts the power in the place of one of
// them. They come with each erase block, a few times in an update, so that SHIFT, files that come before it,
// moves them to other places in it.
//
// From the cut on, the flash takes nothing more, but calls still succeed as far as memory goes. Only that
// counts which the client had been told, and then saw the flash still writable.
#include <fcntl.h>
#include <mtd/ubi-user.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "support/device_files.h"
#include "tools/play/device.h"
#include "tools/play/sandbox.h"
#include "torture/device_checks.h"
#include "torture/update_paths.h"

namespace {

constexpr char DEVICES[] = "/devices";  // all of them, where the sandbox has few in /dev
constexpr char FLASH[] = "/sys/class/ubi/ubi0";
constexpr char SWITCHES[] = "/sys/kernel/debug/ubi/ubi0/tst_emulate_power_cut";
constexpr char CHIP[] = "NAND simulator partition 0";
constexpr int EVERY_HEADER = 3;      // those of erase counters, those of volumes
constexpr unsigned MOST_POINTS = 4;  // of one update
constexpr unsigned SHIFTS = 64;      // fill an erase block for data, and another for names
constexpr size_t SHIFT_SIZE = 480;   // of the largest of them
constexpr int HANGS_AFTER_MS = 120000;

struct trial {
    const update_path* path;
    unsigned point;
    unsigned shift;

    std::string name() const {
        return std::string(path->name) + ":" + std::to_string(point) + ":" + std::to_string(shift);
    }
};

// As it is named on the command line; without a path when that names none.
trial trial_named(const std::string& name) {
    std::istringstream words(name);
    std::string path;
    trial one = {};
    char colon = 0;
    std::getline(words, path, ':');
    if (!(words >> one.point >> colon >> one.shift)) return {};
    for (const update_path& each : update_paths()) {
        if (path == each.name) one.path = &each;
    }
    return one;
}

struct shared_notes {
    client_notes latest;
    client_notes before_cut;  // what of it is binding
    int answers;              // before the cut
};
shared_notes* notes;

[[nodiscard]] bool command(const char* node, unsigned long request, void* argument) {
    const int fd = open((DEVICES + std::string(node)).c_str(), O_RDWR | O_CLOEXEC);
    const bool done = fd >= 0 && ioctl(fd, request, argument) >= 0;
    if (fd >= 0) close(fd);
    return done;
}

void attach() {
    ubi_attach_req chip = {};
    require(command("/ubi_ctrl", UBI_IOCATT, &chip), "the flash cannot be attached");
}

bool detach() {
    int32_t number = 0;
    return command("/ubi_ctrl", UBI_IOCDET, &number);
}

void make_volume() {
    const auto number = [](const char* name) {
        return std::stoll(device_read_line(std::string(FLASH) + name));
    };
    ubi_mkvol_req volume = {};
    volume.alignment = 1;
    volume.bytes = number("/avail_eraseblocks") * number("/eraseblock_size");
    volume.vol_type = UBI_DYNAMIC_VOLUME;
    std::strcpy(volume.name, "device");
    volume.name_len = static_cast<int16_t>(std::strlen(volume.name));
    require(command("/ubi0", UBI_IOCMKVOL, &volume), "the volume cannot be made");
}

// The next mount makes a file system.
void empty_volume() {
    int64_t size = 0;
    require(command("/ubi0_0", UBI_IOCVOLUP, &size), "the volume cannot be emptied");
}

void mount_device() {
    require(mount("ubi0:device", "/opt", "ubifs", 0, nullptr) == 0, "the file system cannot be mounted");
}

// Not as a daemon does it that has been made not to sync.
void sync_device() {
    const int fd = open("/opt", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    require(syncfs(fd) == 0, "the device cannot be synced");
    close(fd);
}

bool unmount_device() {
    return umount("/opt") == 0 && detach();
}

void turn(const char* name, unsigned value) {
    std::ofstream file(std::string(SWITCHES) + name);
    file << value << std::flush;
    require(file.good(), std::string("there is no ") + SWITCHES + name);
}

bool power_is_on() {
    return device_read_line(FLASH + std::string("/ro_mode")) == "0";
}

// After each answer. It came before the cut if the cut has not come yet.
int note_answer(update_session&) {
    if (!power_is_on()) return FOTA_RC_FAILURE;
    notes->before_cut = notes->latest;
    ++notes->answers;
    return FOTA_RC_SUCCESS;
}

// The daemon, and beside it the client, until that has ended or the power goes.
void run_boot(const update_path& path, const boot& one, const std::string& program) {
    std::vector<agent_request> requests;
    for (const agent_request request : one.requests) requests.insert(requests.end(), {request, note_answer});
    const pid_t daemon = daemon_launch(program);
    require(daemon > 0 || !power_is_on(), "the daemon does not start");
    const pid_t client = fork();
    if (client == 0) {
        run_client(path, {one.before, requests}, notes->latest);
        _exit(0);
    }
    int waited_ms = 0;
    while (waitpid(client, nullptr, WNOHANG) == 0 && power_is_on() && waited_ms < HANGS_AFTER_MS) {
        usleep(2000);
        waited_ms += 2;
    }
    const bool by_itself = waited_ms < HANGS_AFTER_MS && (!power_is_on() || daemon_end(daemon, SIGTERM) == 0);
    const bool answered = notes->latest.last_answer == FOTA_RC_SUCCESS;
    if (!power_is_on()) return;  // what came after it does not count
    require(by_itself, "something hangs");
    require(answered, "the update fails without a fault: " + std::to_string(notes->latest.last_answer));
}

// Until the cut, or until the update is over. Returns what there is to be checked.
ended_update run_update(const trial& one, const std::string& program) {
    *notes = {};
    set_up(*one.path);
    std::minstd_rand random(one.point);
    for (unsigned count = 0; count < one.shift; ++count) {
        std::string content(random() % SHIFT_SIZE, '\0');
        std::ranges::generate(content, random);  // or it would be compressed
        put_file("/opt/before/" + std::to_string(count), content);
    }
    turn("_min", one.point);
    turn("_max", one.point);
    ended_update ended = one.path->facts;
    for (const boot& each : one.path->boots) {
        if (each.before != nullptr) leave_normal_operation(*each.before);
        ended.result_left |= has_result();
        sync_device();
        turn("", EVERY_HEADER);
        run_boot(*one.path, each, program);
        turn("", 0);  // what is not the daemon's is not to be cut
        if (!power_is_on()) break;
    }
    return ended;
}

// Returns how many answers there were before the cut; -1: the update was over before it. Throws `wrong`.
int play(const trial& one) {
    const std::string program = daemon_program(sandbox_program_folder());
    attach();
    empty_volume();
    mount_device();
    const ended_update ended = run_update(one, program);
    const bool cut = !power_is_on();
    device_cut_power();
    require(unmount_device(), "the flash is in use without a process");
    if (!cut) return -1;
    attach();
    mount_device();
    device_reboot();
    device_notes ignored;
    check_device(ended, notes->before_cut.told, program, GOOD_PACKAGE, ignored);
    require(unmount_device(), "the flash is in use after the daemon's end");
    return notes->answers;
}

enum class verdict { GOOD, BAD, NO_CUT };

// Plays it and prints what came of it. What it has left does not disturb the next.
verdict play_and_tell(const trial& one) {
    std::printf("flash: %s  ", one.name().c_str());
    verdict found = verdict::GOOD;
    try {
        const int answers = play(one);
        if (answers < 0) found = verdict::NO_CUT;
        answers < 0 ? std::printf("over before the cut\n")
                    : std::printf("came through; cut after %d answers\n", answers);
    } catch (const std::exception& complaint) {
        found = verdict::BAD;
        std::printf("FAILED: %s; after %d answers\n", complaint.what(), notes->answers);
        device_cut_power();
        if (!unmount_device()) detach();
    }
    std::fflush(stdout);
    return found;
}

int play_cuts(int count, unsigned seed) {
    std::vector<unsigned> points(update_paths().size(), MOST_POINTS);
    int failed = 0, without = 0;
    for (int cuts = 0; cuts < count; ++seed) {
        std::mt19937 random(seed);
        const auto below = [&random](unsigned end) { return static_cast<unsigned>(random() % end); };
        const size_t number = seed % points.size();
        const trial one = {&update_paths()[number], 1 + below(points[number]), below(SHIFTS)};
        const verdict found = play_and_tell(one);
        if (found == verdict::BAD) ++failed;
        if (found != verdict::NO_CUT) {
            ++cuts;
            continue;
        }
        ++without;
        points[number] = std::max(1u, one.point - 1);
    }
    std::printf("flash: %d of %d came through; %d more updates were over before their cut\n", count - failed,
                count, without);
    return failed == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> words(argv + 1, argv + argc);
    const trial only = words.size() == 1 ? trial_named(words[0]) : trial();
    if (only.path == nullptr && words.size() != 2) {
        std::fprintf(stderr, "usage: ubifs_trials CUTS SEED | PATH:POINT:SHIFT\n");
        return 2;
    }
    if (device_read_line("/sys/class/mtd/mtd0/name") != CHIP) {
        std::fprintf(stderr, "ubifs_trials: no simulated flash; './scripts/device --ubifs' has one\n");
        return 2;
    }
    void* const memory =
        mmap(nullptr, sizeof *notes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    notes = new (memory) shared_notes();
    sandbox_options options;
    options.keep = {sandbox_program_folder(), FOTA_TEST_KEYS};
    options.keep_writable = {DEVICES, "/sys/kernel/debug"};
    sandbox_enter(options);
    make_packages();
    attach();
    make_volume();
    detach();
    if (only.path == nullptr)
        return play_cuts(std::stoi(words[0]), static_cast<unsigned>(std::stoul(words[1])));
    return play_and_tell(only) == verdict::BAD ? 1 : 0;
}
