// Updates by every path, with the power cut or a system call failing at each point in turn:
// torture [--quick] [--only PATH[:MODE[:POINT]]]. After each, the device has to be as it should be.
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "support/device_files.h"
#include "tools/play/device.h"
#include "tools/play/sandbox.h"
#include "torture/device_checks.h"
#include "torture/durable_tree.h"
#include "torture/traced_daemon.h"
#include "torture/update_paths.h"

namespace {

constexpr int QUICK_STEP = 12;  // of the points, one in as many

struct fault_mode {
    const char* name;
    unsigned meets;
    int error = 0;             // that a call fails with; 0: all processes end before it
    bool lasts = false;        // all later calls of that kind fail too
    bool reboots = true;       // the device starts anew afterwards, not only the daemon
    bool only_synced = false;  // the cut takes what has not been synced
};

constexpr fault_mode MODES[] = {
    {.name = "kill", .meets = MEETS_CUT, .reboots = false},
    {.name = "cut", .meets = MEETS_CUT},
    {.name = "unsynced", .meets = MEETS_CUT, .only_synced = true},
    {.name = "enospc", .meets = MEETS_ENOSPC, .error = ENOSPC, .lasts = true},
    {.name = "eio", .meets = MEETS_EIO, .error = EIO},
    {.name = "emfile", .meets = MEETS_EMFILE, .error = EMFILE},
    {.name = "enomem", .meets = MEETS_ENOMEM, .error = ENOMEM},
};

client_notes* client;  // in memory that is shared with its process

// The outcome of one run, for the table.
struct run_notes : device_notes {
    bool reached = false;  // the point, before the update was over
    std::string where{};   // of it
};

// Counts the points that the mode has, and lets it happen at one of them.
struct point_watch {
    const fault_mode& mode;
    int wanted;
    int seen = 0;
    bool reached = false;
    std::string where{};
    durable_tree durable{{"/opt/qast/data", "/opt/qast/log"}};

    bool is_of_interest(const stopped_call& call) const {
        if ((call.meets & mode.meets) == 0) return false;
        const auto in = [&call](const char* folder) { return call.path.starts_with(folder); };
        const bool on_device = in("/opt/") || in("/tmp/") || in(FOTA_SIDELOAD_TMP_DIR);
        if (mode.error == 0 || !call.by_daemon) return on_device || call.path.empty();
        return on_device || in("/run/") || call.path.empty();
    }

    int look(const stopped_call& call) {
        int fate = RUNS;
        if (is_of_interest(call) && (++seen == wanted || (mode.lasts && seen > wanted))) {
            if (!reached)
                where = std::string(call.name) + " " + call.path + (call.by_daemon ? "" : " by a command");
            reached = true;
            fate = mode.error == 0 ? CUT : mode.error;
        }
        if (mode.only_synced && call.is_sync && fate == RUNS)
            call.fd < 0 ? durable.sync_all() : durable.sync(call.fd);
        return fate;
    }
};

// One update by that path, with the mode's fault at its point number `wanted`.
void run_point(const update_path& path, const fault_mode& mode, int wanted, run_notes& notes) {
    const std::string program = sandbox_program_folder() + "/fotad";
    *client = {};
    set_up(path);
    point_watch watch{mode, wanted};
    ended_update ended = path.facts;
    ended.call_failed = mode.error != 0;
    for (const boot& one : path.boots) {
        if (one.before != nullptr) leave_normal_operation(*one.before);
        ended.result_left |= has_result();
        watch.durable.sync_all();
        const traced_end end = run_traced(
            program, [&] { run_client(path, one, *client); },
            [&watch](const stopped_call& call) { return watch.look(call); });
        notes.reached = watch.reached;
        notes.where = watch.where;
        require(end != traced_end::CRASHED, "the daemon crashed");
        require(end != traced_end::HUNG, "something hangs");
        require(end != traced_end::GAVE_UP || watch.reached, "the daemon gives up");
        require(watch.reached || client->last_answer == FOTA_RC_SUCCESS,
                "the update fails without a fault: " + std::to_string(client->last_answer));
        if (end == traced_end::CUT) break;
    }
    if (!watch.reached) return;
    if (mode.only_synced) watch.durable.restore();
    if (mode.reboots) device_reboot();
    check_device(ended, client->told, program, GOOD_PACKAGE, notes);
}

// Empty: survived.
std::string complaint_about(const update_path& path, const fault_mode& mode, int point, run_notes& notes) {
    try {
        run_point(path, mode, point, notes);
        return "";
    } catch (const wrong& found) {
        device_cut_power();
        return found.what();
    }
}

// One row of the table, in memory that all workers share.
struct row_counts {
    std::atomic<int> next, points, survived, end, twice, lost, waited;
};
const size_t ROWS = update_paths().size() * std::size(MODES);

const update_path& path_of(size_t row) {
    return update_paths()[row / std::size(MODES)];
}

const fault_mode& mode_of(size_t row) {
    return MODES[row % std::size(MODES)];
}

std::string name_of(size_t row) {
    return std::string(path_of(row).name) + ":" + mode_of(row).name;
}

void work(row_counts* rows, int step, const std::string& only) {
    for (size_t row = 0; row < ROWS; ++row) {
        if (!(name_of(row) + ":").starts_with(only)) continue;
        row_counts& counts = rows[row];
        while (counts.end == 0) {
            const int turn = counts.next++;
            if (turn == 0) std::fprintf(stderr, "torture: %s\n", name_of(row).c_str());
            const int point = 1 + static_cast<int>(row) % step + step * turn;
            run_notes notes;
            const std::string complaint = complaint_about(path_of(row), mode_of(row), point, notes);
            if (!notes.reached && complaint.empty()) {
                counts.end = 1;
                break;
            }
            ++counts.points;
            if (complaint.empty()) ++counts.survived;
            counts.twice += notes.recorded_twice;
            counts.lost += notes.outcome_lost;
            counts.waited += notes.waited_for_installer;
            if (complaint.empty()) continue;
            std::printf("%s:%d  %s\n  at %s\n", name_of(row).c_str(), point, complaint.c_str(),
                        notes.where.c_str());
            std::fflush(stdout);
        }
    }
}

int print_table(const row_counts* rows) {
    int points = 0, survived = 0, twice = 0, lost = 0, waited = 0;
    std::printf("\n%-12s", "survived");
    for (const fault_mode& mode : MODES) std::printf("%10s", mode.name);
    for (size_t row = 0; row < ROWS; ++row) {
        const row_counts& counts = rows[row];
        const std::string cell = std::to_string(counts.survived) + "/" + std::to_string(counts.points);
        if (&mode_of(row) == MODES) std::printf("\n%-12s", path_of(row).name);
        std::printf("%10s", counts.points == 0 ? "-" : cell.c_str());
        points += counts.points;
        survived += counts.survived;
        twice += counts.twice;
        lost += counts.lost;
        waited += counts.waited;
    }
    std::printf("\n\ntorture: %d of %d survived\n", survived, points);
    std::printf("  recorded a second time     %6d   ended between recording and clearing up\n", twice);
    std::printf("  outcome not recorded       %6d   the call that failed was to record it\n", lost);
    std::printf("  waited for the installer   %6d   ended while a full image was installed\n", waited);
    if (survived != points) std::printf("torture --only PATH:MODE:POINT shows the log of one point\n");
    return survived == points ? 0 : 1;
}

void enter() {
    sandbox_options options;
    options.keep = {sandbox_program_folder(), FOTA_TEST_KEYS};
    sandbox_enter(options);
    make_packages();
}

// One point, with the log of what happened.
int run_one(size_t row, int point) {
    enter();
    run_notes notes;
    const std::string complaint = complaint_about(path_of(row), mode_of(row), point, notes);
    std::printf("%s\n%s:%d at %s: %s\n", get_file(DEVICE_DEBUG_LOG).c_str(), name_of(row).c_str(), point,
                notes.where.c_str(), complaint.empty() ? "survived" : complaint.c_str());
    return complaint.empty() ? 0 : 1;
}

template <typename T>
T* share(size_t count) {
    void* memory =
        mmap(nullptr, count * sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return new (memory) T[count]();
}

}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    const bool quick = arguments.size() == 1 && arguments[0] == "--quick";
    const std::string only = arguments.size() == 2 && arguments[0] == "--only" ? arguments[1] + ":" : "";
    size_t known = 0;
    client = share<client_notes>(1);
    for (size_t row = 0; row < ROWS; ++row) {
        if ((name_of(row) + ":").starts_with(only)) ++known;
        if (!only.starts_with(name_of(row) + ":") || only.size() == name_of(row).size() + 1) continue;
        return run_one(row, std::atoi(only.c_str() + name_of(row).size() + 1));
    }
    if (known == 0 || (!arguments.empty() && !quick && only.empty())) {
        std::fprintf(stderr, "usage: torture [--quick | --only PATH[:MODE[:POINT]]], such as ota:cut:17\n");
        return 2;
    }
    row_counts* const rows = share<row_counts>(ROWS);
    std::vector<pid_t> workers(std::max(1u, std::thread::hardware_concurrency()));
    for (pid_t& worker : workers) {
        worker = fork();
        if (worker != 0) continue;
        client = share<client_notes>(1);
        enter();
        work(rows, quick ? QUICK_STEP : 1, only);
        _exit(0);
    }
    bool all_worked = true;
    for (const pid_t worker : workers) {
        int status = 0;
        all_worked &= waitpid(worker, &status, 0) == worker && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }
    const int result = print_table(rows);
    for (size_t row = 0; row < ROWS; ++row) {
        if (!(name_of(row) + ":").starts_with(only) || rows[row].points > 0) continue;
        std::fprintf(stderr, "torture: %s has no points: does the tracer work here?\n", name_of(row).c_str());
        all_worked = false;
    }
    if (!all_worked) std::fprintf(stderr, "torture: a worker came to an end before its work was done\n");
    return all_worked ? result : 1;
}
