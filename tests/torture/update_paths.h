// The updates that are broken at some point: each path from a device that is made ready for it to the outcome
// that its client has asked for.
//
// A path is a few boots. Before each of them leave_result() or the like may have been at work; then the
// daemon runs, and beside it run_client(). Inside the sandbox, as root of a device whose paths are its own.
#pragma once

#include <span>
#include <vector>

#include "tools/play/agents.h"
#include "tools/play/programs.h"
#include "torture/device_checks.h"

// What a client has learnt. It may be in memory that is shared with the client's process, and outlive it.
struct client_notes {
    promises told;
    int last_answer;
};

struct boot {
    const installer_outcome* before;  // what installer or fail-safe leave while the daemon does not run
    std::span<const agent_request> requests;
};

struct update_path {
    const char* name;
    const char* package;  // that is there beforehand; null: none
    ended_update facts;
    std::vector<boot> boots;
};

[[nodiscard]] std::span<const update_path> update_paths();

// The package that all paths but a few take; check_device() takes it for the next session.
inline constexpr char GOOD_PACKAGE[] = "/run/sim/packages/good";

// Makes the packages, once, with the build's programs, which lie beside the running one, and the test's keys.
void make_packages();

// The device before the path's first boot.
void set_up(const update_path& path);

// What the device's other programs do before a boot that has such an outcome, and the restart.
void leave_normal_operation(const installer_outcome& outcome);

// Whether the device has a result of installer or fail-safe that the next start is to record.
[[nodiscard]] bool has_result();

// The requests of one boot, for a process of its own beside the daemon; notes what each answer promises.
// Returns when the device has been asked to leave for the installation, or when no more is to come.
void run_client(const update_path& path, const boot& one, client_notes& notes);
