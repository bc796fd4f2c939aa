#include "whole_update_commands.h"

#include <CLI/CLI.hpp>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "common/command.h"
#include "common/file_helpers.h"
#include "common/state_files.h"
#include "device_state.h"
#include "long_requests.h"
#include "record_output.h"
#include "report.h"
#include "tools/common/json_line.h"
#include "tools/common/patience.h"
#include "tools/common/steps.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::ordered_json;

constexpr uint32_t AGENT_FAILED = 400;

// One request of the sequence.
struct step {
    const char* name;  // that of the command which makes the request alone
    const char* doing;
    fota_event event;
    // How it stands, from here to the next step, for somebody who leaves; {} is the agent.
    const char* state;
    std::string (*progress)() = nothing_to_tell;
};

// clang-format off
constexpr step LOCK = {
    "lock", "taking the session", FOTA_MSG_CREATE_SESSION_LOCK,
    "The session may belong to {}: 'fotactl unlock {}' gives it back."};
constexpr step MAX_SIZE = {
    "max-size", "asking for the size limit", FOTA_MSG_GET_MAX_PKG_SIZE,
    "The session belongs to {}: 'fotactl unlock {}' gives it back."};
constexpr step VALIDATE = {
    "validate", "checking the package", FOTA_MSG_VALIDATE_UPDATE_PKG,
    STATE_CHECKING, check_progress};
constexpr step CURRENT = {
    "current", "asking for the record", FOTA_MSG_GET_CURRENT_SESS_RECORD,
    "The package is validated, and the session of {} open: " GO_ON_OR_GET_OUT};
constexpr step INSTALL = {
    "install", "starting the installation", FOTA_MSG_START_INSTALLATION,
    "The installation may have been started: 'fotactl upgrade-status' tells. If not: " GO_ON_OR_GET_OUT};

constexpr step SIDELOAD_MAX_SIZE = {
    "sideload-max-size", MAX_SIZE.doing, FOTA_MSG_GET_SIDELOAD_MAX_PKG_SIZE, MAX_SIZE.state};
constexpr step PREPARE = {
    "sideload prepare", "checking and joining the pieces", FOTA_MSG_SIDELOAD_PREPARE_PACKAGE,
    STATE_PREPARING, prepare_progress};
constexpr step START = {
    "sideload start", "checking the package", FOTA_MSG_SIDELOAD_START_INSTALLATION,
    STATE_SIDE_LOADING, check_progress};
// clang-format on

// An update on its way.
struct sequence {
    const struct options& options;
    const std::string& agent = options.agent;
    end_signals signals = {};
    bool has_opened = false;  // the session: then it is this command's to end
    bool is_validated = false;
    bool has_copied = false;  // the bundle, which the daemon has not been told of yet
    const char* state = "Nothing has been asked for yet.";
};

std::string session_owner() {
    char owner[FOTA_TEXT_SIZE];
    return read_first_line(FOTA_SESSION_LOCK, owner) ? without_line_end(owner) : "";
}

void print_step(const sequence& sequence, const char* name, const std::string& words,
                const ordered_json& line) {
    if (sequence.options.json) {
        ordered_json object = {{"step", name}};
        object.update(line);
        print_json_line(object);
    } else {
        printf("%-17s  %s\n", name, escaped(words).c_str());
    }
    fflush(stdout);
}

void print_good_step(const sequence& sequence, const step& step, const std::string& words,
                     const ordered_json& data = ordered_json::object()) {
    ordered_json line = result_json(FOTA_RC_SUCCESS);
    line["data"] = data;
    print_step(sequence, step.name, words, line);
}

int ask(sequence& sequence, const step& step, const std::function<int()>& request) {
    const auto on_leave = [&](bool is_sent) {
        if (!is_sent && sequence.has_copied) unlink(FOTA_WEBUI_UPLOAD);
        return agent_filled_in(is_sent ? step.state : sequence.state, sequence.agent);
    };
    if (!sequence.options.json) set_doing(step.doing, step.progress);
    const int result = wait_for(request, sequence.signals, on_leave);
    if (result < 0 && result != FOTA_CLIENT_TIMEOUT) return result;  // it has not been sent
    sequence.state = step.state;
    sequence.has_copied = false;
    return result;
}

// The record of a package that is validated and waits, 0 for none.
uint32_t waiting_record() {
    if (find_flag(FOTA_STAGING_UPDATE_DLPKG_VERIFIED) != finding::PRESENT) return 0;
    return static_cast<uint32_t>(strtoul(find_text(FOTA_TRACKING).text.c_str(), nullptr, 0));
}

// Gives back what this command has taken, unless the daemon has ended the session itself. Returns a sentence.
std::string end_session(const sequence& sequence) {
    if (session_owner() != sequence.agent) return "";
    if (!sequence.has_opened) return " The session of " + sequence.agent + " was open before, and stays so.";
    const char* const agent = sequence.agent.c_str();
    int result = FOTA_RC_INVALID_PARAM;
    if (sequence.is_validated) {
        result = fota_client_abort_current_session(agent, AGENT_FAILED, "Installation not started",
                                                   sequence.options.timeout_ms);
    }
    if (result != FOTA_RC_SUCCESS)
        result = fota_client_clear_session_lock(agent, sequence.options.timeout_ms);
    if (result == FOTA_RC_SUCCESS) return " The session, which this command had opened, has been ended.";
    return " The session is still open: end it with 'fotactl unlock " + as_argument(sequence.agent) + "'.";
}

std::string advice_on_owner(const sequence& sequence) {
    const std::string owner = session_owner();
    if (owner.empty()) return advice_on(FOTA_MSG_CREATE_SESSION_LOCK, FOTA_RC_LOCK_NOT_AVAILABLE);
    int32_t status = 0;
    const int result = fota_client_get_upgrade_status(&status, sequence.options.timeout_ms);
    if (result == FOTA_RC_SUCCESS && status != 0) {
        return "The session is held by " + owner +
               ", whose installation has been started: try again when the device is back from it.";
    }
    return "The session is held by " + owner + ": ask it to finish, or run 'fotactl unlock " +
           as_argument(owner) + " --force', which throws its update away.";
}

// `result` is not success.
answer give_up(const sequence& sequence, const step& step, int result) {
    const int error = errno;
    const char* const name = fota_result_name(result);
    const std::string words = std::string(result < 0 ? "no answer" : "refused") +
                              (name == nullptr ? "" : std::string(" (") + name + ")");
    if (result < 0) {
        // Whether the daemon still carries it out is not known, so nothing is taken back.
        const std::string state = agent_filled_in(sequence.state, sequence.agent);
        print_step(sequence, step.name, words + ". " + state, result_json(result));
        errno = error;
        return {.result = result};
    }
    print_step(sequence, step.name, words, result_json(result));
    answer answer = {.result = result};
    answer.advice =
        result == FOTA_RC_LOCK_NOT_AVAILABLE ? advice_on_owner(sequence) : advice_on(step.event, result);
    answer.advice += end_session(sequence);
    return answer;
}

// Takes the session and asks for the limit. False, and `*failure` filled in, when it ends here.
bool begin(sequence& sequence, const step& size_step, int (*ask_limit)(uint32_t*, int), answer* failure) {
    const struct options& options = sequence.options;
    sequence.has_opened = session_owner() != sequence.agent;
    int result = ask(sequence, LOCK, [&] {
        return fota_client_create_session_lock(sequence.agent.c_str(), options.timeout_ms);
    });
    if (result != FOTA_RC_SUCCESS) {
        *failure = give_up(sequence, LOCK, result);
        return false;
    }
    print_good_step(sequence, LOCK,
                    "The session " + std::string(sequence.has_opened ? "belongs" : "belonged already") +
                        " to " + sequence.agent + ".",
                    {{"agent", sequence.agent}, {"was_open", !sequence.has_opened}});

    const uint32_t waiting = sequence.has_opened ? 0 : waiting_record();
    if (waiting != 0) {
        print_step(sequence, "note",
                   "Record " + std::to_string(waiting) +
                       " stays pending: its package, which waited for its installation, is replaced.",
                   {{"ok", true}, {"data", {{"record_id", waiting}}}});
    }

    uint32_t limit = 0;
    result = ask(sequence, size_step, [&] { return ask_limit(&limit, options.timeout_ms); });
    if (result != FOTA_RC_SUCCESS) {
        *failure = give_up(sequence, size_step, result);
        return false;
    }
    std::error_code error;
    const uintmax_t size = fs::file_size(options.path, error);
    if (error) {
        *failure = {.problem = options.path + " cannot be read: " + error.message(),
                    .advice = "Check it." + end_session(sequence)};
        return false;
    }
    print_good_step(sequence, size_step,
                    "At most " + size_text(limit) + "; the file has " + size_text(size) + ".",
                    {{"max_bytes", limit}, {"bytes", size}});
    if (size <= limit) return true;
    *failure = {.problem = options.path + " is larger than the device takes",
                .advice = "Get a smaller package." + end_session(sequence)};
    return false;
}

std::string estimate_text(uint32_t secs) {
    return "estimated time " + (secs == 0 ? "unknown" : duration_text(secs));
}

std::string verdict(const sequence& sequence, bool is_full_image) {
    const struct options& options = sequence.options;
    const std::string when =
        options.wait_secs == 0 || is_full_image ? "Now" : "In " + duration_text(options.wait_secs);
    const std::string how =
        is_full_image ? " the package's own script installs the full image, then the device resets."
                      : " the device switches to run level 5, where the installer writes the new firmware.";
    const std::string afterwards = options.boot_state == "shutdown" ? "It stays off afterwards"
                                   : options.boot_state == "lpm"    ? "It comes back in low-power mode"
                                                                    : "It comes back online";
    return when + how + " " + afterwards + "; 'fotactl update-status " + as_argument(sequence.agent) +
           "' then tells what came of it.";
}

answer run_update(const options& options) {
    sequence sequence = {options};
    const char* const agent = sequence.agent.c_str();
    answer failure;
    if (!begin(sequence, MAX_SIZE, fota_client_get_max_pkg_size, &failure)) return failure;

    const fota_pkg_info info = pkg_info_of(options, sequence.agent);
    uint32_t rec_id = 0;
    int result = ask(sequence, VALIDATE, [&] {
        return fota_client_validate_update_pkg(options.path.c_str(), &info, &rec_id, options.timeout_ms);
    });
    if (result != FOTA_RC_SUCCESS) {
        failure = give_up(sequence, VALIDATE, result);
        if (rec_id != 0) failure.data["record_id"] = rec_id;
        return failure;
    }
    sequence.is_validated = true;
    print_good_step(sequence, VALIDATE,
                    "The package is valid; record " + std::to_string(rec_id) + " is made.",
                    {{"record_id", rec_id}});

    fota_history_rec record{};
    result = ask(sequence, CURRENT,
                 [&] { return fota_client_get_current_sess_record(agent, &record, options.timeout_ms); });
    if (result != FOTA_RC_SUCCESS) return give_up(sequence, CURRENT, result);
    print_good_step(sequence, CURRENT,
                    std::string(field_text(record.pkg_info.pkg_ver)) + ", " + outcome_text(record) + ", " +
                        estimate_text(record.pkg_info.est_update_time) + ".",
                    {{"record", record_json(record)}});
    if (options.no_install) {
        return {.message = agent_filled_in("The package waits for its installation: " GO_ON_OR_GET_OUT,
                                           sequence.agent),
                .data = {{"record_id", rec_id}, {"installation_started", false}}};
    }

    // Afterwards nothing else is answered when it is one.
    char ignored[FOTA_TEXT_SIZE] = {};
    bool is_full_image = false;
    result = ask(sequence, INSTALL, [&] {
        is_full_image =
            fota_client_file_read_str(FOTA_STAGING_FULL_FOTA, ignored, options.timeout_ms) == FOTA_RC_SUCCESS;
        return fota_client_start_installation(agent, boot_preference_of(options), options.wait_secs,
                                              options.timeout_ms);
    });
    if (result != FOTA_RC_SUCCESS) return give_up(sequence, INSTALL, result);
    print_good_step(sequence, INSTALL, "The installation is started.");
    return {.message = verdict(sequence, is_full_image),
            .data = {{"record_id", rec_id}, {"installation_started", true}, {"full_image", is_full_image}}};
}

// The daemon removes the bundle that it is given, so that it gets a copy; at the place of the web interface's
// uploads, where a bundle is its to remove. False, and `*failure` filled in, when it ends here.
bool bring_bundle(sequence& sequence, answer* failure) {
    const std::string& path = sequence.options.path;
    if (path == FOTA_WEBUI_UPLOAD) return true;
    std::error_code error;
    fs::create_directories(fs::path(FOTA_WEBUI_UPLOAD).parent_path(), error);
    if (!error && fs::copy_file(path, FOTA_WEBUI_UPLOAD, error)) {
        sequence.has_copied = true;
        print_step(sequence, "copy", std::string("To ") + FOTA_WEBUI_UPLOAD + "; " + path + " stays.",
                   {{"ok", true}, {"data", {{"from", path}, {"to", FOTA_WEBUI_UPLOAD}}}});
        return true;
    }
    if (error == std::errc::file_exists) {
        *failure = {.problem = std::string("an upload lies at ") + FOTA_WEBUI_UPLOAD + " already",
                    .advice = std::string("Install that one, with 'fotactl sideload run ") +
                              FOTA_WEBUI_UPLOAD + "', or remove it, with 'fotactl file remove " +
                              FOTA_WEBUI_UPLOAD + "'."};
    } else {
        unlink(FOTA_WEBUI_UPLOAD);
        *failure = {.problem = "cannot copy " + path + " to " + FOTA_WEBUI_UPLOAD + ": " + error.message(),
                    .advice = "Make room there, or try again as root."};
    }
    failure->advice += end_session(sequence);
    return false;
}

answer run_sideload(const options& options) {
    sequence sequence = {options};
    const char* const agent = sequence.agent.c_str();
    answer failure;
    if (!begin(sequence, SIDELOAD_MAX_SIZE, fota_client_get_sideload_max_pkg_size, &failure)) return failure;
    if (!bring_bundle(sequence, &failure)) return failure;

    int result = ask(sequence, PREPARE, [&] {
        return fota_client_sideload_prepare_package(FOTA_WEBUI_UPLOAD, options.timeout_ms);
    });
    if (result != FOTA_RC_SUCCESS) {
        // One that is no zip archive is not removed by the daemon, nor one that it was not told of.
        if (result != FOTA_CLIENT_TIMEOUT && options.path != FOTA_WEBUI_UPLOAD) unlink(FOTA_WEBUI_UPLOAD);
        return give_up(sequence, PREPARE, result);
    }
    print_good_step(
        sequence, PREPARE,
        std::string("The bundle is signed and complete; its package is ") + FOTA_UPGRADE_PKG + ".",
        {{"package", FOTA_UPGRADE_PKG}});

    uint32_t secs = 0;
    result = ask(sequence, START, [&] {
        return fota_client_sideload_start_installation(agent, FOTA_UPGRADE_PKG, &secs, options.timeout_ms);
    });
    if (result != FOTA_RC_SUCCESS) return give_up(sequence, START, result);
    print_good_step(sequence, START, "The package is valid, " + estimate_text(secs) + ".",
                    {{"estimated_secs", secs}});
    return {.message =
                "When the daemon's waiting time is over, the device installs the package and restarts; other "
                "requests are refused until then. 'fotactl update-status " +
                as_argument(sequence.agent) + "' then tells what came of it.",
            .data = {{"estimated_secs", secs}}};
}

void add_update(CLI::App& app, options& options) {
    add_path(app, options);
    app.get_option("PATH")
        ->description("The package, on the device; fotad reads it where it lies")
        ->check(CLI::ExistingFile)
        ->check([](const std::string& path) {
            return is_plain_path(path.c_str()) ? std::string()
                                               : "holds a blank or a sign that fotad refuses in paths";
        });
    add_agent_option(app, options);
    app.add_flag("--no-install", options.no_install,
                 "End when the package is validated, the session left open");
    add_boot_and_wait(app, options);
    add_pkg_info(app, options);
}

void add_sideload(CLI::App& app, options& options) {
    add_path(app, options);
    app.get_option("PATH")
        ->description("The bundle, on the device; fotad gets a copy")
        ->check(CLI::ExistingFile);
    add_agent_option(app, options);
}

// clang-format off
constexpr command UPDATE[] = {
    {nullptr, "update", "Install a package that is on the device: takes the session, checks the package and starts the installation",
     "upgrade.zip\nupgrade.zip --agent dm-agent --wait 60\nupgrade.zip --no-install", {}, add_update, run_update, PACKAGE_TIMEOUT_SECS},
};
constexpr command SIDELOAD[] = {
    {"sideload", "run", "Install a bundle that is on the device: takes the session, prepares the bundle and starts the installation",
     "bundle.zip", {}, add_sideload, run_sideload, PACKAGE_TIMEOUT_SECS},
};
// clang-format on

}  // namespace

std::span<const command> update_commands() {
    return UPDATE;
}

std::span<const command> whole_sideload_commands() {
    return SIDELOAD;
}
