#include "local_update_commands.h"

#include <CLI/CLI.hpp>

#include "common/state_files.h"
#include "long_requests.h"
#include "losses.h"

namespace {

void add_device_info(CLI::App& app, options& options) {
    fota_device_info& device = options.device;
    const auto add = [&app](const char* name, char(&field)[FOTA_TEXT_SIZE], const char* help) {
        const auto set_field = [&field](const std::string& text) { text.copy(field, MAX_TEXT); };
        return app.add_option_function<std::string>(name, set_field, help)
            ->check(sized_text(0, MAX_TEXT))
            ->type_name("TEXT");
    };
    add("--modem", device.modem_version, "Version of the modem's software")->required();
    add("--os", device.os_version, "Version of the operating system")->required();
    add("--pri", device.pri_version, "Version of the PRI");
    add("--imei", device.imei, "IMEI of the device");
    add("--mdn", device.mdn, "Phone number of the device");
    add("--model", device.model, "Model of the device");
    add_force(app, options);
}

answer run_sideload_max_size(const options& options) {
    uint32_t bytes = 0;
    const int result = fota_client_get_sideload_max_pkg_size(&bytes, options.timeout_ms);
    if (result != FOTA_RC_SUCCESS) return {result};
    return {.lines = {{"largest package", size_text(bytes)}}, .data = {{"max_bytes", bytes}}};
}

answer run_sideload_prepare(const options& options) {
    const auto request = [&] {
        return fota_client_sideload_prepare_package(options.path.c_str(), options.timeout_ms);
    };
    return {long_request(options, "joining the pieces", STATE_PREPARING, prepare_progress, request),
            std::string("The bundle is signed and complete; its package is ") + FOTA_UPGRADE_PKG + "."};
}

answer run_sideload_start(const options& options) {
    uint32_t secs = 0;
    const auto request = [&] {
        return fota_client_sideload_start_installation(options.agent.c_str(), options.path.c_str(), &secs,
                                                       options.timeout_ms);
    };
    const int result =
        long_request(options, "checking the package", STATE_SIDE_LOADING, check_progress, request);
    if (result != FOTA_RC_SUCCESS) return {result};
    return {
        .message = "The package is valid; its installation starts when the daemon's waiting time is over.",
        .lines = {{"estimated time", secs == 0 ? "unknown" : duration_text(secs)}},
        .data = {{"estimated_secs", secs}}};
}

answer run_sua(const options& options) {
    return {
        fota_client_sua_update_start(&options.device, options.timeout_ms),
        "The update session belongs to SUA; the installation starts when the daemon's waiting time is over."};
}

// clang-format off
constexpr command COMMANDS[] = {
    {nullptr, "sideload-max-size", "Largest package that the daemon takes by side-load now",
     "", FOTA_MSG_GET_SIDELOAD_MAX_PKG_SIZE, add_nothing, run_sideload_max_size},
    {nullptr, "sideload", "Install a package that a user has uploaded", ""},
    {"sideload", "prepare", "Check the uploaded bundle and join its pieces; the bundle is removed",
     "/opt/qast/data/webui/uploads/uploadedfile", FOTA_MSG_SIDELOAD_PREPARE_PACKAGE, add_path, run_sideload_prepare, PACKAGE_TIMEOUT_SECS},
    {"sideload", "start", "Validate a package, such as /opt/qast/data/fota/upgrade.zip, and install it: the device restarts",
     "web-ui /opt/qast/data/fota/upgrade.zip", FOTA_MSG_SIDELOAD_START_INSTALLATION, add_agent_and_path, run_sideload_start, PACKAGE_TIMEOUT_SECS},
    {nullptr, "sua", "Start a script-driven update, whoever has the session: the device restarts",
     "--modem MDM2.1.07 --os 5.2.1", FOTA_MSG_SUA_UPATE_START, add_device_info, run_sua, 30, lost_by_sua},
};
// clang-format on

}  // namespace

std::span<const command> local_update_commands() {
    return COMMANDS;
}
