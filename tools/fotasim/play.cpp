#include "play.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "common/state_files.h"
#include "mishaps.h"
#include "steps.h"
#include "tools/common/output.h"
#include "tools/play/device.h"

namespace {

const play_path& find_path(const std::string& name) {
    for (const play_path& path : all_paths()) {
        if (name == path.name) return path;
    }
    throw std::runtime_error("unknown path " + name);
}

void print_details(const std::vector<std::string>& lines) {
    for (const std::string& line : lines) std::printf("    %s\n", line.c_str());
}

// What `act` answers is the line of the step.
template <typename Act>
void run_step(const char* name, player& p, Act act) {
    const auto start = std::chrono::steady_clock::now();
    const auto print = [&](const std::string& answer) {
        const std::chrono::duration<double, std::milli> passed = std::chrono::steady_clock::now() - start;
        std::printf("%-22s %-82s %9.1f ms\n", name, answer.c_str(), passed.count());
        print_details(p.details);
        std::fflush(stdout);
    };
    p.details.clear();
    try {
        if (const std::string answer = act(); !answer.empty()) print(answer);
    } catch (const std::exception& error) {
        print(std::string("UNEXPECTED: ") + error.what());
        throw;
    }
}

std::string seed_device(player& p) {
    p.kept = device_boot(p.options.keys_folder);
    if (p.options.no_state_manager) std::filesystem::remove_all(DEVICE_DSM_FOLDER);
    return p.kept ? "" : "firmware " + device_read_line(FOTA_OS_VERSION);
}

std::string boot_device(player& p) {
    if (!p.kept) return "";
    p.log_begin = device_read(DEVICE_DEBUG_LOG).size();
    const std::vector<fota_history_rec> history = device_history();
    for (const fota_history_rec& record : history) p.newest_known = std::max(p.newest_known, record.rec_id);
    return "as it was left: firmware " + escaped(device_read_line(FOTA_OS_VERSION)) +
           ", records: " + std::to_string(history.size());
}

// Without an outcome that was handed out, the newest record that this update made.
const fota_history_rec& find_outcome(const player& p) {
    const uint32_t rec_id = p.session.outcome.rec_id != 0 ? p.session.outcome.rec_id : p.session.rec_id;
    const fota_history_rec* found = nullptr;
    for (const fota_history_rec& record : p.history) {
        if (rec_id != 0 ? record.rec_id == rec_id
                        : record.rec_id > (found != nullptr ? found->rec_id : p.newest_known)) {
            found = &record;
        }
    }
    if (found == nullptr) throw unexpected("the history does not hold the record of this update");
    return *found;
}

void require_announced(const player& p, const fota_history_rec& stored) {
    const fota_history_rec announced =
        announced_record(p.options.installer.revert_code ? "fota.revert_status" : "fota.update_status");
    if (std::memcmp(&stored, &announced, sizeof stored) != 0 ||
        std::memcmp(&stored, &p.session.outcome, sizeof stored) != 0) {
        throw unexpected("the record stored, the one announced and the one handed out differ");
    }
}

// The reason of a success that had these failures of configurations on the way.
std::string success_reason(const installer_outcome& outcome) {
    return std::string("FW Upgrade success") +
           (outcome.modem_pri == configuration::FAILED ? std::string(";") + PRI_MODEM_TEXT : "") +
           (outcome.linux_pri == configuration::FAILED ? std::string(";") + PRI_LINUX_TEXT : "");
}

// Holds what the daemon recorded, announced and handed out against what was played.
play_outcome judge(const player& p, const fota_history_rec& stored) {
    const auto require = [](bool as_played, const char* what) {
        if (!as_played) throw unexpected(what);
    };
    const std::string_view reason = field_text(stored.reason);
    require(stored.status == p.options.expected_status.value_or(stored.status), "not the expected status");
    if (p.options.installer.revert_code && p.session.outcome.rec_id != 0) {
        require_announced(p, stored);
        require(stored.rec_type == FOTA_REC_REVERT && stored.status == *p.options.installer.revert_code,
                "not the revert that took place");
        return PLAY_REVERTED;
    }
    require(stored.rec_type == FOTA_REC_UPDATE && field_text(stored.pkg_info.agent_name) == p.session.agent &&
                field_text(stored.pkg_info.update_method) == p.path.method,
            "not a record of this agent and path");
    if (p.refused_status != 0) {
        require(stored.status == p.refused_status, "not the refusal that took place");
        return PLAY_REFUSED;
    }
    if (p.reset) {
        require(stored.status == FOTA_STATUS_UNDEFINED_ERROR && reason == "Factory reset",
                "not the factory reset that took place");
        return PLAY_RESET;
    }
    if (p.unrecorded) {
        require(stored.status == FOTA_STATUS_PENDING, "recorded without room for it");
        return PLAY_UNRECORDED;
    }
    require_announced(p, stored);
    require(stored.rec_id == p.session.rec_id || p.session.rec_id == 0, "not the record of the validation");
    require(field_text(stored.pkg_info.pkg_ver) == p.target, "not the version that was installed");
    const bool success =
        stored.status == FOTA_STATUS_SUCCESS && reason == success_reason(p.options.installer);
    require(success != p.options.installer.code.has_value(), "not what the installer reported");
    if (!success) return PLAY_FAILED;
    const auto pri_result = [](configuration became) {
        return became == configuration::FAILED ? FOTA_STATUS_UPDATE_FAILED : FOTA_STATUS_SUCCESS;
    };
    require(stored.modem_pri_result == pri_result(p.options.installer.modem_pri) &&
                stored.linux_pri_result == pri_result(p.options.installer.linux_pri),
            "not what became of the configurations");
    return PLAY_UPDATED;
}

std::string show_outcome(player& p) {
    const fota_history_rec& stored = find_outcome(p);
    const std::string recorded = std::to_string(stored.status) + " " + in_quotes(field_text(stored.reason));
    if (p.options.recorded_status != nullptr) *p.options.recorded_status = stored.status;
    try {
        p.ended = judge(p, stored);
        const bool own_name = p.ended == PLAY_UPDATED || p.ended == PLAY_UNRECORDED;
        return play_outcome_name(p.ended) + std::string(own_name ? ": " : ", and recorded as such: ") +
               recorded;
    } catch (const unexpected& error) {
        throw unexpected(error.what() + (": " + recorded));
    }
}

// clang-format off
constexpr play_step BEGINNING[] = {
    {"seed device",          seed_device},
    {"boot device",          boot_device},
    {"start daemon",         start_daemon},
};

// clang-format on

void run_steps(std::span<const play_step> steps, player& p) {
    for (const play_step& step : steps) run_step(step.name, p, [&] { return step.run(p); });
}

// The mishap that comes about at this step, taken off those to come; null: none.
const mishap* take_mishap(player& p, const play_step& step) {
    const auto found = std::ranges::find_if(
        p.options.mishaps, [&](const mishap* m) { return std::strcmp(m->step, step.name) == 0; });
    if (found == p.options.mishaps.end()) return nullptr;
    const mishap* const taken = *found;
    p.options.mishaps.erase(found);
    return taken;
}

void run_path(player& p) {
    std::vector<play_step> steps;
    for (const std::span<const play_step> part : p.path.steps)
        steps.insert(steps.end(), part.begin(), part.end());
    for (size_t next = 0; next < steps.size() && p.refused_status == 0;) {
        const play_step& step = steps[next++];
        const mishap* const m = take_mishap(p, step);
        if (m == nullptr) {
            run_steps({&step, 1}, p);
            continue;
        }
        run_step(step.name, p, [&] { return m->happen(p, *m, step); });
        run_steps(m->afterwards, p);
        if (m->resume == nullptr) continue;
        const auto resume = std::ranges::find_if(
            steps, [&](const play_step& other) { return std::strcmp(other.name, m->resume) == 0; });
        next = static_cast<size_t>(resume - steps.begin());
    }
    if (!p.options.mishaps.empty()) {
        throw unexpected(std::string(p.options.mishaps.front()->stage) + " was not reached");
    }
}

void print_verdict(const player& p) {
    if (p.options.faults.empty()) return;
    std::printf("%-22s the device %s %s\n", "verdict",
                p.ended == PLAY_UNEXPECTED ? "is NOT as it should be with" : "came through",
                p.options.faults.c_str());
}

}  // namespace

std::vector<std::string> play_paths() {
    std::vector<std::string> names;
    for (const play_path& path : all_paths()) names.emplace_back(path.name);
    return names;
}

std::string play_paths_text() {
    std::string text = "Paths:\n";
    for (const play_path& path : all_paths()) {
        text +=
            std::string("  ") + path.name + std::string(15 - std::strlen(path.name), ' ') + path.help + "\n";
    }
    return text;
}

std::vector<std::string> play_unused_options(const std::string& path) {
    std::vector<std::string> names;
    for (const char* option : find_path(path).unused_options) {
        if (option != nullptr) names.emplace_back(option);
    }
    return names;
}

const char* play_outcome_name(play_outcome outcome) {
    switch (outcome) {
        case PLAY_UPDATED:
            return "updated";
        case PLAY_UNEXPECTED:
            return "unexpected";
        case PLAY_FAILED:
            return "failed";
        case PLAY_REVERTED:
            return "reverted";
        case PLAY_REFUSED:
            return "refused";
        case PLAY_RESET:
            return "reset";
        case PLAY_UNRECORDED:
            return "not recorded";
    }
    return "";
}

play_outcome play(const play_options& options) {
    const play_path& path = find_path(options.path);
    player p{options, path, options.session};
    if (p.session.agent.empty()) p.session.agent = path.agent;
    p.session.method = path.method;
    if (isatty(STDOUT_FILENO))
        p.session.progress = [](int percent) { std::printf("package %3d %%\r", percent); };
    try {
        run_steps(BEGINNING, p);
        run_path(p);
        run_steps(ending_steps(), p);
        run_step("outcome", p, [&] { return show_outcome(p); });
    } catch (const std::exception&) {
        print_details(last_lines(DEVICE_DEBUG_LOG, "", p.log_begin));
    }
    print_verdict(p);
    return p.ended;
}
