#include "device_commands.h"

#include <CLI/CLI.hpp>

#include "losses.h"

namespace {

void add_switch(CLI::App& app, options& options) {
    app.add_option("STATE", options.recovery_state, "on or off")
        ->required()
        ->check(CLI::IsMember({"on", "off"}))
        ->type_name("");
}

void add_path_and_text(CLI::App& app, options& options) {
    add_path(app, options);
    add_required(app, "TEXT", options.text,
                 "What to write, at most 256 bytes; after -- when it begins with a dash", 0, "",
                 sizeof(fota_file_ops::fops_data));
}

void add_removal(CLI::App& app, options& options) {
    add_path(app, options);
    add_force(app, options);
}

void add_confirmation(CLI::App& app, options&) {
    app.add_flag_callback(
           "--yes", [] {}, "Confirms that the update session may be lost")
        ->required();
}

answer run_factory_reset(const options& options) {
    return {fota_client_factory_reset(options.timeout_ms),
            "The daemon is ready for the factory reset: there is no update session any more."};
}

answer run_kernel_version(const options& options) {
    char text[FOTA_TEXT_SIZE] = {};
    const int result = fota_client_get_kernel_version(text, options.timeout_ms);
    const std::string version = without_line_end(text);
    return {.result = result, .message = version, .data = {{"kernel_version", version}}};
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
    const std::string line = without_line_end(text);
    return {.result = result, .message = line, .data = {{"text", line}}};
}

answer run_file_read_number(const options& options) {
    uint32_t number = 0;
    const int result = fota_client_file_read_uint32(options.path.c_str(), &number, options.timeout_ms);
    return {.result = result, .message = std::to_string(number), .data = {{"number", number}}};
}

answer run_file_remove(const options& options) {
    return {fota_client_file_remove(options.path.c_str(), options.timeout_ms), options.path + " is removed."};
}

// clang-format off
constexpr command COMMANDS[] = {
    {nullptr, "factory-reset", "Tell the daemon that the device is being reset: the update session is lost",
     "--yes", FOTA_MSG_FACTORY_RESET, add_confirmation, run_factory_reset},
    {nullptr, "kernel-version", "Print the version of the device's kernel",
     "", FOTA_MSG_GET_KERNEL_VERSION, add_nothing, run_kernel_version},
    {nullptr, "recovery", "Keep the device in recovery mode for debugging, or no longer",
     "on", FOTA_MSG_STOP_IN_RECOVERY, add_switch, run_recovery},
    {nullptr, "decrypt", "Answered with success; the daemon does nothing",
     "", FOTA_MSG_DECRYPT_PKG, add_nothing, run_decrypt},
    {nullptr, "file", "Small files, through the daemon", ""},
    {"file", "create", "Make an empty file, or empty the one that is there",
     "/tmp/mark", FOTA_MSG_FILE_OPS, add_path, run_file_create},
    {"file", "write", "Make or replace a file with a short text, nothing added to it",
     "/tmp/note \"any text\"", FOTA_MSG_FILE_OPS, add_path_and_text, run_file_write},
    {"file", "read", "Print the first line of a file, control characters as \\xNN",
     "/opt/qast/data/fota/session", FOTA_MSG_FILE_OPS, add_path, run_file_read},
    {"file", "read-number", "Print the number that a file holds",
     "/opt/qast/data/fota/tracking", FOTA_MSG_FILE_OPS, add_path, run_file_read_number},
    {"file", "remove", "Remove a file",
     "/tmp/mark", FOTA_MSG_FILE_OPS, add_removal, run_file_remove, 30, lost_by_removal},
};
// clang-format on

}  // namespace

std::span<const command> device_commands() {
    return COMMANDS;
}
