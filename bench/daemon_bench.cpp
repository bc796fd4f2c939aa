// The real daemon, measured from outside, against the bare work that it does.
#include <CLI/CLI.hpp>
#include <signal.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <thread>

#include "common/state_files.h"
#include "figures.h"
#include "fota/fota_client.h"
#include "history/history_db.h"
#include "package/crypto.h"
#include "queues.h"
#include "tools/play/device.h"
#include "tools/play/sandbox.h"

namespace {

namespace fs = std::filesystem;

constexpr char AGENT[] = "bench";
constexpr char WORK[] = "/opt/bench";
constexpr char KEYS[] = "/opt/bench/keys";
constexpr char BARE_QUEUE[] = "/bench_bare";
constexpr int LONG_MS = 600000;
constexpr int IDLE_SECS = 60;
constexpr int STARTS = 10;
constexpr int QUICK_REQUESTS = 3000;
constexpr int DISK_REQUESTS = 60;
constexpr int BLOCKS = 20;  // of requests, in turns, in a round

struct bench_options {
    int rounds = 7;
    std::string output;
    std::string work_folder;  // on the disk that the history is written to
    std::string arm_daemon;
    std::string only;
};

std::string program_folder;

void sh(const std::string& command) {
    if (system(("set -e; " + command).c_str()) != 0) throw std::runtime_error("this failed: " + command);
}

// A daemon that serves, until the end of the block.
class running_daemon {
public:
    running_daemon() : id_(daemon_launch(program_folder + "/fotad")) {
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

// The work of a validation as a shell does it, with $ZIP as the package.
constexpr char TOOLS[] =
    "exec >>/var/log/debug_log 2>&1; D=/opt/qast/data/fota; E=/opt/qast/etc/fota; "
    "unzip -jo $ZIP pkg_details.zip.enc -d /tmp; "
    "openssl smime -decrypt -in /tmp/pkg_details.zip.enc -inkey $E/device.pem -passin env:P -out $D/sl_temp; "
    "rm /tmp/pkg_details.zip.enc; "
    "openssl smime -verify -in $D/sl_temp -certfile $E/build_cert.pem -noverify -out /tmp/pkg_details.zip; "
    "rm $D/sl_temp; mkdir -p -m 0700 $D/staging; unzip -o /tmp/pkg_details.zip -d $D/staging; "
    "(cd $D/staging; md5sum -c dlpkg_cksum); find $D/staging -depth -exec sync {} +";

std::string make_package(int content_mib) {
    const std::string package = WORK + ("/" + std::to_string(content_mib)) + ".zip";
    const std::string mib_text = std::to_string(content_mib);
    sh("cd /opt/bench; rm -rf content; mkdir content; "
       "head -c $((" +
       mib_text +
       " * 786432)) /dev/urandom >content/rootfs.img; "
       "head -c $((" +
       mib_text +
       " * 262144)) /dev/urandom >content/modem.img; "
       "fotapkg package --content content --keys keys --source 1.0 --target 2.0 --description bench -o " +
       package + " >/dev/null; rm -rf content");
    return package;
}

void clear_session_files() {
    sh("rm -rf /opt/qast/data/fota/* /tmp/pkg_details.zip; : >/var/log/debug_log");
}

double validate_millis() {
    fota_pkg_info info = {};
    strcpy(info.agent_name, AGENT);
    uint32_t record = 0;
    if (fota_client_create_session_lock(AGENT, LONG_MS) != FOTA_RC_SUCCESS)
        throw std::runtime_error("the session is not granted");
    const auto start = bench_clock::now();
    if (fota_client_validate_update_pkg(FOTA_UPGRADE_PKG, &info, &record, LONG_MS) != FOTA_RC_SUCCESS)
        throw std::runtime_error("the package is refused");
    return micros_since(start) / 1000;
}

void measure_validation(const bench_options& options, std::vector<figure>& figures) {
    const struct {
        int content_mib;
        double must, aim;
    } sizes[] = {{1, 0.95, 0.85}, {8, 0.95, 0.60}, {32, 0.95, 0.60}};
    figure after = {"memory 1 s after 32 MiB", "MiB", "", 15, 10, {}, {}};
    for (const auto& size : sizes) {
        const std::string package = make_package(size.content_mib);
        const double package_mib = mib(static_cast<double>(fs::file_size(package)));
        char against[64];
        snprintf(against, sizeof against, "upgrade.zip of %.1f MiB", package_mib);
        const std::string content = std::to_string(size.content_mib) + " MiB";
        figure time = {"validate " + content, "ms", "tools", size.must, size.aim, {}, {}};
        figure peak = {"peak memory, " + content, "MiB", against, 10 + 2.4 * package_mib,
                       8 + 2.3 * package_mib,     {},    {}};
        after.ours.clear();
        for (int round = 0; round < options.rounds; ++round) {
            clear_session_files();
            sh("cp " + package + " " + FOTA_UPGRADE_PKG);
            {
                const running_daemon daemon;
                time.ours.push_back(validate_millis());
                peak.ours.push_back(daemon.status_mib("VmHWM"));
                std::this_thread::sleep_for(std::chrono::seconds(1));
                after.ours.push_back(daemon.status_mib("VmRSS"));
            }
            clear_session_files();
            setenv("ZIP", package.c_str(), 1);
            const auto start = bench_clock::now();
            sh(TOOLS);
            time.theirs.push_back(micros_since(start) / 1000);
        }
        fs::remove(package);
        figures.push_back(time);
        figures.push_back(peak);
    }
    figures.push_back(after);
    clear_session_files();
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
void measure_requests(const bench_options& options, std::vector<figure>& figures) {
    clear_session_files();
    const std::string disk = options.work_folder + "/disk", bare_folder = options.work_folder + "/bare_disk";
    sh("rm -rf " + disk + " " + bare_folder + "; mkdir " + disk + " " + bare_folder);
    if (mount(disk.c_str(), FOTA_DATA_DIR, nullptr, MS_BIND, nullptr) != 0)
        throw std::runtime_error("cannot mount " + disk);
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
        {"event 18, p50", FOTA_MSG_MODIFY_RECORD_BY_ID, DISK_REQUESTS, 0.5, "bare, and a rewrite", 1.6, 1.15},
    };
    std::vector<figure> measured;
    for (const auto& row : rows) measured.push_back({row.name, "us", row.against, row.must, row.aim, {}, {}});
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
    umount(FOTA_DATA_DIR);
    figures.insert(figures.end(), measured.begin(), measured.end());
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
    const pid_t launcher = start_program(program_folder + "/fotad");
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

void measure_start(const bench_options& options, std::vector<figure>& figures) {
    figure start = {"start to first answer", "ms", "program with libcrypto", 3, 2, {}, {}};
    for (int round = 0; round < options.rounds; ++round) {
        std::vector<double> ours, theirs;
        for (int i = 0; i < STARTS; ++i) {
            ours.push_back(start_millis());
            theirs.push_back(end_of_program_millis(program_folder + "/libcrypto_only"));
        }
        start.ours.push_back(median_of(ours));
        start.theirs.push_back(median_of(theirs));
    }
    figures.push_back(start);
}

void measure_idle(const bench_options& options, std::vector<figure>& figures) {
    figure memory = {"memory before any validation", "MiB", "", 12, 8, {}, {}};
    for (int round = 0; round < options.rounds; ++round) {
        memory.ours.push_back(running_daemon().status_mib("VmRSS"));
    }
    figures.push_back(memory);
    const running_daemon daemon;
    const double before = daemon.status("voluntary_ctxt_switches");
    std::this_thread::sleep_for(std::chrono::seconds(IDLE_SECS));
    const double wake_ups = daemon.status("voluntary_ctxt_switches") - before;
    figures.push_back({"wake-ups in an idle minute", "", "", 3, 3, {wake_ups}, {}});
}

void measure_size(const bench_options& options, std::vector<figure>& figures) {
    figure size = {"fotad, stripped, armhf", "KiB", "", 400, 250, {}, {}};
    if (!options.arm_daemon.empty()) {
        size.ours.push_back(static_cast<double>(fs::file_size(options.arm_daemon)) / 1024);
    }
    figures.push_back(size);
}

// --------

const struct {
    const char* name;
    void (*measure)(const bench_options& options, std::vector<figure>& figures);
} GROUPS[] = {{"validate", measure_validation},
              {"requests", measure_requests},
              {"start", measure_start},
              {"idle", measure_idle},
              {"size", measure_size}};

void seed() {
    device_seed("");
    sh("mkdir -p /opt/bench /opt/qast/data/fota; fotapkg keys /opt/bench/keys >/dev/null");
    for (const char* key : {FOTA_DEVICE_KEY, FOTA_BUILD_CERT, FOTA_BUILD_PUBKEY}) {
        fs::copy_file(fs::path(KEYS) / fs::path(key).filename(), key);
    }
    // Room for 32 MiB of content, which is encoded twice.
    device_write(FOTA_CONFIG_FILE,
                 "<Config><MaxPkgSizeAllowed>134217728</MaxPkgSizeAllowed>"
                 "<SideloadMaxPkgSizeAllowed>134217728</SideloadMaxPkgSizeAllowed></Config>\n");
    char pass_phrase[64] = {};
    if (pw_cb(pass_phrase, sizeof pass_phrase - 1, 0, nullptr) <= 0)
        throw std::runtime_error("no pass phrase");
    setenv("P", pass_phrase, 1);
}

}  // namespace

int main(int argc, char** argv) {
    bench_options options;
    CLI::App app("Measures the daemon on a simulated hotspot, against the bare work that it does.",
                 "daemon_bench");
    app.add_option("--work", options.work_folder, "Folder on a real disk; the result goes there")
        ->required()
        ->check(CLI::ExistingDirectory);
    app.add_option("--arm-daemon", options.arm_daemon, "Stripped fotad for the device's processor")
        ->check(CLI::ExistingFile);
    app.add_option("--rounds", options.rounds, "How often each pair is measured")->check(CLI::Range(1, 1000));
    app.add_option("--only", options.only, "One group: validate, requests, start, idle or size");
    CLI11_PARSE(app, argc, argv);

    program_folder = sandbox_program_folder();
    options.work_folder = fs::canonical(options.work_folder);
    if (!options.arm_daemon.empty()) options.arm_daemon = fs::canonical(options.arm_daemon);
    setenv("PATH", (program_folder + ":" + std::getenv("PATH")).c_str(), 1);
    sandbox_enter({{program_folder}, {options.work_folder}});
    try {
        seed();
        std::vector<figure> figures;
        for (const auto& group : GROUPS) {
            if (!options.only.empty() && options.only != group.name) continue;
            fprintf(stderr, "bench: %s\n", group.name);
            group.measure(options, figures);
        }
        print_figures(figures);
        const std::string result = options.work_folder + "/result.json";
        if (write_figures(figures, result)) return 0;
        fprintf(stderr, "bench: cannot write %s\n", result.c_str());
    } catch (const std::exception& error) {
        fprintf(stderr, "bench: %s\n", error.what());
    }
    return 1;
}
