// One undisturbed run of an update path: its calls, what happened to the device's files, and the points at
// which a cut can leave something else than before.
#pragma once

#include <string>
#include <vector>

#include "torture/cut_states.h"
#include "torture/traced_daemon.h"
#include "torture/update_paths.h"

struct cut_point {
    size_t events;  // so many had happened
    promises told;
    bool result_left;
    std::string where;  // the call that was about to be made
};

struct sync_call {
    size_t event;       // its number
    std::string where;  // what was synced, after which change
    call_site site;
};

struct recording {
    std::vector<stopped_call> calls;
    std::vector<tree_event> events;
    std::vector<cut_point> points;
    std::vector<sync_call> syncs;
};

// The places in the program that sync, each once.
[[nodiscard]] std::vector<call_site> sync_sites(const recording& run);

// Whether the call works on what a cut takes or leaves.
[[nodiscard]] bool is_on_device(const stopped_call& call);

// What the client of this process's runs is told, in memory that it shares.
[[nodiscard]] client_notes& shared_notes();

// With a number that is not 0, that sync fails with EIO.
[[nodiscard]] recording record_path(const update_path& path, size_t failing_sync = 0);

// A start of the daemon on the files as they are.
[[nodiscard]] recording record_restart();
