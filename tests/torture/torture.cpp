// Updates by every path, broken in every way at every point: torture [--quick | --only PATH, KIND or
// PATH:KIND[:POINT]]. After each, the device has to be as it should be.
#include <malloc.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>
#include <string_view>
#include <thread>

#include "support/device_files.h"
#include "tools/play/device.h"
#include "tools/play/sandbox.h"
#include "torture/trials.h"

namespace {

// What is known not to hold. Whatever comes about no more is to be taken off this list.
struct known_hole {
    const char* name;
    const char* why;
    int trial_counts::*count;
};
constexpr known_hole HOLES[] = {
    {"recorded a second time", "ended between recording and clearing up", &trial_counts::recorded_twice},
    {"outcome not recorded", "the call that failed was to record it", &trial_counts::outcome_lost},
    {"waited for the installer", "ended while a full image was installed",
     &trial_counts::waited_for_installer},
    {"torn package is ready", "a sync in its folder had failed, then the power went",
     &trial_counts::package_torn},
    {"change is lost", "the sync of its folder had failed, then the power went", &trial_counts::change_lost},
};

struct known_sync {
    const char* place;
    const char* why;
};

// Syncs that nothing is known to need but the rule that every change is durable at once.
constexpr known_sync SPARE_SYNCS[] = {
    {"sync_directory < fota_sync_and_close",
     "a flag's own folder is synced too, or the next change syncs this one"},
    {"fota_sync_and_close < create_in_place", "of an empty file; for file systems without unnamed files"},
    {"fota_handle_event_message < serve", "of all that the user's other programs have written"},
};

struct job {
    size_t path;
    size_t kind;
    size_t point;
};

constexpr size_t CELLS = 200;
constexpr int LOOKS_IN_A_LOG = 60;  // of two a second, where lines stay

struct shared_site {
    std::atomic<uint64_t> site;  // 0: none
    std::atomic<int> paths, caught;
    char by[200];
};

// In memory that all workers share.
struct shared_counts {
    std::atomic<size_t> jobs, done;
    shared_site sites[64];
    std::atomic<int> tried[CELLS], survived[CELLS], holes[std::size(HOLES)];
};

const std::vector<trial_kind>& kinds() {
    static const std::vector<trial_kind> all = [] {
        std::vector<trial_kind> list;
        for (const auto& more : {fault_trials(), cut_trials(), rot_trials(), thread_trials()})
            list.insert(list.end(), more.begin(), more.end());
        return list;
    }();
    return all;
}

std::string name_of(const job& one) {
    return std::string(update_paths()[one.path].name) + ":" + kinds()[one.kind].name + ":" +
           std::to_string(one.point);
}

// In an order by chance, the same for every worker, so that what is done tells how long the rest takes.
std::map<size_t, job> list_jobs(const std::vector<recording>& runs, const std::string& only, bool quick) {
    std::map<size_t, job> jobs;
    for (size_t path = 0; path < runs.size(); ++path) {
        for (size_t kind = 0; kind < kinds().size(); ++kind) {
            const size_t points = kinds()[kind].points(update_paths()[path], runs[path]);
            const size_t step = quick ? kinds()[kind].quick : 1;
            for (size_t point = (path + kind) % step; point < points; point += step) {
                const std::string name = name_of({path, kind, point});
                if ((":" + name + ":").find(only) != std::string::npos)
                    jobs[std::hash<std::string>()(name)] = {path, kind, point};
            }
        }
    }
    return jobs;
}

void note_sync(shared_counts& counts, const call_site& site, const std::string& by) {
    const uint64_t key = uint64_t{site.caller} << 32 | site.callers_caller;
    for (shared_site& entry : counts.sites) {
        uint64_t there = 0;
        if (!entry.site.compare_exchange_strong(there, key) && there != key) continue;
        ++entry.paths;
        if (!by.empty() && entry.caught++ == 0) by.copy(entry.by, sizeof entry.by - 1);
        return;
    }
}

void work(shared_counts& counts, const std::string& only, bool quick) {
    sandbox_options options;
    options.keep = {sandbox_program_folder(), FOTA_TEST_KEYS};
    sandbox_enter(options);
    make_packages();
    mallopt(M_TRIM_THRESHOLD, 1 << 28);  // histories come and go
    mallopt(M_MMAP_THRESHOLD, 1 << 28);
    std::vector<recording> runs;
    for (const update_path& path : update_paths()) runs.push_back(record_path(path));
    const std::map<size_t, job> jobs = list_jobs(runs, only, quick);
    counts.jobs = jobs.size();
    for (const auto& [hash, one] : jobs) {
        if (!is_new_state(hash)) continue;  // another worker's
        trial_counts of_job;
        kinds()[one.kind].run(update_paths()[one.path], runs[one.path], one.point, of_job);
        const size_t cell = one.path * kinds().size() + one.kind;
        counts.tried[cell] += of_job.tried;
        counts.survived[cell] += of_job.survived;
        for (size_t hole = 0; hole < std::size(HOLES); ++hole)
            counts.holes[hole] += of_job.*HOLES[hole].count;
        for (const auto& [site, by] : of_job.syncs) note_sync(counts, site, by);
        // A fault shows in many states of a point.
        for (size_t i = 0; i < std::min<size_t>(3, of_job.complaints.size()); ++i)
            std::printf("\n%s\n", of_job.complaints[i].c_str());
        if (!of_job.complaints.empty())
            std::printf("  %zu in all; again: torture --only %s\n", of_job.complaints.size(),
                        name_of(one).c_str());
        if (jobs.size() == 1) std::printf("%s\n", get_file(DEVICE_DEBUG_LOG).c_str());
        std::fflush(stdout);
        ++counts.done;
    }
}

// Shows how far the work is, until all of it is done.
bool wait_for_workers(const shared_counts& counts, size_t workers) {
    const auto begin = std::chrono::steady_clock::now();
    const bool is_terminal = isatty(STDERR_FILENO) != 0;
    int looks = 0;
    bool all_worked = true;
    for (int status = 0; workers > 0;) {
        const pid_t ended = waitpid(-1, &status, WNOHANG);
        if (ended > 0) {
            --workers;
            all_worked &= WIFEXITED(status) && WEXITSTATUS(status) == 0;
            if (status != 0)
                std::fprintf(stderr, "torture: a worker ended with status %#x\n",
                             static_cast<unsigned>(status));
            continue;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        const auto secs =
            std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - begin);
        const size_t done = counts.done, jobs = counts.jobs;
        if (done == 0 || (!is_terminal && ++looks % LOOKS_IN_A_LOG != 0)) continue;
        const auto left = static_cast<size_t>(secs.count()) * (jobs - std::min(jobs, done)) / done;
        std::fprintf(stderr, "%storture: %zu of %zu points, %zu:%02zu left%s", is_terminal ? "\r" : "", done,
                     jobs, left / 60, left % 60, is_terminal ? "  " : "\n");
    }
    std::fputc('\n', stderr);
    return all_worked;
}

// Where in the program a sync is: the function that has it, and the one that calls that.
std::string name_of_site(const shared_site& entry) {
    const std::string program = daemon_program(sandbox_program_folder());
    char command[512];
    std::snprintf(command, sizeof command, "addr2line -fsC -e %s %#zx %#zx", program.c_str(),
                  entry.site >> 32, entry.site & UINT32_MAX);
    FILE* const names = popen(command, "re");
    std::string text;
    char line[512];
    for (int number = 0; names != nullptr && std::fgets(line, sizeof line, names) != nullptr; ++number) {
        if (number % 2 != 0) continue;  // file and line of the function before
        constexpr std::string_view PREFIX = "(anonymous namespace)::";
        const char* const name = line + (std::string_view(line).starts_with(PREFIX) ? PREFIX.size() : 0);
        text += (number == 0 ? "" : " < ") + std::string(name, std::strcspn(name, "(\n"));
    }
    if (names != nullptr) pclose(names);
    return text;
}

bool print_syncs(const shared_counts& counts, bool everything) {
    bool all_caught = true;
    for (const shared_site& entry : counts.sites) {
        if (entry.site == 0) break;
        const std::string name = name_of_site(entry);
        const auto* const spare = std::ranges::find_if(
            SPARE_SYNCS, [&](const known_sync& one) { return name.find(one.place) != std::string::npos; });
        const bool is_spare = spare != std::end(SPARE_SYNCS);
        const char* why = entry.caught > 0 ? entry.by : is_spare ? spare->why : "nothing falls without it";
        std::printf("  sync %-48s %d of %d paths: %s\n", name.c_str(), entry.caught.load(),
                    entry.paths.load(), why);
        all_caught &= entry.caught > 0 ? !is_spare : is_spare || !everything;
    }
    return all_caught;
}

int print_table(const shared_counts& counts, bool everything) {
    const size_t width = kinds().size();
    std::vector<int> of_kind(width);
    for (size_t cell = 0; cell < update_paths().size() * width; ++cell)
        of_kind[cell % width] += counts.tried[cell];
    int tried = 0, survived = 0, result = 0;
    std::printf("\n%-11s", "survived");
    for (size_t kind = 0; kind < width; ++kind) {
        if (of_kind[kind] > 0) std::printf("%13s", kinds()[kind].name);
    }
    for (size_t cell = 0; cell < update_paths().size() * width; ++cell) {
        if (cell % width == 0) std::printf("\n%-11s", update_paths()[cell / width].name);
        const std::string text =
            std::to_string(counts.survived[cell]) + "/" + std::to_string(counts.tried[cell]);
        if (of_kind[cell % width] > 0) std::printf("%13s", counts.tried[cell] == 0 ? "-" : text.c_str());
        tried += counts.tried[cell];
        survived += counts.survived[cell];
    }
    std::printf("\n\ntorture: %d of %d survived\n", survived, tried);
    for (size_t hole = 0; hole < std::size(HOLES); ++hole) {
        std::printf("  %-26s %6d   %s\n", HOLES[hole].name, counts.holes[hole].load(), HOLES[hole].why);
        if (!everything || counts.holes[hole] > 0) continue;
        std::printf("torture: that comes about no more: take it off the list of holes\n");
        result = 1;
    }
    if (!print_syncs(counts, everything)) result = 1;
    return survived == tried ? result : 1;
}

}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    const bool quick = arguments.size() == 1 && arguments[0] == "--quick";
    const std::string only =
        arguments.size() == 2 && arguments[0] == "--only" ? ":" + arguments[1] + ":" : "";
    if (!arguments.empty() && !quick && only.empty()) {
        std::fprintf(
            stderr,
            "usage: torture [--quick | --only PATH, KIND or PATH:KIND[:POINT]], such as ota:cut:17\n");
        for (const trial_kind& kind : kinds()) std::fprintf(stderr, "  %-8s  %s\n", kind.name, kind.meaning);
        return 2;
    }
    auto* const counts =
        new (mmap(nullptr, sizeof(shared_counts), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))
            shared_counts();
    const size_t workers = std::max(1u, std::thread::hardware_concurrency());
    for (size_t worker = 0; worker < workers; ++worker) {
        if (fork() != 0) continue;
        try {
            work(*counts, only, quick);
        } catch (const std::exception& error) {
            std::fprintf(stderr, "torture: %s\n", error.what());
            _exit(1);
        }
        _exit(0);
    }
    const bool all_worked = wait_for_workers(*counts, workers);
    const int result = print_table(*counts, arguments.empty());
    if (counts->jobs == 0) std::fprintf(stderr, "torture: no such point\n");
    if (!all_worked) std::fprintf(stderr, "torture: a worker came to an end before its work was done\n");
    return all_worked && counts->jobs > 0 ? result : 1;
}
