// The kinds of trials: what is done to the device at each of some points of an update, and what then has to
// be so.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "torture/recording.h"

// How the trials at one point went.
struct trial_counts {
    int tried = 0;
    int survived = 0;
    int recorded_twice = 0;
    int outcome_lost = 0;
    int waited_for_installer = 0;
    int package_torn = 0;
    int change_lost = 0;
    std::vector<std::string> complaints{};
    std::map<call_site, std::string> syncs{};  // of the ones that did nothing: what fell; empty: nothing

    // Runs one. What it throws is a complaint.
    void try_one(const std::string& where, const std::function<void(device_notes& notes)>& trial);
};

struct trial_kind {
    const char* name;
    const char* meaning;
    int quick;  // of the points, one in as many, where there is little time
    // How many points there are, by an undisturbed run.
    std::function<size_t(const update_path& path, const recording& run)> points;
    std::function<void(const update_path& path, const recording& run, size_t point, trial_counts& counts)>
        run;
};

// By the files that they lie in.
[[nodiscard]] std::vector<trial_kind> fault_trials();   // all processes end, or a call fails
[[nodiscard]] std::vector<trial_kind> cut_trials();     // the states that a cut can leave, and the syncs
[[nodiscard]] std::vector<trial_kind> rot_trials();     // state files whose content is not what was written
[[nodiscard]] std::vector<trial_kind> thread_trials();  // threads that hold each other up

// Whether no worker has come to a state of that hash.
[[nodiscard]] bool is_new_state(uint64_t hash);

// A daemon on the device as it is, from this program's own copy of its code, which takes less time than a
// start of the program. Returns once it serves.
[[nodiscard]] pid_t fork_daemon();
