#include "session_commands.h"

#include <CLI/CLI.hpp>

#include "long_requests.h"
#include "losses.h"
#include "record_output.h"

namespace {

// A session that has no owner ends with an empty name.
void add_session_owner(CLI::App& app, options& options) {
    add_agent(app, options, 0);
    add_force(app, options);
}

void add_validation(CLI::App& app, options& options) {
    add_agent_and_path(app, options);
    add_pkg_info(app, options);
}

void add_installation(CLI::App& app, options& options) {
    add_agent(app, options);
    add_boot_and_wait(app, options);
}

void add_abort(CLI::App& app, options& options) {
    add_agent(app, options);
    app.add_option("--status", options.status, "Outcome to record, such as 401: cancelled by the user")
        ->required()
        ->type_name("NUMBER");
    add_required(app, "--reason", options.reason, "Reason to record", 0, "TEXT");
    add_force(app, options);
}

answer run_max_size(const options& options) {
    uint32_t bytes = 0;
    const int result = fota_client_get_max_pkg_size(&bytes, options.timeout_ms);
    if (result != FOTA_RC_SUCCESS) return {result};
    return {.lines = {{"largest package", size_text(bytes)}}, .data = {{"max_bytes", bytes}}};
}

answer run_lock(const options& options) {
    const int result = fota_client_create_session_lock(options.agent.c_str(), options.timeout_ms);
    return {result, "The update session belongs to " + options.agent + "."};
}

answer run_unlock(const options& options) {
    const int result = fota_client_clear_session_lock(options.agent.c_str(), options.timeout_ms);
    return {result, "There is no update session any more."};
}

answer run_validate(const options& options) {
    const fota_pkg_info info = pkg_info_of(options, options.agent);
    uint32_t rec_id = 0;
    answer answer;
    answer.result = long_request(options, "checking the package", STATE_CHECKING, check_progress, [&] {
        return fota_client_validate_update_pkg(options.path.c_str(), &info, &rec_id, options.timeout_ms);
    });
    answer.message = "The package is valid and waits for its installation.";
    if (rec_id != 0) answer.lines = {{"record", std::to_string(rec_id)}};
    answer.data["record_id"] = rec_id;
    return answer;
}

answer run_versions(const options& options) {
    char text[FOTA_TEXT_SIZE] = {};
    answer answer;
    answer.result = fota_client_get_src_pkg_version(options.agent.c_str(), text, options.timeout_ms);
    if (answer.result != FOTA_RC_SUCCESS) return answer;
    answer.lines.push_back({"source version", without_line_end(text)});
    answer.data["source_version"] = without_line_end(text);
    answer.result = fota_client_get_tgt_pkg_version(options.agent.c_str(), text, options.timeout_ms);
    if (answer.result != FOTA_RC_SUCCESS) return answer;
    answer.lines.push_back({"target version", without_line_end(text)});
    answer.data["target_version"] = without_line_end(text);
    return answer;
}

answer run_current(const options& options) {
    fota_history_rec record{};
    const int result =
        fota_client_get_current_sess_record(options.agent.c_str(), &record, options.timeout_ms);
    return record_answer(result, record, "The session has no record.");
}

answer run_defer(const options& options) {
    const int result = fota_client_incr_install_defer_count(options.agent.c_str(), options.timeout_ms);
    return {result, "The installation is deferred once more."};
}

answer run_install(const options& options) {
    const int result = fota_client_start_installation(options.agent.c_str(), boot_preference_of(options),
                                                      options.wait_secs, options.timeout_ms);
    if (options.wait_secs == 0) return {result, "The installation starts now."};
    return {result, "The installation starts in " + duration_text(options.wait_secs) + "."};
}

answer run_abort(const options& options) {
    const int result = fota_client_abort_current_session(options.agent.c_str(), options.status,
                                                         options.reason.c_str(), options.timeout_ms);
    return {result, "The session has ended and its outcome is recorded."};
}

answer run_update_status(const options& options) {
    fota_history_rec record{};
    const int result = fota_client_get_update_status(options.agent.c_str(), &record, options.timeout_ms);
    return record_answer(result, record, "No update outcome is waiting for " + options.agent + ".");
}

answer run_revert_status(const options& options) {
    fota_history_rec record{};
    const int result = fota_client_get_revert_status(&record, options.timeout_ms);
    return record_answer(result, record, "No return to the previous firmware is waiting to be reported.");
}

answer run_upgrade_status(const options& options) {
    int32_t status = 0;
    const int result = fota_client_get_upgrade_status(&status, options.timeout_ms);
    if (result != FOTA_RC_SUCCESS) return {result};
    const std::string meaning = upgrade_status_text(status);
    return {.lines = {{"upgrade status", std::to_string(status) + " (" + meaning + ")"}},
            .data = {{"upgrade_status", status}, {"meaning", meaning}}};
}

// clang-format off
constexpr command COMMANDS[] = {
    {nullptr, "max-size", "Largest package that the daemon takes over the air now",
     "", FOTA_MSG_GET_MAX_PKG_SIZE, add_nothing, run_max_size},
    {nullptr, "lock", "Take the update session, which one agent at a time can hold",
     "dm-agent", FOTA_MSG_CREATE_SESSION_LOCK, add_agent, run_lock},
    {nullptr, "unlock", "Give the update session back and throw its package away",
     "dm-agent\ndm-agent --force", FOTA_MSG_CLEAR_SESSION_LOCK, add_session_owner, run_unlock, 30, lost_by_unlock},
    {nullptr, "validate", "Check a package and make it ready for installation; a package that fails ends the session",
     "dm-agent /opt/qast/data/fota/upgrade.zip --version 5.3.0", FOTA_MSG_VALIDATE_UPDATE_PKG, add_validation, run_validate, PACKAGE_TIMEOUT_SECS},
    {nullptr, "versions", "Show the version that the validated package updates, and the one that it brings",
     "dm-agent", FOTA_MSG_GET_SRC_PKG_VERSION, add_agent, run_versions},
    {nullptr, "current", "Show the record of the session's update",
     "dm-agent", FOTA_MSG_GET_CURRENT_SESS_RECORD, add_agent, run_current},
    {nullptr, "defer", "Count that the user has put the installation off",
     "dm-agent", FOTA_MSG_INCR_INSTALL_DEFER_COUNT, add_agent, run_defer},
    {nullptr, "install", "Install the validated package: the device restarts",
     "dm-agent --boot lpm --wait 60", FOTA_MSG_START_INSTALLATION, add_installation, run_install},
    {nullptr, "abort", "End the session and record an outcome for its update",
     "dm-agent --status 401 --reason \"cancelled by the user\"", FOTA_MSG_ABORT_CURRENT_SESS, add_abort, run_abort, 30, lost_by_abort},
    {nullptr, "update-status", "Show the outcome of the agent's update; handed out once",
     "dm-agent", FOTA_MSG_GET_UPDATE_STATUS, add_agent, run_update_status},
    {nullptr, "revert-status", "Show whether the device went back to its previous firmware; handed out once",
     "", FOTA_MSG_GET_REVERT_STATUS, add_nothing, run_revert_status},
    {nullptr, "upgrade-status", "Show whether an installation is under way; answered at any time",
     "", FOTA_MSG_GET_UPGRADE_STATUS, add_nothing, run_upgrade_status},
};
// clang-format on

}  // namespace

std::span<const command> session_commands() {
    return COMMANDS;
}
