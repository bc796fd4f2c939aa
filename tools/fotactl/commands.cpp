#include "commands.h"

#include <filesystem>

#include "record_output.h"

namespace {

constexpr size_t MAX_TEXT = FOTA_TEXT_SIZE - 1;

// Refused here, where the message can name the argument.
CLI::Validator sized_text(size_t least, size_t most) {
    return {[least, most](std::string& text) {
                if (text.size() < least) return std::string("must not be empty");
                return text.size() > most ? "is longer than " + std::to_string(most) + " bytes"
                                          : std::string();
            },
            ""};
}

// The daemon's working folder is not the user's.
std::string make_absolute(std::string& path) {
    std::error_code error;
    if (!path.empty()) path = std::filesystem::absolute(path, error).string();
    return error ? "has no absolute form: " + error.message() : std::string();
}

template <size_t N>
void add_text_option(CLI::App& app, const char* name, char (&field)[N], const char* help) {
    const auto set_field = [&field](const std::string& text) { text.copy(field, N - 1); };
    app.add_option_function<std::string>(name, set_field, help)
        ->check(sized_text(0, MAX_TEXT))
        ->type_name("TEXT");
}

void add_nothing(CLI::App&, options&) {}

void add_agent(CLI::App& app, options& options) {
    app.add_option("AGENT", options.agent, "Name of the agent that drives the update")
        ->required()
        ->check(sized_text(1, MAX_TEXT))
        ->type_name("");
}

void add_path(CLI::App& app, options& options) {
    // transform() puts its validator in front: the length that counts is the absolute path's.
    app.add_option("PATH", options.path, "File on the device")
        ->required()
        ->check(sized_text(1, MAX_TEXT))
        ->transform(CLI::Validator(make_absolute, ""))
        ->type_name("");
}

void add_path_and_text(CLI::App& app, options& options) {
    add_path(app, options);
    app.add_option("TEXT", options.text,
                   "What to write, at most 256 bytes; after -- when it begins with a dash")
        ->required()
        ->check(sized_text(0, sizeof(fota_file_ops::fops_data)))
        ->type_name("");
}

void add_validation(CLI::App& app, options& options) {
    add_agent(app, options);
    add_path(app, options);
    fota_pkg_info& info = options.info;
    add_text_option(app, "--name", info.pkg_name, "Name of the package");
    add_text_option(app, "--version", info.pkg_ver, "Version that the package brings");
    add_text_option(app, "--description", info.pkg_description, "Description of the package");
    add_text_option(app, "--method", info.update_method, "How the package got here");
    add_text_option(app, "--manufacturer", info.manufacturer, "Manufacturer of the device");
    app.add_option("--size", info.pkg_size, "Size in bytes; the file's own when not given")
        ->type_name("BYTES");
    app.add_option("--estimate", info.est_update_time, "Estimated time of the installation")
        ->type_name("SECONDS");
}

void add_installation(CLI::App& app, options& options) {
    add_agent(app, options);
    app.add_option("--boot", options.boot_state,
                   "How the device comes up afterwards: online (default), shutdown or lpm (low power)")
        ->check(CLI::IsMember({"online", "shutdown", "lpm"}))
        ->type_name("STATE");
    app.add_option("--wait", options.wait_secs, "Wait before the installation starts; 0 when not given")
        ->type_name("SECONDS");
}

void add_abort(CLI::App& app, options& options) {
    add_agent(app, options);
    app.add_option("--status", options.status, "Outcome to record, such as 401: cancelled by the user")
        ->required()
        ->type_name("NUMBER");
    app.add_option("--reason", options.reason, "Reason to record")
        ->required()
        ->check(sized_text(0, MAX_TEXT))
        ->type_name("TEXT");
}

void add_switch(CLI::App& app, options& options) {
    app.add_option("STATE", options.recovery_state, "on or off")
        ->required()
        ->check(CLI::IsMember({"on", "off"}))
        ->type_name("");
}

answer size_answer(int result, uint32_t bytes) {
    if (result != FOTA_RC_SUCCESS) return {result};
    return {result, "", {{"largest package", size_text(bytes)}}};
}

answer record_answer(int result, const fota_history_rec& record, const std::string& message_for_none) {
    if (result != FOTA_RC_SUCCESS) return {result};
    if (record.rec_id == 0) return {result, message_for_none};
    return {result, "", record_lines(record)};
}

answer run_max_size(const options& options) {
    uint32_t bytes = 0;
    const int result = fota_client_get_max_pkg_size(&bytes, options.timeout_ms);
    return size_answer(result, bytes);
}

answer run_sideload_max_size(const options& options) {
    uint32_t bytes = 0;
    const int result = fota_client_get_sideload_max_pkg_size(&bytes, options.timeout_ms);
    return size_answer(result, bytes);
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
    fota_pkg_info info = options.info;
    options.agent.copy(info.agent_name, sizeof info.agent_name - 1);
    uint32_t rec_id = 0;
    answer answer;
    answer.result = fota_client_validate_update_pkg(options.path.c_str(), &info, &rec_id, options.timeout_ms);
    answer.message = "The package is valid and waits for its installation.";
    if (rec_id != 0) answer.lines = {{"record", std::to_string(rec_id)}};
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
    const uint32_t boot_preference = options.boot_state == "lpm"        ? FOTA_BOOT_LPM
                                     : options.boot_state == "shutdown" ? FOTA_BOOT_SHUTDOWN
                                                                        : FOTA_BOOT_ONLINE;
    const int result = fota_client_start_installation(options.agent.c_str(), boot_preference,
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
    const std::string number = std::to_string(status);
    return {result, "", {{"upgrade status", number + " (" + upgrade_status_text(status) + ")"}}};
}

answer run_recovery(const options& options) {
    const bool stop = options.recovery_state == "on";
    const int result = fota_client_stop_in_recovery(stop, options.timeout_ms);
    return {result,
            stop ? "The device stays in recovery mode." : "The device no longer stays in recovery mode."};
}

answer run_decrypt(const options& options) {
    return {fota_client_decrypt_pkg(options.timeout_ms),
            "The daemon answered; it does nothing for this request."};
}

answer run_file_create(const options& options) {
    return {fota_client_file_create(options.path.c_str(), options.timeout_ms), options.path + " is made."};
}

answer run_file_write(const options& options) {
    const int result = fota_client_file_write(options.path.c_str(), options.text.data(), options.text.size(),
                                              options.timeout_ms);
    return {result, options.path + " is written."};
}

answer run_file_read(const options& options) {
    char text[FOTA_TEXT_SIZE] = {};
    const int result = fota_client_file_read_str(options.path.c_str(), text, options.timeout_ms);
    std::string line = text;
    if (line.ends_with('\n')) line.pop_back();
    return {result, line};
}

answer run_file_read_number(const options& options) {
    uint32_t number = 0;
    const int result = fota_client_file_read_uint32(options.path.c_str(), &number, options.timeout_ms);
    return {result, std::to_string(number)};
}

answer run_file_remove(const options& options) {
    return {fota_client_file_remove(options.path.c_str(), options.timeout_ms), options.path + " is removed."};
}

// clang-format off
constexpr command COMMANDS[] = {
    {nullptr, "max-size", "Largest package that the daemon takes over the air now",
     FOTA_MSG_GET_MAX_PKG_SIZE, add_nothing, run_max_size},
    {nullptr, "sideload-max-size", "Largest package that the daemon takes by side-load now",
     FOTA_MSG_GET_SIDELOAD_MAX_PKG_SIZE, add_nothing, run_sideload_max_size},
    {nullptr, "lock", "Take the update session, which one agent at a time can hold",
     FOTA_MSG_CREATE_SESSION_LOCK, add_agent, run_lock},
    {nullptr, "unlock", "Give the update session back and throw its package away",
     FOTA_MSG_CLEAR_SESSION_LOCK, add_agent, run_unlock},
    {nullptr, "validate", "Check a package and make it ready for installation; a package that fails ends the session",
     FOTA_MSG_VALIDATE_UPDATE_PKG, add_validation, run_validate, 600},
    {nullptr, "current", "Show the record of the session's update",
     FOTA_MSG_GET_CURRENT_SESS_RECORD, add_agent, run_current},
    {nullptr, "defer", "Count that the user has put the installation off",
     FOTA_MSG_INCR_INSTALL_DEFER_COUNT, add_agent, run_defer},
    {nullptr, "install", "Install the validated package: the device restarts",
     FOTA_MSG_START_INSTALLATION, add_installation, run_install},
    {nullptr, "abort", "End the session and record an outcome for its update",
     FOTA_MSG_ABORT_CURRENT_SESS, add_abort, run_abort},
    {nullptr, "update-status", "Show the outcome of the agent's update; handed out once",
     FOTA_MSG_GET_UPDATE_STATUS, add_agent, run_update_status},
    {nullptr, "revert-status", "Show whether the device went back to its previous firmware; handed out once",
     FOTA_MSG_GET_REVERT_STATUS, add_nothing, run_revert_status},
    {nullptr, "upgrade-status", "Show whether an installation is under way; answered at any time",
     FOTA_MSG_GET_UPGRADE_STATUS, add_nothing, run_upgrade_status},
    {nullptr, "recovery", "Keep the device in recovery mode for debugging, or no longer",
     FOTA_MSG_STOP_IN_RECOVERY, add_switch, run_recovery},
    {nullptr, "decrypt", "Answered with success; the daemon does nothing",
     FOTA_MSG_DECRYPT_PKG, add_nothing, run_decrypt},
    {"file", "create", "Make an empty file, or empty the one that is there",
     FOTA_MSG_FILE_OPS, add_path, run_file_create},
    {"file", "write", "Make or replace a file with a short text, nothing added to it",
     FOTA_MSG_FILE_OPS, add_path_and_text, run_file_write},
    {"file", "read", "Print the first line of a file, control characters as \\xNN",
     FOTA_MSG_FILE_OPS, add_path, run_file_read},
    {"file", "read-number", "Print the number that a file holds",
     FOTA_MSG_FILE_OPS, add_path, run_file_read_number},
    {"file", "remove", "Remove a file",
     FOTA_MSG_FILE_OPS, add_path, run_file_remove},
};
// clang-format on

}  // namespace

std::span<const command> all_commands() {
    return COMMANDS;
}
