#include <algorithm>
#include <cstring>
#include <random>

#include "common/state_files.h"
#include "fota/fota_client.h"
#include "support/device_files.h"
#include "tools/play/agents.h"
#include "tools/play/device.h"
#include "torture/trials.h"

namespace {

constexpr int TIMEOUT_MS = 10000;
constexpr size_t RANDOM_CONTENTS = 24;
constexpr size_t FLIPPED_BYTES = 400;  // of one file, at most
constexpr size_t RECORD = sizeof(fota_history_rec);

struct state_file {
    const cut_point* at;
    tree files;
    std::string path;
};

// Those of the daemon, in the middle of an update, before the installation, and when there is a result of it.
// What a validated package brought nobody reads again but the installer.
std::vector<state_file> state_files(const update_path& path, const recording& run) {
    const auto result = std::ranges::find(run.points, true, &cut_point::result_left);
    const std::array bases = {run.points.begin() + std::distance(run.points.begin(), result) / 2,
                              result == run.points.begin() ? result : result - 1,
                              result == run.points.end() ? result - 1 : result};
    std::vector<state_file> all;
    for (const auto& base : bases) {
        cut_model model;
        std::for_each_n(run.events.begin(), base->events,
                        [&](const tree_event& e) { model.live_through(e); });
        const tree files = model.synced();
        for (const auto& [name, entry] : files) {
            const auto is_it = [&name = name](const package_file& file) {
                return name.ends_with("staging/" + file.name);
            };
            if (!entry.content || !name.starts_with("/opt/qast/data/fota/") || name == FOTA_UPGRADE_PKG)
                continue;
            if (std::ranges::none_of(path.facts.files, is_it)) all.push_back({&*base, files, name});
        }
    }
    return all;
}

std::vector<std::string> rotten(const std::string& bytes) {
    std::vector<std::string> all;
    std::mt19937 random(static_cast<unsigned>(bytes.size()));
    const size_t used = std::min(bytes.size(), 5 * RECORD);  // of a history
    const size_t step = 1 + used / FLIPPED_BYTES;
    for (size_t at = 0; at < used; at += step) {
        for (unsigned bit = 0; bit < 8; bit += bytes.size() < 64 ? 1 : 8) {
            all.push_back(bytes);
            all.back()[at] =
                static_cast<char>(all.back()[at] ^ (1u << (bytes.size() < 64 ? bit : random() % 8)));
        }
    }
    for (size_t length = 0; length < used; length += step) all.push_back(bytes.substr(0, length));
    for (size_t i = 0; i < RANDOM_CONTENTS; ++i) {
        std::string content = bytes;
        const size_t from = bytes.size() >= RECORD ? random() % 4 * RECORD : 0;  // one record, or all
        content.resize(std::max(content.size(), from + random() % 300));
        const size_t length = bytes.size() >= RECORD ? RECORD : content.size();
        std::generate_n(content.begin() + static_cast<long>(from), length,
                        [&] { return static_cast<char>(random()); });
        all.push_back(content);
    }
    return all;
}

// The records of an earlier life that have not rotted are as they were.
void check_records(const std::string& before, const std::string& rotten) {
    const std::string now = get_file(FOTA_HISTORY_DB);
    for (size_t at = 0; at < 3 * RECORD && at + RECORD <= std::min(before.size(), rotten.size());
         at += RECORD) {
        const std::string record = before.substr(at, RECORD);
        if (record[0] == 0 || rotten.compare(at, RECORD, record) != 0) continue;
        require(now.find(record) != std::string::npos, "a record that has not rotted is lost");
    }
}

void check_rotten(const ended_update& ended, const state_file& file, const std::string& bytes) {
    tree files = file.files;
    files[file.path].content = make_content(bytes);
    put_tree(files);
    device_reboot();
    pid_t daemon = fork_daemon();
    if (exists(FOTA_STAGING_UPDATE_PRE_FULL_FOTA_INSTALL)) {
        end_daemon(daemon);
        put_file(FOTA_STAGING_UPDATE_FAILURE, "409");
        daemon = fork_daemon();
    }
    check_staging(ended);
    if (!ended.fresh && file.files.contains(FOTA_HISTORY_DB)) {
        const std::string& before = file.files.at(FOTA_HISTORY_DB).content->bytes;
        check_records(before, file.path == FOTA_HISTORY_DB ? bytes : before);
    }
    if (exists(FOTA_SESSION_LOCK)) {
        const std::string text = get_file(FOTA_SESSION_LOCK);
        const std::string owner = text.substr(0, std::min(text.find('\0'), text.find('\n') + 1));
        if (fota_client_clear_session_lock(owner.c_str(), TIMEOUT_MS) != FOTA_RC_SUCCESS)
            require(fota_client_file_remove(FOTA_SESSION_LOCK, TIMEOUT_MS) == FOTA_RC_SUCCESS,
                    "the session cannot be ended");
    }
    update_session next = {.agent = "next", .timeout_ms = TIMEOUT_MS};
    fota_record_count count = {};
    require(fota_client_get_record_count(&count, TIMEOUT_MS) >= 0, "the history is not served");
    require(agent_lock(next) == FOTA_RC_SUCCESS, "there is no next session");
    require(fota_client_clear_session_lock("next", TIMEOUT_MS) == FOTA_RC_SUCCESS,
            "the next session does not end");
    end_daemon(daemon);
}

}  // namespace

std::vector<trial_kind> rot_trials() {
    const auto points = [](const update_path& path, const recording& run) {
        return state_files(path, run).size();
    };
    const auto run = [](const update_path& path, const recording& whole, size_t point, trial_counts& counts) {
        const state_file file = state_files(path, whole)[point];
        for (const std::string& bytes : rotten(file.files.at(file.path).content->bytes)) {
            tree files = file.files;
            files[file.path].content = make_content(bytes);
            if (!is_new_state(hash_of(files) * 5)) continue;
            counts.try_one(file.path + " as '" + bytes.substr(0, 40) + "' before " + file.at->where,
                           [&](device_notes&) { check_rotten(path.facts, file, bytes); });
        }
    };
    return {{"rot", "a state file holds something else", 80, points, run}};
}
