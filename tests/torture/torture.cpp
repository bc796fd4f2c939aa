// Updates by every path, with the power cut or a system call failing at each point in turn:
// torture [--quick] [--only PATH[:MODE[:POINT]]]. After each, the device has to be as it should be.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <span>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "fota/fota_client.h"
#include "support/device_files.h"
#include "tools/play/agents.h"
#include "tools/play/device.h"
#include "tools/play/programs.h"
#include "tools/play/sandbox.h"
#include "torture/device_checks.h"
#include "torture/durable_tree.h"
#include "torture/traced_daemon.h"

namespace fs = std::filesystem;

namespace {

constexpr int TIMEOUT_MS = 10000;
constexpr char PACKAGES[] = "/run/sim/packages";  // outlives a simulated reboot
constexpr char GOOD_PACKAGE[] = "/run/sim/packages/good";
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

// What the client has been told, in memory that is shared with it.
struct client_notes {
    promises told;
    int last_answer;
};
client_notes* client;

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

// The client's requests, in a process of its own.

int be_refused(update_session& session) {
    return agent_validate(session) == FOTA_RC_SUCCESS ? FOTA_RC_FAILURE : FOTA_RC_SUCCESS;
}

int give_up(update_session&) {
    const int answer = fota_client_abort_current_session("dm", 402, "corrupt", TIMEOUT_MS);
    if (answer == FOTA_RC_SUCCESS) client->told.status = 402;
    return answer;
}

// The outcome of an update, or of a fall-back.
template <agent_request ask>
int collect(update_session& session) {
    client->told.processed = true;
    const int answer = ask(session);
    if (answer == FOTA_RC_SUCCESS && session.outcome.rec_id != 0) {
        session.rec_id = session.outcome.rec_id;
        client->told.status = session.outcome.status;
    }
    return answer;
}

constexpr agent_request BY_SCRIPT[] = {agent_script_start};
constexpr agent_request BE_REFUSED[] = {agent_lock, agent_download, be_refused};
constexpr agent_request GIVE_UP[] = {agent_lock,     agent_download, agent_validate,
                                     agent_validate, agent_defer,    give_up};
constexpr agent_request COLLECT[] = {collect<agent_update_status>};
constexpr agent_request COLLECT_REVERT[] = {collect<agent_revert_status>};

void run_client(const update_path& path, const boot& one) {
    update_session session = {.agent = path.facts.agent,
                              .boot_preference = FOTA_BOOT_LPM,
                              .wait_secs = 1,
                              .timeout_ms = TIMEOUT_MS,
                              .package_timeout_ms = TIMEOUT_MS};
    // A fresh device has no folder for a package yet.
    if (path.facts.fresh) session.package_fd = open(GOOD_PACKAGE, O_RDONLY | O_CLOEXEC);
    std::strcpy(session.device.os_version, "5.2.1");
    session.rec_id = client->told.validated_id;
    int32_t ignored = 0;
    while (fota_client_get_upgrade_status(&ignored, TIMEOUT_MS) < 0) usleep(1000);
    for (const agent_request request : one.requests) {
        client->last_answer = request(session);
        client->told.validated_id = session.rec_id;
        if (client->last_answer != FOTA_RC_SUCCESS) return;
    }
    // Until the device has been asked to leave for the installation, or the session has ended.
    for (int look = 0; look < 400 && !client->told.processed && exists(FOTA_SESSION_LOCK); ++look) {
        if (!asked_to_install(false).empty() || !asked_to_install(true).empty()) return;
        usleep(5000);
    }
}

void place(const char* package, const char* path) {
    fs::create_directories(fs::path(path).parent_path());
    fs::copy_file(PACKAGES + std::string("/") + package, path);
}

// The device's other programs.
void leave_normal_operation(const installer_outcome& outcome) {
    const bool installs =
        exists(FOTA_STAGING_UPDATE_PRE_INSTALL) || exists(FOTA_STAGING_UPDATE_PRE_FULL_FOTA_INSTALL);
    if (installs || outcome.revert_code) leave_result(outcome);
    if (exists(FOTA_STAGING_SUA_COOKIE)) put_file(FOTA_STAGING_SUA_PKG_NAME, "by script");
    device_reboot();
}

const installer_outcome INSTALLED = {};
const installer_outcome FAILED = {.code = -2147483635};
const installer_outcome FELL_BACK = {.revert_code = 410, .reason = "does not boot\n"};

using enum package_content;
// clang-format off
const update_path PATHS[] = {
    //                         agent content   records fresh  twice
    {"ota",        "good",    {"dm", GOOD,          1, false, false}, {{nullptr, OVER_THE_AIR}, {&INSTALLED, COLLECT}}},
    {"ota-failed", nullptr,   {"dm", GOOD,          1, true,  false}, {{nullptr, OVER_THE_AIR}, {&FAILED, COLLECT}}},
    {"sideload",   "bundle",  {"dm", GOOD,          1, false, false}, {{nullptr, SIDE_LOAD}, {&INSTALLED, COLLECT}}},
    {"script",     nullptr,   {"SUA", NOT_VALIDATED, 1, false, true}, {{nullptr, BY_SCRIPT}, {&INSTALLED, COLLECT}}},
    {"full-image", "full",    {"dm", GOOD,          1, false, false}, {{nullptr, OVER_THE_AIR}, {&INSTALLED, COLLECT}}},
    {"revert",     nullptr,   {"dm", GOOD,          1, false, true},  {{&FELL_BACK, COLLECT_REVERT}}},
    {"refused",    "spoiled", {"dm", REFUSED,       1, false, false}, {{nullptr, BE_REFUSED}}},
    {"abort",      nullptr,   {"dm", GOOD,          2, true,  false}, {{nullptr, GIVE_UP}}},
};
// clang-format on

void make_packages() {
    setenv("K", FOTA_TEST_KEYS, 1);
    setenv("PATH", (sandbox_program_folder() + ":" + std::getenv("PATH")).c_str(), 1);
    const char* const command =
        R"(set -e; mkdir -p /run/sim/packages/c; cd /run/sim/packages; echo one >c/a; echo two >c/b
        printf '#!/bin/sh\nexit 0\n' >full.sh
        make() {
            fotapkg package --content c --keys $K --source MDM2.1.07-4.14.98-5.2.1 --target 2.0 \
                --description Text --estimate 60 "$@" >>out
        }
        make -o good; make --full-image full.sh -o full; fotapkg bundle good --keys $K -o bundle >>out
        # As the builder does it, but with a file that does not match its checksum.
        cd c; echo 2.0 >target_ver; echo 1.0 >src_ver; md5sum a b >dlpkg_cksum; echo 3 >b; zip -q ../inner.zip *; cd ..
        openssl smime -sign -binary -nodetach -signer $K/build_cert.pem -inkey $K/build_key.pem -in inner.zip -out signed
        openssl smime -encrypt -binary -aes256 -in signed -out pkg_details.zip.enc $K/device_cert.pem
        zip -q spoiled.zip pkg_details.zip.enc; mv spoiled.zip spoiled)";
    if (std::system(command) != 0) throw std::runtime_error("cannot make the packages");
}

void set_up(const update_path& path) {
    device_seed(FOTA_TEST_KEYS);
    if (!path.facts.fresh) put_old_state();
    const bool uploaded = path.boots[0].requests.data() == SIDE_LOAD;
    if (path.package != nullptr) place(path.package, uploaded ? FOTA_WEBUI_UPLOAD : FOTA_UPGRADE_PKG);
}

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
        ended.result_left |= exists(FOTA_STAGING_UPDATE_SUCCESS) || exists(FOTA_STAGING_UPDATE_FAILURE) ||
                             exists(FOTA_REVERT_MARKER);
        watch.durable.sync_all();
        const traced_end end = run_traced(
            program, [&] { run_client(path, one); },
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
constexpr size_t ROWS = std::size(PATHS) * std::size(MODES);

const update_path& path_of(size_t row) {
    return PATHS[row / std::size(MODES)];
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
