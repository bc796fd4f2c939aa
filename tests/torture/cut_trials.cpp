#include <algorithm>
#include <cstring>
#include <set>

#include "common/state_files.h"
#include "support/device_files.h"
#include "tools/play/device.h"
#include "torture/trials.h"

namespace {

constexpr size_t STATES = 1600;        // at most, of one point
constexpr size_t STATES_AGAIN = 12;    // of one point of a restart after a cut
constexpr size_t STATES_CHANGED = 8;   // of one point of a run that was changed
constexpr uint64_t WHOLE_UPDATE = 32;  // of the states, one in as many is followed by a whole update
constexpr uint64_t THIRD_CUT = 16;     // of the states after a second cut, one in as many is cut again

uint64_t hash_of(const update_path& path, const cut_point& at, const tree& files) {
    uint64_t told = at.told.validated_id * 1000 + at.told.status + (at.told.processed ? 1 << 30 : 0) +
                    (at.told.ready ? 1 << 29 : 0) + (at.told.handed_out ? 1 << 28 : 0);
    for (const char* c = path.name; *c != '\0'; ++c) told = told * 31 + static_cast<unsigned char>(*c);
    return hash_of(files) ^ (told * 0x9e3779b97f4a7c15 + (at.result_left ? 1 : 0));
}

void check_state(ended_update ended, const cut_point& at, const tree& files, uint64_t hash,
                 device_notes& notes) {
    put_tree(files);
    device_reboot();
    ended.result_left = at.result_left;
    check_device(ended, at.told, fork_daemon, hash % WHOLE_UPDATE == 0 ? GOOD_PACKAGE : nullptr, notes);
}

// The model at each point of a run, in which some of the events do not happen.
void at_each_point(const recording& run, const std::set<size_t>& without,
                   const std::function<bool(const cut_point& at, cut_model& model)>& use) {
    cut_model model;
    size_t event = 0;
    for (const cut_point& at : run.points) {
        for (; event < at.events; ++event) {
            if (!without.contains(event)) model.live_through(run.events[event]);
        }
        if (!use(at, model)) return;
    }
}
const std::set<size_t> NONE = {};

void try_states(const update_path& path, const cut_point& at, cut_model& model, size_t limit, size_t cuts,
                trial_counts& counts,
                const std::function<void(uint64_t hash, const tree& files)>& then = {}) {
    ended_update ended = path.facts;
    ended.cuts = cuts;
    model.for_each(limit, [&](size_t number, const tree& files) {
        const uint64_t hash = hash_of(path, at, files);
        if (!is_new_state(hash)) return;
        counts.try_one("state " + std::to_string(number) + " before " + at.where,
                       [&](device_notes& notes) { check_state(ended, at, files, hash, notes); });
        if (then) then(hash, files);
    });
}

// Each state that a cut at the point can leave.
void try_cut(const update_path& path, const recording& run, size_t point, trial_counts& counts) {
    size_t number = 0;
    at_each_point(run, NONE, [&](const cut_point& at, cut_model& model) {
        if (number++ < point) return true;
        try_states(path, at, model, STATES, 1, counts);
        return false;
    });
}

// The start on `files` is cut, at each of its points.
void cut_restart(const update_path& path, const cut_point& at, const tree& files, size_t cuts,
                 trial_counts& counts) {
    recording restart;
    trial_counts starts;
    bool stays_ready = false;  // what a start takes away by itself is promised no more
    starts.try_one(at.where, [&](device_notes&) {
        put_tree(files);
        device_reboot();
        restart = record_restart();
        stays_ready = exists(FOTA_STAGING_UPDATE_DLPKG_VERIFIED);
    });
    std::ranges::copy(starts.complaints, std::back_inserter(counts.complaints));
    at_each_point(restart, NONE, [&](const cut_point& second, cut_model& model) {
        cut_point both = at;
        both.where = second.where + " of the start after " + at.where;
        both.told.ready &= stays_ready;
        try_states(path, both, model, STATES_AGAIN, cuts, counts, [&](uint64_t hash, const tree& left) {
            if (cuts == 2 && hash % THIRD_CUT == 0) cut_restart(path, both, left, 3, counts);
        });
        return true;
    });
}

void try_cut_again(const update_path& path, const recording& run, size_t point, trial_counts& counts) {
    size_t number = 0;
    at_each_point(run, NONE, [&](const cut_point& at, cut_model& model) {
        if (number++ < point) return true;
        const tree files = model.synced();
        if (is_new_state(~hash_of(path, at, files))) cut_restart(path, at, files, 2, counts);
        return false;
    });
}

// The syncs of one place in the program do nothing.
void try_without_sync(const update_path& path, const recording& run, size_t point, trial_counts& counts) {
    std::set<uint64_t> usual;
    at_each_point(run, NONE, [&](const cut_point& at, cut_model& model) {
        model.for_each(STATES_CHANGED,
                       [&](size_t, const tree& files) { usual.insert(hash_of(path, at, files)); });
        return true;
    });
    const call_site site = sync_sites(run)[point];
    std::set<size_t> without;
    for (const sync_call& sync : run.syncs) {
        if (sync.site == site) without.insert(sync.event);
    }
    trial_counts changed;
    at_each_point(run, without, [&](const cut_point& at, cut_model& model) {
        model.for_each(STATES_CHANGED, [&](size_t, const tree& files) {
            const uint64_t hash = hash_of(path, at, files);
            if (!changed.complaints.empty() || !usual.insert(hash).second) return;
            changed.try_one("before " + at.where, [&](device_notes& notes) {
                check_state(path.facts, at, files, 1, notes);
                require(!notes.recorded_twice, "recorded a second time");
            });
        });
        return changed.complaints.empty();
    });
    counts.syncs[site] = changed.complaints.empty() ? "" : changed.complaints[0];
}

// What is left when files go in the other order than they do: the checks have to notice. Done to the first
// state in which the file that decides is there.
struct wrong_order {
    const char* decides;
    const char* gone;  // before it should
};
const wrong_order WRONG_ORDERS[] = {
    {FOTA_STAGING_UPDATE_SUCCESS, FOTA_STAGING_UPDATE_SUCCESS},  // before the outcome is recorded
    {FOTA_STAGING_UPDATE_FAILURE, FOTA_STAGING_UPDATE_FAILURE},
    {FOTA_REVERT_MARKER, FOTA_REVERT_MARKER},
    {FOTA_STAGING_UPDATE_DLPKG_VERIFIED, "/opt/qast/data/fota/staging/a"},  // before the flag
};

void try_wrong_order(const update_path& path, const recording& run, size_t point, trial_counts& counts) {
    const wrong_order& order = WRONG_ORDERS[point];
    at_each_point(run, NONE, [&](const cut_point& at, cut_model& model) {
        tree files = model.synced();
        if (!files.contains(order.decides)) return true;
        if (files.erase(order.gone) == 0) return false;  // no package of this path has it
        counts.try_one(std::string("without ") + order.gone + " before " + at.where, [&](device_notes&) {
            trial_counts changed;
            changed.try_one("", [&](device_notes& notes) { check_state(path.facts, at, files, 1, notes); });
            // A full image without a result is waited for, which shows as well.
            require(!changed.complaints.empty() || changed.outcome_lost + changed.waited_for_installer > 0,
                    "nobody notices");
        });
        return false;
    });
}

// The sync fails; then the power goes.
void try_failing_sync(const update_path& path, const recording&, size_t point, trial_counts& counts) {
    recording run;
    counts.try_one("its end", [&](device_notes&) { run = record_path(path, point + 1); });
    ended_update ended = path.facts;
    ended.call_failed = true;
    const std::string where = point < run.syncs.size() ? run.syncs[point].where : "";
    const bool is_of_package = where.starts_with(FOTA_STAGING_DIR);
    const bool is_of_folder =
        where.starts_with(FOTA_DATA_DIR + std::string(" ")) || where.starts_with("/opt/qast/data ");
    at_each_point(run, NONE, [&](const cut_point& at, cut_model& model) {
        if (run.syncs.size() <= point || at.events <= run.syncs[point].event) return true;
        model.for_each(STATES_CHANGED, [&](size_t number, const tree& files) {
            const uint64_t hash = hash_of(path, at, files);
            if (!is_new_state(hash + 1)) return;
            counts.try_one("state " + std::to_string(number) + " before " + at.where + "; the sync of " +
                               where + " had failed",
                           [&](device_notes& notes) {
                               try {
                                   check_state(ended, at, files, 1, notes);
                               } catch (const wrong&) {
                                   if (!is_of_package && !is_of_folder) throw;
                                   ++(is_of_package ? counts.package_torn : counts.change_lost);
                                   ended_update torn = ended;
                                   cut_point lost = at;
                                   if (is_of_package) torn.content = package_content::NOT_VALIDATED;
                                   if (is_of_folder) lost.told = {};
                                   torn.lock_lost = where.ends_with(FOTA_SESSION_LOCK);
                                   check_state(torn, lost, files, 1, notes);
                               }
                           });
        });
        return true;
    });
}

size_t points_of(const update_path&, const recording& run) {
    return run.points.size();
}

size_t syncs_of(const update_path&, const recording& run) {
    return run.syncs.size();
}

size_t sites_of(const update_path&, const recording& run) {
    return sync_sites(run).size();
}

}  // namespace

std::vector<trial_kind> cut_trials() {
    return {{"states", "what a cut can leave", 80, points_of, try_cut},
            {"again", "what a cut of the next start can leave", 100, points_of, try_cut_again},
            {"syncs", "places in the program whose syncs do nothing, and which that brings to light", 4,
             sites_of, try_without_sync},
            {"order", "files that go in another order than they do, which has to show", 1,
             [](const update_path&, const recording&) { return std::size(WRONG_ORDERS); }, try_wrong_order},
            {"badsync", "a sync fails, then the power goes", 80, syncs_of, try_failing_sync}};
}
