// Updates by every path, with the power cut or a system call failing at each point in turn:
// torture [--quick] [--only PATH[:MODE[:POINT]]]. After each, the device has to be as it should be.
#include <signal.h>
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
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "device.h"
#include "fota/fota_client.h"
#include "history/history_db.h"
#include "sandbox.h"
#include "support/device_files.h"
#include "torture/durable_tree.h"
#include "torture/traced_daemon.h"

namespace fs = std::filesystem;

namespace {

constexpr int TIMEOUT_MS = 10000;
constexpr char PACKAGES[] = "/run/sim/packages";  // outlives a simulated reboot
constexpr char RUN_LEVEL[] = "/run/vexa/dsm/persistent_mode";
constexpr char RESET[] = "/run/vexa/dsm/reset_device";
constexpr uint32_t OLD_RECORDS = 3;
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

// What the daemon has answered, which binds it.
struct promises {
    uint32_t validated_id;  // there is such a record
    uint32_t status;        // of that record; 0: none promised
    bool processed;         // the start that processed a result is over
    int last_answer;
};
promises* promised;

struct boot {
    void (*before)();  // what happens while the daemon does not run
    void (*client)();
};

struct update_path {
    const char* name;
    const char* package;
    const char* agent;
    bool fresh;          // on a device that has no data directory yet
    bool records_twice;  // a cut between recording and clearing up makes a second record
    std::vector<boot> boots;
};

// The client's side, in a process of its own.

void expect_daemon() {
    int32_t ignored = 0;
    while (fota_client_get_upgrade_status(&ignored, TIMEOUT_MS) < 0) usleep(1000);
}

bool ok(int answer) {
    promised->last_answer = answer;
    return answer == FOTA_RC_SUCCESS;
}

// Until the device has been asked to leave for the installation, or the session has ended.
void await_installation() {
    for (int look = 0; look < 400; ++look) {
        for (const char* sign : {RUN_LEVEL, RESET, SANDBOX_COMMAND_LOG}) {
            if (exists(sign)) return;
        }
        if (!exists(FOTA_SESSION_LOCK)) return;
        usleep(5000);
    }
}

int validate(const char* agent, const char* path) {
    fota_pkg_info info = {};
    std::strcpy(info.agent_name, agent);
    uint32_t id = 0;
    const int answer = fota_client_validate_update_pkg(path, &info, &id, TIMEOUT_MS);
    promised->validated_id = id;
    return answer;
}

bool lock_and_validate() {
    expect_daemon();
    if (!ok(fota_client_create_session_lock("dm", TIMEOUT_MS))) return false;
    if (!exists(FOTA_UPGRADE_PKG)) fs::copy_file(PACKAGES + std::string("/good"), FOTA_UPGRADE_PKG);
    return ok(validate("dm", FOTA_UPGRADE_PKG));
}

void be_refused() {
    promised->last_answer = lock_and_validate() ? FOTA_RC_FAILURE : FOTA_RC_SUCCESS;
}

void update_over_the_air() {
    if (lock_and_validate() && ok(fota_client_start_installation("dm", 2, 1, TIMEOUT_MS)))
        await_installation();
}

constexpr char DM[] = "dm";
constexpr char SUA[] = "SUA";

// The outcome of an update of that agent; null: of a fall-back.
template <const char* agent>
void collect() {
    expect_daemon();
    promised->processed = true;
    fota_history_rec record = {};
    const int answer = agent != nullptr ? fota_client_get_update_status(agent, &record, TIMEOUT_MS)
                                        : fota_client_get_revert_status(&record, TIMEOUT_MS);
    if (!ok(answer) || record.rec_id == 0) return;
    promised->validated_id = record.rec_id;
    promised->status = record.status;
}

void sideload() {
    expect_daemon();
    uint32_t estimate = 0;
    if (ok(fota_client_sideload_prepare_package(FOTA_WEBUI_UPLOAD, TIMEOUT_MS)) &&
        ok(fota_client_sideload_start_installation("dm", FOTA_UPGRADE_PKG, &estimate, TIMEOUT_MS))) {
        await_installation();
    }
}

void update_by_script() {
    expect_daemon();
    fota_device_info device = {};
    std::strcpy(device.os_version, "5.2.1");
    if (ok(fota_client_sua_update_start(&device, TIMEOUT_MS))) await_installation();
}

void validate_twice_and_abort() {
    if (lock_and_validate() && ok(validate("dm", FOTA_UPGRADE_PKG)) &&
        ok(fota_client_incr_install_defer_count("dm", TIMEOUT_MS)) &&
        ok(fota_client_abort_current_session("dm", 402, "corrupt", TIMEOUT_MS))) {
        promised->status = 402;
    }
}

// The other programs of the device, while the daemon does not run.

void upload() {
    fs::create_directories(fs::path(FOTA_WEBUI_UPLOAD).parent_path());
    fs::copy_file(PACKAGES + std::string("/bundle"), FOTA_WEBUI_UPLOAD);
}

void installed() {
    if (exists(FOTA_STAGING_UPDATE_PRE_INSTALL) || exists(FOTA_STAGING_UPDATE_PRE_FULL_FOTA_INSTALL)) {
        put_file(FOTA_STAGING_UPDATE_SUCCESS, "");
    }
    if (exists(FOTA_STAGING_SUA_COOKIE)) put_file(FOTA_STAGING_SUA_PKG_NAME, "by script");
    device_reboot();
}

void not_installed() {
    if (exists(FOTA_STAGING_UPDATE_PRE_INSTALL)) put_file(FOTA_STAGING_UPDATE_FAILURE, "-2147483635");
    device_reboot();
}

void fell_back() {
    put_file(FOTA_REVERT_MARKER, "");
    put_file(FOTA_REVERT_ERROR_CODE, "410");
    put_file(FOTA_REVERT_REASON, "does not boot\n");
}

// clang-format off
const update_path PATHS[] = {
    // name       package    agent  fresh  twice
    {"ota",        "good",    "dm",  false, false, {{nullptr, update_over_the_air}, {installed, collect<DM>}}},
    {"ota-failed", nullptr,   "dm",  true,  false, {{nullptr, update_over_the_air}, {not_installed, collect<DM>}}},
    {"sideload",   nullptr,   "dm",  false, false, {{upload, sideload}, {installed, collect<DM>}}},
    {"script",     nullptr,   "SUA", false, true,  {{nullptr, update_by_script}, {installed, collect<SUA>}}},
    {"full-image", "full",    "dm",  false, false, {{nullptr, update_over_the_air}, {installed, collect<DM>}}},
    {"revert",     nullptr,   "dm",  false, true,  {{fell_back, collect<nullptr>}}},
    {"refused",    "spoiled", "dm",  false, false, {{nullptr, be_refused}}},
    {"abort",      nullptr,   "dm",  true,  false, {{nullptr, validate_twice_and_abort}}},
};
// clang-format on

// The device beforehand, and what must be so afterwards.

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

std::vector<fota_history_rec> read_records() {
    const std::string content = exists(FOTA_HISTORY_DB) ? get_file(FOTA_HISTORY_DB) : "";
    std::vector<fota_history_rec> records(content.size() / sizeof(fota_history_rec));
    std::memcpy(records.data(), content.data(), records.size() * sizeof records[0]);
    std::erase_if(records, [](const fota_history_rec& record) { return record.rec_id == 0; });
    return records;
}

void set_up(const update_path& path) {
    device_seed(FOTA_TEST_KEYS);
    if (!path.fresh) {
        put_history({make_record(1, FOTA_REC_FACTORY_CFG), make_record(2, FOTA_REC_UPDATE, 200, "dm"),
                     make_record(3, FOTA_REC_UPDATE, 404, "dm")});
        put_file(FOTA_FACTORY_CFG_REC, "1");
        put_file(FOTA_PREVIOUS_SRC_VER, "1.0\n");
    }
    if (path.package != nullptr) {
        fs::copy_file(PACKAGES + std::string("/") + path.package, FOTA_UPGRADE_PKG);
    }
}

struct wrong : std::runtime_error {
    using std::runtime_error::runtime_error;
};

void require(bool holds, const std::string& complaint) {
    if (!holds) throw wrong(complaint);
}

// The outcome of one run, for the table.
struct run_notes {
    bool reached = false;  // the point, before the update was over
    std::string where;     // of it
    bool recorded_twice = false;
    bool outcome_lost = false;
    bool waited_for_installer = false;
};

void check_history(const update_path& path, const fault_mode& mode, run_notes& notes) {
    if (exists(FOTA_HISTORY_DB)) {
        require(fs::file_size(FOTA_HISTORY_DB) == FOTA_HISTORY_SLOTS * sizeof(fota_history_rec),
                "history.bin is torn");
    }
    const std::vector<fota_history_rec> records = read_records();
    std::set<uint32_t> ids;
    for (const fota_history_rec& record : records) {
        require(ids.insert(record.rec_id).second, "two records with one id");
    }
    size_t expected = std::string_view(path.name) == "abort" ? 2 : 1;
    if (!path.fresh) {
        for (uint32_t id = 1; id <= OLD_RECORDS; ++id) require(ids.contains(id), "an old record is lost");
        const fota_history_rec old = make_record(2, FOTA_REC_UPDATE, 200, "dm");
        const fota_history_rec stored = stored_record(2);
        require(std::memcmp(&stored, &old, sizeof old) == 0, "an old record has changed");
        expected += OLD_RECORDS;
    }
    notes.recorded_twice = records.size() > expected;
    require(!notes.recorded_twice || (path.records_twice && records.size() == expected + 1),
            "too many records");
    require(!notes.recorded_twice || !promised->processed || mode.error != 0, "an outcome is recorded again");
    if (promised->validated_id == 0) return;
    require(ids.contains(promised->validated_id), "a record that the client knows is lost");
    const uint32_t status = stored_record(promised->validated_id).status;
    require(promised->status == 0 || status == promised->status, "an outcome that the client knows is lost");
}

// What says that there is something to install must be right.
void check_staging(const update_path& path) {
    const bool to_be_installed = exists(FOTA_STAGING_UPDATE_DLPKG_VERIFIED) ||
                                 exists(FOTA_STAGING_UPDATE_PRE_INSTALL) ||
                                 exists(FOTA_STAGING_UPDATE_PRE_FULL_FOTA_INSTALL);
    if (!to_be_installed || std::string_view(path.name) == "script") return;
    const std::string staging = FOTA_STAGING_DIR;
    require(std::string_view(path.name) != "refused", "a refused package is ready to be installed");
    require(get_file(staging + "/a") == "one\n" && get_file(staging + "/b") == "two\n" &&
                exists(FOTA_STAGING_CHECKSUM_LIST) && exists(FOTA_STAGING_TARGET_VER),
            "part of a package is ready to be installed");
}

pid_t start_daemon() {
    const pid_t id = daemon_launch(sandbox_program_folder() + "/fotad");
    require(id > 0 && daemon_wait_ready(id), "the daemon does not come back");
    return id;
}

void end_daemon(pid_t id) {
    require(daemon_end(id, SIGTERM) == 0, "the daemon does not end");
}

void expect(int answer, int expected, const char* request) {
    require(answer == expected, std::string(request) + " is answered " + std::to_string(answer));
}

// The device comes back, the session is over or its owner can end it, and the next update works.
void check_device(const update_path& path, const fault_mode& mode, bool result_left, run_notes& notes) {
    check_history(path, mode, notes);
    check_staging(path);
    pid_t daemon = start_daemon();
    if (exists(FOTA_STAGING_UPDATE_PRE_FULL_FOTA_INSTALL)) {
        notes.waited_for_installer = true;  // which was about to run, or the device's recovery in its place
        end_daemon(daemon);
        put_file(FOTA_STAGING_UPDATE_FAILURE, "409");
        daemon = start_daemon();
    }
    check_history(path, mode, notes);
    check_staging(path);
    if (result_left) {
        const std::vector<fota_history_rec> records = read_records();
        notes.outcome_lost = std::ranges::none_of(records, [&path](const fota_history_rec& record) {
            return record.rec_id > (path.fresh ? 0 : OLD_RECORDS) && record.status != 0;
        });
        require(!notes.outcome_lost || mode.error != 0, "the outcome is lost");
    }
    if (exists(FOTA_SESSION_LOCK)) {
        require(get_file(FOTA_SESSION_LOCK) == path.agent,
                "the session belongs to '" + get_file(FOTA_SESSION_LOCK) + "'");
        expect(fota_client_clear_session_lock(path.agent, TIMEOUT_MS), FOTA_RC_SUCCESS,
               "the end of the session");
        for (const char* left : {FOTA_SESSION_LOCK, FOTA_TRACKING, FOTA_STAGING_DIR, FOTA_UPGRADE_PKG}) {
            require(!exists(left), std::string(left) + " outlives its session");
        }
    }
    for (const char* left :
         {FOTA_DECRYPT_TEMP, FOTA_CLEAN_UP, FOTA_FULL_FOTA_WAIT, FOTA_PKG_DETAILS_ENCRYPTED}) {
        require(!exists(left), std::string(left) + " outlives the start");
    }
    expect(fota_client_create_session_lock("next", TIMEOUT_MS), FOTA_RC_SUCCESS, "the next session");
    fota_history_rec record = {};
    const int seen = fota_client_get_current_sess_record("next", &record, TIMEOUT_MS);
    if (mode.error == 0) expect(seen, FOTA_RC_INVALID_PARAM, "the record of another agent's update");
    expect(fota_client_start_installation("next", 0, 0, TIMEOUT_MS), FOTA_RC_INSTALL_START_FAILED,
           "an installation without a package");
    expect(validate("next", (PACKAGES + std::string("/good")).c_str()), FOTA_RC_SUCCESS, "the next package");
    expect(fota_client_abort_current_session("next", 401, "", TIMEOUT_MS), FOTA_RC_SUCCESS, "the next abort");
    end_daemon(daemon);
    for (const auto& entry : fs::directory_iterator(FOTA_DATA_DIR)) {
        const std::string name = entry.path().filename();
        require(name == "history.bin" || name == "update_check" || name == "factory_cfg_rec" ||
                    name == "previous" || name == "revert_processed",
                name + " is left over");
    }
}

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
    *promised = {};
    set_up(path);
    point_watch watch{mode, wanted};
    bool result_left = false;
    for (const boot& one : path.boots) {
        if (one.before != nullptr) one.before();
        result_left |= exists(FOTA_STAGING_UPDATE_SUCCESS) || exists(FOTA_STAGING_UPDATE_FAILURE) ||
                       exists(FOTA_REVERT_MARKER);
        watch.durable.sync_all();
        const traced_end end = run_traced(sandbox_program_folder() + "/fotad", one.client,
                                          [&watch](const stopped_call& call) { return watch.look(call); });
        notes.reached = watch.reached;
        notes.where = watch.where;
        require(end != traced_end::CRASHED, "the daemon crashed");
        require(end != traced_end::HUNG, "something hangs");
        require(end != traced_end::GAVE_UP || watch.reached, "the daemon gives up");
        require(watch.reached || promised->last_answer == FOTA_RC_SUCCESS,
                "the update fails without a fault: " + std::to_string(promised->last_answer));
        if (end == traced_end::CUT) break;
    }
    if (!watch.reached) return;
    if (mode.only_synced) watch.durable.restore();
    if (mode.reboots) device_reboot();
    check_device(path, mode, result_left, notes);
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
    promised = share<promises>(1);
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
        promised = share<promises>(1);
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
