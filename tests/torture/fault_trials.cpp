#include <algorithm>
#include <cerrno>
#include <iterator>

#include "common/state_files.h"
#include "tools/play/device.h"
#include "tools/play/sandbox.h"
#include "torture/trials.h"

namespace {

struct fault_mode {
    const char* name;
    const char* meaning;
    unsigned meets;
    int error = 0;        // that a call fails with; 0: all processes end before it
    bool lasts = false;   // all later calls of that kind fail too
    bool reboots = true;  // the device starts anew afterwards, not only the daemon
};

constexpr fault_mode MODES[] = {
    {.name = "kill", .meaning = "all processes end", .meets = MEETS_CUT, .reboots = false},
    {.name = "cut", .meaning = "the power goes, and everything written is there", .meets = MEETS_CUT},
    {.name = "enospc", .meaning = "the flash is full", .meets = MEETS_ENOSPC, .error = ENOSPC, .lasts = true},
    {.name = "eio", .meaning = "a file cannot be read, written, changed", .meets = MEETS_EIO, .error = EIO},
    {.name = "emfile", .meaning = "no descriptor is left", .meets = MEETS_EMFILE, .error = EMFILE},
    {.name = "enomem", .meaning = "no memory is left", .meets = MEETS_ENOMEM, .error = ENOMEM},
};

bool is_of_interest(const fault_mode& mode, const stopped_call& call) {
    if ((call.meets & mode.meets) == 0) return false;
    return is_on_device(call) || (mode.error != 0 && call.by_daemon && call.path.starts_with("/run/"));
}

// One update by that path, with the mode's fault at one point.
void run_point(const update_path& path, const fault_mode& mode, size_t point, std::string& where,
               device_notes& notes) {
    const std::string program = daemon_program(sandbox_program_folder());
    client_notes& client = shared_notes();
    client = {};
    set_up(path);
    size_t seen = 0;
    bool marker_stays = false;
    const auto look = [&](const stopped_call& call) -> int {
        if (!is_of_interest(mode, call)) return RUNS;
        const size_t number = seen++;
        if (number < point || (number > point && !mode.lasts)) return RUNS;
        if (number == point) {
            where = std::string(call.name) + " " + call.path + (call.by_daemon ? "" : " by a command");
            // A marker that cannot be removed is found again.
            marker_stays = mode.error != 0 && where == std::string("unlink ") + FOTA_REVERT_MARKER;
        }
        return mode.error == 0 ? CUT : mode.error;
    };
    ended_update ended = path.facts;
    ended.call_failed = mode.error != 0;
    for (const boot& one : path.boots) {
        if (one.before != nullptr) leave_normal_operation(*one.before);
        ended.result_left |= has_result();
        const traced_end end = run_traced(
            program, [&] { run_client(path, one, client); }, look);
        require(end != traced_end::CRASHED, "the daemon crashed");
        require(end != traced_end::HUNG, "something hangs");
        require(end != traced_end::GAVE_UP || seen > point, "the daemon gives up");
        if (end == traced_end::CUT) break;
    }
    ended.records_twice |= marker_stays;
    if (mode.reboots) device_reboot();
    check_device(ended, client.told, program, GOOD_PACKAGE, notes);
}

}  // namespace

std::vector<trial_kind> fault_trials() {
    std::vector<trial_kind> kinds;
    for (const fault_mode& mode : MODES) {
        const auto points = [&mode](const update_path&, const recording& run) -> size_t {
            return std::ranges::count_if(run.calls,
                                         [&mode](const stopped_call& c) { return is_of_interest(mode, c); });
        };
        const auto run = [&mode](const update_path& path, const recording&, size_t point,
                                 trial_counts& counts) {
            std::string where;
            counts.try_one(where, [&](device_notes& notes) { run_point(path, mode, point, where, notes); });
        };
        kinds.push_back({mode.name, mode.meaning, 20, points, run});
    }
    return kinds;
}
