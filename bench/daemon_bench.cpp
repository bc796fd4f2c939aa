// The real daemon, measured from outside, against the bare work that it does.
#include <CLI/CLI.hpp>
#include <signal.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <thread>

#include "chart.h"
#include "common/state_files.h"
#include "figures.h"
#include "fota/fota_client.h"
#include "history/history_db.h"
#include "package/crypto.h"
#include "packages.h"
#include "queues.h"
#include "tools/play/device.h"
#include "tools/play/sandbox.h"

namespace {

namespace fs = std::filesystem;

constexpr char AGENT[] = "bench";
constexpr char BARE_QUEUE[] = "/bench_bare";
constexpr int LONG_MS = 600000;
constexpr int IDLE_SECS = 60;
constexpr int STARTS = 10;
constexpr int QUICK_REQUESTS = 3000;
constexpr int DISK_REQUESTS = 60;
constexpr int BLOCKS = 20;       // of requests, in turns, in a round
constexpr int CLEAR_ROUNDS = 5;  // of validations, when all of them lie on the same side of each limit
constexpr int CHART_MIB = 96;    // in one form and place only, since it takes long

struct bench_options {
    int rounds = 15;
    std::string work_folder;  // on the disk that the history is written to
    std::string arm_device;   // folder of scripts/armhf-device; empty: there is none
    std::string arm_daemon;   // stripped
    std::string arm_counter;
    std::string only;
};

std::string program_folder;

// What was measured so far; the lines are those of the chart.
struct bench_results {
    std::vector<figure> figures;
    chart_line our_time, tools_time, our_memory, tools_memory;
};

// The data folder on a real disk, until the end of the block; else it lies in memory, as all of the sandbox.
class data_on_disk {
public:
    explicit data_on_disk(const bench_options& options) {
        const std::string disk = options.work_folder + "/disk";
        sh("rm -rf " + disk + "; mkdir " + disk);
        if (mount(disk.c_str(), FOTA_DATA_DIR, nullptr, MS_BIND, nullptr) != 0)
            throw std::runtime_error("cannot mount " + disk);
    }
    ~data_on_disk() {
        if (umount(FOTA_DATA_DIR) != 0) fprintf(stderr, "bench: the disk stays mounted\n");
    }
    data_on_disk(const data_on_disk&) = delete;
    data_on_disk& operator=(const data_on_disk&) = delete;
};

// A daemon that serves, until the end of the block.
class running_daemon {
public:
    explicit running_daemon(const std::string& program = daemon_program(program_folder))
        : id_(daemon_launch(program)) {
        if (id_ < 0 || !daemon_wait_ready(id_)) throw std::runtime_error("fotad does not start");
    }
    ~running_daemon() {
        if (daemon_end(id_, SIGTERM) != 0) fprintf(stderr, "bench: fotad did not end well\n");
    }
    running_daemon(const running_daemon&) = delete;
    running_daemon& operator=(const running_daemon&) = delete;

    // A number from the status that the kernel keeps of the process, such as "VmHWM".
    [[nodiscard]] double status(const std::string& name) const {
        std::ifstream file("/proc/" + std::to_string(id_) + "/status");
        for (std::string line; std::getline(file, line);) {
            if (line.starts_with(name + ":")) return std::stod(line.substr(name.size() + 1));
        }
        throw std::runtime_error("the kernel does not say " + name + " of the daemon");
    }
    [[nodiscard]] double status_mib(const std::string& name) const { return status(name) / 1024; }

private:
    pid_t id_;
};

// -------- validation

// The work of a validation as a shell does it; $RUN is empty, or runs programs under emulation.
constexpr char TOOLS[] =
    "set -e; exec >>/var/log/debug_log 2>&1; D=/opt/qast/data/fota; E=/opt/qast/etc/fota; "
    "${RUN}unzip -jo $D/upgrade.zip pkg_details.zip.enc -d /tmp; "
    "${RUN}openssl smime -decrypt -in /tmp/pkg_details.zip.enc -inkey $E/device.pem -passin env:P -out "
    "$D/sl_temp; "
    "rm /tmp/pkg_details.zip.enc; "
    "${RUN}openssl smime -verify -in $D/sl_temp -certfile $E/build_cert.pem -noverify -out "
    "/tmp/pkg_details.zip; "
    "rm $D/sl_temp; mkdir -p -m 0700 $D/staging; ${RUN}unzip -o /tmp/pkg_details.zip -d $D/staging; "
    "(cd $D/staging; ${RUN}md5sum -c dlpkg_cksum); find $D/staging -depth -exec sync {} +";

struct validation_run {
    double millis = 0;
    double peak_mib = 0;  // of the daemon, or of the largest of the tools
    double later_mib = 0;
};

// Leaves nothing of an earlier session, and what is written to the disk is there.
void download(const std::string& package) {
    sh("rm -rf /opt/qast/data/fota/* /tmp/pkg_details.zip*; : >/var/log/debug_log; cp " + package + " " +
       FOTA_UPGRADE_PKG + "; sync " + FOTA_UPGRADE_PKG + " " + FOTA_DATA_DIR);
}

enum class after { nothing, a_second };

validation_run validate_by(const running_daemon& daemon, bool is_good, after wait) {
    fota_pkg_info info = {};
    strcpy(info.agent_name, AGENT);
    uint32_t record = 0;
    if (fota_client_create_session_lock(AGENT, LONG_MS) != FOTA_RC_SUCCESS)
        throw std::runtime_error("the session is not granted");
    validation_run run;
    const auto start = bench_clock::now();
    const int result = fota_client_validate_update_pkg(FOTA_UPGRADE_PKG, &info, &record, LONG_MS);
    run.millis = micros_since(start) / 1000;
    if (result != (is_good ? FOTA_RC_SUCCESS : FOTA_RC_FAILURE))
        throw std::runtime_error(is_good ? "a good package is refused" : "a bad package passes");
    run.peak_mib = daemon.status_mib("VmHWM");
    if (wait == after::a_second) std::this_thread::sleep_for(std::chrono::seconds(1));
    run.later_mib = daemon.status_mib("VmRSS");
    return run;
}

validation_run validate_by_daemon(const std::string& package, bool is_good, after wait = after::nothing) {
    download(package);
    return validate_by(running_daemon(), is_good, wait);
}

validation_run validate_by_tools(const std::string& package) {
    download(package);
    const char* const arguments[] = {"sh", "-c", TOOLS, nullptr};
    const auto start = bench_clock::now();
    pid_t shell = -1;
    int status = -1;
    rusage usage = {};
    if (posix_spawn(&shell, "/bin/sh", nullptr, nullptr, const_cast<char**>(arguments), environ) != 0 ||
        wait4(shell, &status, 0, &usage) != shell || status != 0) {
        throw std::runtime_error("the tools refuse a package:\n" + device_read(DEVICE_DEBUG_LOG));
    }
    // Of all that ended below the shell, the one with the most.
    return {micros_since(start) / 1000, static_cast<double>(usage.ru_maxrss) / 1024, 0};
}

// How long it takes, by packages that are accepted.
void measure_validation(const bench_options& options, bench_results& results) {
    const struct {
        int content_mib;
        double must, aim;
    } sizes[] = {{1, 0.60, 0.45}, {8, 0.65, 0.58}, {32, 0.65, 0.58}, {CHART_MIB, 0.65, 0.58}};
    for (const auto& size : sizes) {
        make_details(size.content_mib);
        const auto measure = [&](const package_form& form, const std::string& package, const char* place) {
            figure time = {
                "validate " + std::to_string(size.content_mib) + " MiB, " + form.name + ", " + place,
                "ms",
                "tools",
                judged_by::ratio,
                size.must,
                size.aim,
                {},
                {}};
            for (int round = 0; round < options.rounds; ++round) {
                if (round >= CLEAR_ROUNDS && !is_in_doubt(time)) break;
                time.ours.push_back(validate_by_daemon(package, true).millis);
                time.theirs.push_back(validate_by_tools(package).millis);
            }
            results.figures.push_back(time);
        };
        for (const package_form& form : package_forms()) {
            const std::string package = make_package(form);
            measure(form, package, "memory");
            if (&form == &package_forms().front()) {  // which is that of fotapkg
                const double x = size.content_mib;
                results.our_time.points.push_back({x, median_of(results.figures.back().ours) / 1000});
                results.tools_time.points.push_back({x, median_of(results.figures.back().theirs) / 1000});
            }
            if (size.content_mib == CHART_MIB) break;
            const data_on_disk disk(options);
            measure(form, package, "disk");
        }
    }
}

// The most that it takes, by packages of each form that are accepted or refused.
void measure_memory(const bench_options& options, bench_results& results) {
    (void)options;  // the same package takes the same memory each time
    figure later = {"memory 1 s after 32 MiB", "MiB", "", judged_by::largest, 15, 10, {}, {}};
    for (const int content_mib : {1, 8, 32, CHART_MIB}) {
        make_details(content_mib);
        figure peak = {"", "MiB", "tools", judged_by::largest, 8, 6, {}, {}};
        std::string largest;  // the case that takes the most
        for (const package_form& form : package_forms()) {
            for (const package_fault fault : package_faults()) {
                const std::string package = make_package(form, fault);
                const bool is_good = fault == package_fault::none;
                const validation_run run = validate_by_daemon(
                    package, is_good, content_mib == 32 ? after::a_second : after::nothing);
                if (run.peak_mib > quantile_of(peak.ours, 1))
                    largest = std::string(", ") + form.name + ", " + fault_name(fault);
                peak.ours.push_back(run.peak_mib);
                if (content_mib == 32) later.ours.push_back(run.later_mib);
                if (is_good) peak.theirs.push_back(validate_by_tools(package).peak_mib);
            }
        }
        peak.name = "peak " + std::to_string(content_mib) + " MiB" + largest;
        results.figures.push_back(peak);
        const double x = content_mib;
        results.our_memory.points.push_back({x, quantile_of(peak.ours, 1)});
        results.tools_memory.points.push_back({x, quantile_of(peak.theirs, 1)});
    }
    results.figures.push_back(later);

    // libcrypto reads these as a whole, as it does for the tools.
    figure odd = {"peak 32 MiB, odd lines", "MiB", "tools", judged_by::largest, 0, 0, {}, {}};
    make_details(32);
    const std::string package = make_package(package_forms().front(), package_fault::odd_lines);
    odd.ours.push_back(validate_by_daemon(package, true).peak_mib);
    odd.theirs.push_back(validate_by_tools(package).peak_mib);
    results.figures.push_back(odd);
}

// -------- on 32-bit ARM

constexpr char COUNTS[] = "/opt/bench/instructions";  // a line for each process that ended

std::vector<double> take_counts() {
    std::ifstream file(COUNTS);
    std::vector<double> counts;
    for (double count = 0; file >> count;) counts.push_back(count);
    fs::remove(COUNTS);
    return counts;
}

// The instructions that the daemon alone runs, from its start to its end.
double count_daemon(const bench_options& options, bool validates) {
    {
        const running_daemon daemon(options.arm_device + "/fotad");
        if (validates) (void)validate_by(daemon, true, after::nothing);
    }
    return quantile_of(take_counts(), 1);  // its launcher runs less
}

// Instructions for each byte of content: emulation tells how many the processor would run, not how long it
// would take.
void measure_arm(const bench_options& options, bench_results& results) {
    constexpr int CONTENT_MIB = 8;
    figure alone = {"ARM, messages and MD5, 8 MiB", "/B", "tools", judged_by::ratio, 0, 0, {}, {}},
           whole = {"ARM, with unzip, 8 MiB", "/B", "tools", judged_by::ratio, 0, 0, {}, {}};
    if (!options.arm_counter.empty()) {
        make_details(CONTENT_MIB);
        const std::string package = make_package(package_forms().front());
        const std::string root = options.arm_device + "/root";
        setenv("QEMU_PLUGIN", ("file=" + options.arm_counter + ",out=" + COUNTS).c_str(), 1);
        setenv("QEMU_CPU", "cortex-a7", 1);  // as on the device: no instructions for AES and SHA
        download(package);
        const double idle = count_daemon(options, false), daemon = count_daemon(options, true) - idle;

        setenv("RUN", (options.arm_device + "/emulator/fotad -L " + root + " " + root + "/usr/bin/").c_str(),
               1);
        (void)validate_by_tools(package);
        const std::vector<double> tools = take_counts();  // in the order of the commands
        if (tools.size() != 5) throw std::runtime_error("not every tool ran under emulation");
        for (const char* name : {"QEMU_PLUGIN", "QEMU_CPU", "RUN"}) unsetenv(name);
        const double unzip = tools[0] + tools[3], others = tools[1] + tools[2] + tools[4];
        constexpr double BYTES = CONTENT_MIB * 1024.0 * 1024.0;
        alone.ours = {daemon / BYTES};
        alone.theirs = {others / BYTES};
        whole.ours = {(daemon + unzip) / BYTES};
        whole.theirs = {(others + unzip) / BYTES};
    }
    results.figures.push_back(alone);
    results.figures.push_back(whole);
}

// -------- requests

void add_round_trips(std::vector<double>& micros, queue_client& client, int32_t event, int count) {
    for (int i = 0; i < count; ++i) {
        fota_event_msg msg = {};
        msg.event = event;
        msg.payload.record.rec_id = 10;
        micros.push_back(client.round_trip(msg));
        if (msg.result != FOTA_RC_SUCCESS) throw std::runtime_error("a request was refused");
    }
}

// Both write to the same disk, and both have a history of 20 records.
void measure_requests(const bench_options& options, bench_results& results) {
    const data_on_disk disk(options);
    const std::string bare_folder = options.work_folder + "/bare_disk";
    sh("rm -rf " + bare_folder + "; mkdir " + bare_folder);
    std::vector<fota_history_rec> records(FOTA_HISTORY_SLOTS);
    for (uint32_t i = 0; i < records.size(); ++i) {
        records[i].rec_id = i + 1;
        records[i].status = FOTA_STATUS_SUCCESS;
    }
    device_write(FOTA_HISTORY_DB,
                 {reinterpret_cast<const char*>(records.data()), records.size() * sizeof records[0]});

    const struct {
        const char* name;
        int32_t event;
        int count;
        double part;
        const char* against;
        double must, aim;
    } rows[] = {
        {"event 30, p50", FOTA_MSG_GET_UPGRADE_STATUS, QUICK_REQUESTS, 0.5, "bare round trip", 2.0, 1.3},
        {"event 30, p99", FOTA_MSG_GET_UPGRADE_STATUS, QUICK_REQUESTS, 0.99, "bare round trip", 2.5, 1.5},
        {"event 10, p50", FOTA_MSG_GET_RECORD_BY_ID, QUICK_REQUESTS, 0.5, "bare, and a read", 2.0, 1.3},
        {"event 18, p50", FOTA_MSG_MODIFY_RECORD_BY_ID, DISK_REQUESTS, 0.5, "bare rewrite, same syncs", 1.25,
         1.15},
    };
    std::vector<figure> measured;
    for (const auto& row : rows)
        measured.push_back({row.name, "us", row.against, judged_by::ratio, row.must, row.aim, {}, {}});
    {
        const running_daemon daemon;
        const pid_t bare_server = start_bare_server(BARE_QUEUE, bare_folder);
        queue_client client(FOTA_REQUEST_QUEUE), bare_client(BARE_QUEUE);
        for (int round = -1; round < options.rounds; ++round) {  // the first warms up, and is not counted
            for (size_t i = 0; i < measured.size(); ++i) {
                std::vector<double> ours, bare;
                for (int block = 0; block < BLOCKS; ++block) {
                    add_round_trips(ours, client, rows[i].event, rows[i].count / BLOCKS);
                    add_round_trips(bare, bare_client, rows[i].event, rows[i].count / BLOCKS);
                }
                if (round < 0) continue;
                measured[i].ours.push_back(quantile_of(ours, rows[i].part));
                measured[i].theirs.push_back(quantile_of(bare, rows[i].part));
            }
        }
        kill(bare_server, SIGKILL);
        waitpid(bare_server, nullptr, 0);
    }
    results.figures.insert(results.figures.end(), measured.begin(), measured.end());
}

// -------- start and idleness

pid_t start_program(const std::string& path) {
    char* const arguments[] = {const_cast<char*>(path.c_str()), nullptr};
    pid_t id = -1;
    if (posix_spawn(&id, path.c_str(), nullptr, nullptr, arguments, environ) != 0)
        throw std::runtime_error("cannot start " + path);
    return id;
}

// From the call that starts it to its first answer.
double start_millis() {
    const auto start = bench_clock::now();
    const pid_t launcher = start_program(daemon_program(program_folder));
    queue_client client(FOTA_REQUEST_QUEUE);
    std::vector<double> ignored;
    add_round_trips(ignored, client, FOTA_MSG_GET_UPGRADE_STATUS, 1);
    const double millis = micros_since(start) / 1000;
    waitpid(launcher, nullptr, 0);
    // Every line in the log names the process that wrote it: "2026-11-24 18:21:38.123 42 ...".
    const std::string log = device_read(DEVICE_DEBUG_LOG);
    const size_t last_line = log.rfind('\n', log.size() - 2) + 1;
    int daemon = -1;
    if (sscanf(log.c_str() + last_line, "%*s %*s %d", &daemon) != 1 || daemon_end(daemon, SIGTERM) != 0)
        throw std::runtime_error("fotad does not end");
    return millis;
}

double end_of_program_millis(const std::string& path) {
    const auto start = bench_clock::now();
    waitpid(start_program(path), nullptr, 0);
    return micros_since(start) / 1000;
}

void measure_start(const bench_options& options, bench_results& results) {
    figure start = {"start to first answer", "ms", "program with libcrypto", judged_by::ratio, 3, 2, {}, {}};
    for (int round = 0; round < options.rounds; ++round) {
        std::vector<double> ours, theirs;
        for (int i = 0; i < STARTS; ++i) {
            ours.push_back(start_millis());
            theirs.push_back(end_of_program_millis(program_folder + "/libcrypto_only"));
        }
        start.ours.push_back(median_of(ours));
        start.theirs.push_back(median_of(theirs));
    }
    results.figures.push_back(start);
}

void measure_idle(const bench_options& options, bench_results& results) {
    figure memory = {"memory before any validation", "MiB", "", judged_by::value, 12, 8, {}, {}};
    for (int round = 0; round < options.rounds; ++round) {
        memory.ours.push_back(running_daemon().status_mib("VmRSS"));
    }
    results.figures.push_back(memory);
    const running_daemon daemon;
    const double before = daemon.status("voluntary_ctxt_switches");
    std::this_thread::sleep_for(std::chrono::seconds(IDLE_SECS));
    const double wake_ups = daemon.status("voluntary_ctxt_switches") - before;
    results.figures.push_back({"wake-ups in an idle minute", "", "", judged_by::value, 3, 3, {wake_ups}, {}});
}

void measure_size(const bench_options& options, bench_results& results) {
    figure size = {"fotad, stripped, armhf", "KiB", "", judged_by::value, 260, 250, {}, {}};
    if (!options.arm_daemon.empty()) {
        size.ours.push_back(static_cast<double>(fs::file_size(options.arm_daemon)) / 1024);
    }
    results.figures.push_back(size);
}

// --------

const struct {
    const char* name;
    void (*measure)(const bench_options& options, bench_results& results);
} GROUPS[] = {{"validate", measure_validation},
              {"memory", measure_memory},
              {"arm", measure_arm},
              {"requests", measure_requests},
              {"start", measure_start},
              {"idle", measure_idle},
              {"size", measure_size}};

void seed() {
    device_seed("");
    fs::create_directories(FOTA_DATA_DIR);
    make_keys();
    // Room for 96 MiB of content, which is encoded twice.
    device_write(FOTA_CONFIG_FILE,
                 "<Config><MaxPkgSizeAllowed>268435456</MaxPkgSizeAllowed>"
                 "<SideloadMaxPkgSizeAllowed>268435456</SideloadMaxPkgSizeAllowed></Config>\n");
    char pass_phrase[64] = {};
    if (pw_cb(pass_phrase, sizeof pass_phrase - 1, 0, nullptr) <= 0)
        throw std::runtime_error("no pass phrase");
    setenv("P", pass_phrase, 1);
}

// False when the chart cannot be written. Where one of its halves was not measured there is none.
bool draw(bench_results& results, const std::string& path) {
    if (results.our_time.points.empty() || results.our_memory.points.empty()) return true;
    for (chart_line* line : {&results.our_time, &results.our_memory}) {
        line->name = "fotad";
        line->color = "#0969da";
    }
    for (chart_line* line : {&results.tools_time, &results.tools_memory}) {
        line->name = "the same by unzip, openssl, md5sum";
        line->color = "#bc4c00";
    }
    const char size[] = "content of the package, MiB";
    return write_chart({{"Validation: time", size, "seconds", {results.our_time, results.tools_time}},
                        {"Validation: peak memory", size, "MiB", {results.our_memory, results.tools_memory}}},
                       path);
}

}  // namespace

int main(int argc, char** argv) {
    bench_options options;
    CLI::App app("Measures the daemon on a simulated hotspot, against the bare work that it does.",
                 "daemon_bench");
    app.add_option("--work", options.work_folder, "Folder on a real disk; the result goes there")
        ->required()
        ->check(CLI::ExistingDirectory);
    app.add_option("--arm-device", options.arm_device, "What scripts/armhf-device makes")
        ->check(CLI::ExistingDirectory);
    app.add_option("--arm-daemon", options.arm_daemon, "Stripped fotad of that device")
        ->check(CLI::ExistingFile);
    app.add_option("--arm-counter", options.arm_counter, "The emulator's plugin that counts instructions")
        ->check(CLI::ExistingFile);
    app.add_option("--rounds", options.rounds, "How often each pair is measured at most")
        ->check(CLI::Range(1, 1000));
    app.add_option("--only", options.only, "One group: validate, memory, arm, requests, start, idle or size");
    CLI11_PARSE(app, argc, argv);

    program_folder = sandbox_program_folder();
    options.work_folder = fs::canonical(options.work_folder);
    for (std::string* path : {&options.arm_device, &options.arm_daemon, &options.arm_counter}) {
        if (!path->empty()) *path = fs::canonical(*path);
    }
    setenv("PATH", (program_folder + ":" + std::getenv("PATH")).c_str(), 1);
    std::vector<std::string> keep = {program_folder};
    if (!options.arm_device.empty()) keep.push_back(options.arm_device);
    sandbox_enter({keep, {options.work_folder}, {}});
    try {
        seed();
        bench_results results;
        for (const auto& group : GROUPS) {
            if (!options.only.empty() && options.only != group.name) continue;
            fprintf(stderr, "bench: %s\n", group.name);
            group.measure(options, results);
        }
        print_figures(results.figures);
        const std::string result = options.work_folder + "/result.json",
                          chart = options.work_folder + "/chart.svg";
        if (write_figures(results.figures, result) && draw(results, chart)) return 0;
        fprintf(stderr, "bench: cannot write %s or %s\n", result.c_str(), chart.c_str());
    } catch (const std::exception& error) {
        fprintf(stderr, "bench: %s\n", error.what());
    }
    return 1;
}
