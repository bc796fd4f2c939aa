#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <iterator>

#include "common/state_files.h"
#include "fota/fota_client.h"
#include "support/device_files.h"
#include "tools/play/device.h"
#include "tools/play/sandbox.h"
#include "torture/trials.h"

namespace {

constexpr int TIMEOUT_MS = 10000;
constexpr size_t CALLS_OF_A_REQUEST = 120;  // that the first thread makes, about as many as for the longest

struct intervention {
    const char* name;
    bool ends_session;
    int (*send)(update_session& session);  // null: the daemon is to end
};

constexpr intervention INTERVENTIONS[] = {
    {"abort", true,
     [](update_session& s) {
         return fota_client_abort_current_session(s.agent.c_str(), 402, "", TIMEOUT_MS);
     }},
    {"unlock", true,
     [](update_session& s) { return fota_client_clear_session_lock(s.agent.c_str(), TIMEOUT_MS); }},
    {"start", false, agent_start},
    {"factory reset", true, [](update_session&) { return fota_client_factory_reset(TIMEOUT_MS); }},
    {"history", false, agent_pending_record},
    {"end", false, nullptr},
};

// Shared with the client's process.
struct meeting {
    const intervention* with;
    bool worker_is_held;
    bool was_given_up;  // by its answer, when nobody had been asked to install
};

meeting& shared_meeting() {
    static auto* const memory = static_cast<meeting*>(
        mmap(nullptr, sizeof(meeting), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    return *memory;
}

bool somebody_installs() {
    return !asked_to_install(false).empty() || !asked_to_install(true).empty();
}

// The last request of a client: it comes when the worker thread is held. Never answered with success, so that
// the client is done.
int meet(update_session& session) {
    meeting& shared = shared_meeting();
    const volatile bool& held = shared.worker_is_held;
    for (int look = 0; look < 2000 && !held && !somebody_installs(); ++look) usleep(1000);
    if (shared.with->send == nullptr) _exit(END_AT_ONCE);
    const int answer = shared.with->send(session);
    shared.was_given_up = shared.with->ends_session && answer == FOTA_RC_SUCCESS && !somebody_installs();
    return FOTA_RC_FAILURE;
}

// The worker thread stops before its call number `point`, until the request has been served; from as many
// calls as a worker makes on, it stops before its first one, and the first thread, in the middle of the
// request, until the worker is through.
void run_meeting(const update_path& path, const intervention& with, size_t point, size_t worker_calls,
                 std::string& where, device_notes& notes) {
    meeting& shared = shared_meeting();
    client_notes& client = shared_notes();
    shared = {&with, false, false};
    client = {};
    set_up(path);
    std::vector<agent_request> requests(path.boots[0].requests.begin(), path.boots[0].requests.end());
    requests.push_back(meet);
    const boot first = {nullptr, requests};
    const bool holds_first = point >= worker_calls;
    const size_t wanted = holds_first ? point - worker_calls : point;
    size_t seen = 0, seen_of_first = 0;
    const auto look = [&](const stopped_call& call) -> int {
        if (!call.by_daemon) return RUNS;
        size_t& calls = call.by_worker ? seen : seen_of_first;
        if (!call.by_worker && (!holds_first || !shared.worker_is_held)) return RUNS;
        const bool is_it = calls++ == (call.by_worker && holds_first ? 0 : wanted);
        if (!is_it) return RUNS;
        where = std::string(with.name) + ", " + (call.by_worker ? "worker" : "first thread") +
                " held before " + call.name + " " + call.path;
        shared.worker_is_held = true;
        return HELD;
    };
    const std::string program = daemon_program(sandbox_program_folder());
    const traced_end end = run_traced(
        program, [&] { run_client(path, first, client); }, look);
    require(end != traced_end::CRASHED, "the daemon crashed");
    require(end != traced_end::HUNG, "something hangs");
    require(end != traced_end::GAVE_UP, "the daemon gives up");
    require(!shared.was_given_up || !somebody_installs(), "an installation that was given up begins");
    ended_update ended = path.facts;
    ended.result_left = has_result();
    check_device(ended, client.told, fork_daemon, nullptr, notes);
}

size_t calls_of_worker(const recording& run) {
    return static_cast<size_t>(std::ranges::count_if(
        run.calls, [](const stopped_call& call) { return call.by_worker && call.by_daemon; }));
}

size_t meetings_of(const update_path&, const recording& run) {
    const size_t calls = calls_of_worker(run);
    return calls == 0 ? 0 : (calls + CALLS_OF_A_REQUEST) * std::size(INTERVENTIONS);
}

void try_meeting(const update_path& path, const recording& run, size_t point, trial_counts& counts) {
    std::string where;
    counts.try_one(where, [&](device_notes& notes) {
        run_meeting(path, INTERVENTIONS[point % std::size(INTERVENTIONS)], point / std::size(INTERVENTIONS),
                    calls_of_worker(run), where, notes);
    });
}

}  // namespace

std::vector<trial_kind> thread_trials() {
    return {{"threads", "threads that hold each other up", 100, meetings_of, try_meeting}};
}
