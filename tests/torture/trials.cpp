#include "torture/trials.h"

#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>

#include "tools/play/device.h"

int fotad_main(int argc, char** argv);  // main() of the daemon

namespace {

constexpr size_t SEEN = size_t{1} << 22;

// Hashes, each at the first free place from its own on, in memory that all workers share.
auto* const seen = static_cast<std::atomic<uint64_t>*>(
    mmap(nullptr, SEEN * sizeof(uint64_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));

}  // namespace

bool is_new_state(uint64_t hash) {
    if (hash == 0) hash = 1;
    for (size_t place = hash % SEEN;; place = (place + 1) % SEEN) {
        uint64_t there = 0;
        if (seen[place].compare_exchange_strong(there, hash)) return true;
        if (there == hash) return false;
    }
}

void trial_counts::try_one(const std::string& where, const std::function<void(device_notes&)>& trial) {
    ++tried;
    device_notes notes;
    try {
        trial(notes);
        ++survived;
    } catch (const std::exception& found) {
        complaints.push_back(where + ": " + found.what());
        device_cut_power();
    }
    recorded_twice += notes.recorded_twice;
    outcome_lost += notes.outcome_lost;
    waited_for_installer += notes.waited_for_installer;
}

pid_t fork_daemon() {
    std::fflush(nullptr);
    const pid_t daemon = fork();
    if (daemon == 0) {
        char name[] = "fotad", foreground[] = "--foreground";
        char* const arguments[] = {name, foreground, nullptr};
        _exit(fotad_main(2, const_cast<char**>(arguments)));
    }
    require(daemon_wait_ready(daemon), "the daemon does not come back");
    return daemon;
}
