#include "play.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>

#include "common/state_files.h"
#include "device.h"
#include "fotactl/output.h"
#include "programs.h"
#include "steps.h"

namespace {

// clang-format off
constexpr play_step OTA_SESSION[] = {
    {"create session lock",  create_session_lock},
    {"maximum package size", get_max_size},
    {"download",             download},
    {"validate",             validate},
    {"current record",       get_current_record},
    {"defer once",           defer_once},
};

constexpr play_step OTA_START[] = {
    {"start installation",   start_installation},
    {"another agent",        ask_as_other},
};

constexpr play_step SIDELOAD[] = {
    {"maximum package size", get_sideload_max_size},
    {"upload",               upload},
    {"prepare package",      sideload_prepare},
    {"start installation",   sideload_start},
    {"another agent",        ask_as_other},
};

constexpr play_step SUA[] = {
    {"start update",         sua_start},
    {"update tool",          run_update_tool},
    {"another agent",        ask_as_other},
};

constexpr play_step INSTALL[] = {
    {"hand over",            hand_over},
    {"broadcasts",           show_broadcasts},
    {"stop daemon",          stop_daemon},
    {"boot full image",      boot_full_image},
    {"installer",            install},
    {"reboot",               reboot},
    {"start daemon",         start_daemon},
    {"update status",        get_update_status},
    {"revert status",        get_revert_status},
    {"upgrade status",       get_idle_status},
};

constexpr play_step FACTORY_RESET[] = {
    {"factory reset",        factory_reset},
    {"update status",        get_no_update_status},
    {"upgrade status",       get_idle_status},
};

constexpr play_path PATHS[] = {
    {"ota", "an agent downloads the package, validates it and starts its installation",
     "dm-agent", "OTA", false, FOTA_RC_LOCK_NOT_AVAILABLE, {OTA_SESSION, OTA_START, INSTALL}, {}},
    {"sideload", "a user uploads the package as a bundle of signed pieces",
     "web-ui", "Sideload", false, FOTA_RC_SIDELOAD_IN_PROGRESS, {SIDELOAD, INSTALL},
     {"--wait", "--boot"}},
    {"sua", "an external tool brings the package, any file, into the staging folder",
     "SUA", "SUA", false, FOTA_RC_LOCK_NOT_AVAILABLE, {SUA, INSTALL},
     {"--wait", "--boot", "--agent"}},
    {"full-image", "as ota, with a package that brings its own upgrade script",
     "dm-agent", "OTA", true, FOTA_RC_FULL_FOTA_IN_PROGRESS, {OTA_SESSION, OTA_START, INSTALL},
     {"--wait"}},
    {"factory-reset", "as ota, with a factory reset before the installation",
     "dm-agent", "OTA", false, FOTA_RC_SUCCESS, {OTA_SESSION, FACTORY_RESET},
     {"--wait", "--boot", "--installer", "--revert"}},
};
// clang-format on

const play_path& find_path(const std::string& name) {
    for (const play_path& path : PATHS) {
        if (name == path.name) return path;
    }
    throw std::runtime_error("unknown path " + name);
}

void print_details(const std::vector<std::string>& lines) {
    for (const std::string& line : lines) std::printf("    %s\n", line.c_str());
}

void run_step(const play_step& step, player& p) {
    const auto start = std::chrono::steady_clock::now();
    const auto print = [&](const std::string& answer) {
        const std::chrono::duration<double, std::milli> passed = std::chrono::steady_clock::now() - start;
        std::printf("%-22s %-82s %9.1f ms\n", step.name, answer.c_str(), passed.count());
        print_details(p.details);
        std::fflush(stdout);
    };
    p.details.clear();
    try {
        if (const std::string answer = step.run(p); !answer.empty()) print(answer);
    } catch (const std::exception& error) {
        print(std::string("UNEXPECTED: ") + error.what());
        throw;
    }
}

std::string seed_device(player& p) {
    device_seed(p.options.keys_folder);
    return "firmware " + device_read_line(FOTA_OS_VERSION);
}

// Without an outcome that was handed out, the only record there is.
const fota_history_rec& find_outcome(const player& p) {
    const uint32_t rec_id = p.outcome.rec_id != 0 ? p.outcome.rec_id : p.rec_id;
    for (const fota_history_rec& record : p.history) {
        if (record.rec_id == rec_id || (rec_id == 0 && p.history.size() == 1)) return record;
    }
    throw unexpected("the history does not hold the record of this update");
}

void require_announced(const player& p, const fota_history_rec& stored) {
    const fota_history_rec announced =
        announced_record(p.options.revert_code ? "fota.revert_status" : "fota.update_status");
    if (std::memcmp(&stored, &announced, sizeof stored) != 0 ||
        std::memcmp(&stored, &p.outcome, sizeof stored) != 0) {
        throw unexpected("the record stored, the one announced and the one handed out differ");
    }
}

// Holds what the daemon recorded, announced and handed out against what was played.
play_outcome judge(const player& p, const fota_history_rec& stored) {
    const auto require = [](bool as_played, const char* what) {
        if (!as_played) throw unexpected(what);
    };
    const std::string_view reason = field_text(stored.reason);
    require(stored.status == p.options.expected_status.value_or(stored.status), "not the expected status");
    if (p.options.revert_code && p.outcome.rec_id != 0) {
        require_announced(p, stored);
        require(stored.rec_type == FOTA_REC_REVERT && stored.status == *p.options.revert_code,
                "not the revert that took place");
        return PLAY_REVERTED;
    }
    require(stored.rec_type == FOTA_REC_UPDATE && field_text(stored.pkg_info.agent_name) == p.agent &&
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
    require_announced(p, stored);
    require(stored.rec_id == p.rec_id || p.rec_id == 0, "not the record of the validation");
    require(field_text(stored.pkg_info.pkg_ver) == p.target, "not the version that was installed");
    const bool success = stored.status == FOTA_STATUS_SUCCESS && reason == "FW Upgrade success";
    require(success != p.options.installer_code.has_value(), "not what the installer reported");
    return success ? PLAY_UPDATED : PLAY_FAILED;
}

const char* outcome_name(play_outcome outcome) {
    switch (outcome) {
        case PLAY_UPDATED:
            return "updated";
        case PLAY_UNEXPECTED:
            return "unexpected";
        case PLAY_FAILED:
            return "failed, and recorded as such";
        case PLAY_REVERTED:
            return "reverted, and recorded as such";
        case PLAY_REFUSED:
            return "refused, and recorded as such";
        case PLAY_RESET:
            return "reset, and recorded as such";
    }
    return "";
}

std::string show_outcome(player& p) {
    const fota_history_rec& stored = find_outcome(p);
    const std::string recorded = std::to_string(stored.status) + " " + in_quotes(field_text(stored.reason));
    try {
        p.ended = judge(p, stored);
        return std::string(outcome_name(p.ended)) + ": " + recorded;
    } catch (const unexpected& error) {
        throw unexpected(error.what() + (": " + recorded));
    }
}

// clang-format off
constexpr play_step BEGINNING[] = {
    {"seed device",          seed_device},
    {"start daemon",         start_daemon},
};

constexpr play_step ENDING[] = {
    {"history",              show_history},
    {"broadcasts",           show_broadcasts},
    {"left-over files",      find_left_overs},
    {"stop daemon",          stop_daemon},
    {"show",                 show_files},
    {"outcome",              show_outcome},
};
// clang-format on

void run_steps(std::span<const play_step> steps, player& p) {
    for (const play_step& step : steps) run_step(step, p);
}

}  // namespace

std::vector<std::string> play_paths() {
    std::vector<std::string> names;
    for (const play_path& path : PATHS) names.emplace_back(path.name);
    return names;
}

std::string play_paths_text() {
    std::string text = "Paths:\n";
    for (const play_path& path : PATHS) {
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

play_outcome play(const play_options& options) {
    const play_path& path = find_path(options.path);
    player p{options, path, options.agent.empty() ? path.agent : options.agent.c_str()};
    try {
        run_steps(BEGINNING, p);
        for (const std::span<const play_step> steps : path.steps) {
            for (const play_step& step : steps) {
                if (p.refused_status == 0) run_step(step, p);
            }
        }
        run_steps(ENDING, p);
    } catch (const std::exception&) {
        print_details(last_lines(DEVICE_DEBUG_LOG));
    }
    return p.ended;
}
