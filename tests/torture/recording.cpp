#include "torture/recording.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <set>

#include "common/state_files.h"
#include "fota/fota_client.h"
#include "tools/play/device.h"
#include "tools/play/sandbox.h"

namespace {

struct noting {
    recording& notes;
    size_t failing_sync;
    tree_recorder recorder{};
    bool result_left = false;
    std::string last_change{};

    int look(const stopped_call& call) {
        notes.calls.push_back(call);
        if (!call.is_sync && (call.meets & MEETS_CUT) == 0) return RUNS;
        if (is_on_device(call)) add_point(call.name + (" " + call.path));
        if (!call.is_sync) {
            recorder.will_change(call.path);
            if (!call.path.empty()) last_change = call.path;
            return RUNS;
        }
        const bool fails = notes.syncs.size() + 1 == failing_sync;
        if (!fails) call.fd < 0 ? recorder.sync_all() : recorder.sync(call.fd);
        notes.syncs.push_back(
            {recorder.events.size() - 1, call.path + " after " + last_change, site_of(call)});
        return fails ? EIO : RUNS;
    }

    void add_point(const std::string& where) {
        recorder.look();
        notes.points.push_back({recorder.events.size(), shared_notes().told, result_left, where});
    }

    traced_end boot(const std::function<void()>& client) {
        recorder.look();
        recorder.sync_all();
        const traced_end end = run_traced(daemon_program(sandbox_program_folder()), client,
                                          [this](const stopped_call& call) { return look(call); });
        add_point("the end");
        return end;
    }
};

}  // namespace

client_notes& shared_notes() {
    static auto* const notes = static_cast<client_notes*>(
        mmap(nullptr, sizeof(client_notes), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    return *notes;
}

std::vector<call_site> sync_sites(const recording& run) {
    std::set<call_site> sites;
    for (const sync_call& sync : run.syncs) sites.insert(sync.site);
    return {sites.begin(), sites.end()};
}

bool is_on_device(const stopped_call& call) {
    const auto in = [&call](const char* folder) { return call.path.starts_with(folder); };
    return call.path.empty() || in("/opt/") || in("/tmp/") || in(FOTA_SIDELOAD_TMP_DIR);
}

recording record_path(const update_path& path, size_t failing_sync) {
    recording notes;
    noting look{notes, failing_sync};
    client_notes& client = shared_notes();
    client = {};
    set_up(path);
    for (const boot& one : path.boots) {
        if (one.before != nullptr) leave_normal_operation(*one.before);
        look.result_left |= has_result();
        const traced_end end = look.boot([&] { run_client(path, one, client); });
        require(end == traced_end::STOPPED, "the daemon ends by itself");
        require(failing_sync != 0 || client.last_answer == FOTA_RC_SUCCESS,
                "the update fails without a fault: " + std::to_string(client.last_answer));
    }
    notes.events = std::move(look.recorder.events);
    return notes;
}

recording record_restart() {
    recording notes;
    noting look{notes, 0};
    int32_t ignored = 0;
    const traced_end end = look.boot([&] {
        while (fota_client_get_upgrade_status(&ignored, DEVICE_TIMEOUT_MS) < 0) usleep(1000);
    });
    require(end == traced_end::STOPPED, "the daemon ends by itself");
    notes.events = std::move(look.recorder.events);
    return notes;
}
