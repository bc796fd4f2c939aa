// The device's other programs in an update: who brings the package, the update tool, the installer, the boot
// fail-safe, and who takes the device from one run level to the next.
//
// Call them inside the sandbox, from any of its processes. They throw std::exception with one sentence when
// they cannot do their work. The installer and the fail-safe work while the daemon does not run.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "fota/request.h"

// Copies what `fd` holds, or the first of so many equal parts of it, to a place on the device, synced.
// `progress` is told how much has come; it may be null.
void bring_package(int fd, const std::string& path, int parts = 1, void (*progress)(int percent) = nullptr);

// What the simulated device is, as a script-driven update is told.
[[nodiscard]] fota_device_info device_information();

inline constexpr char TOOL_PACKAGE[] = "/opt/qast/data/fota/staging/sua_package";

// The update tool of the script-driven path: brings what `fd` holds to TOOL_PACKAGE, and describes it.
void run_update_tool(int fd);

// Who has been asked to leave normal operation for the installation, and for what: "device state manager: run
// level 5", or "init: ..." when a command has to do. A full image asks for "reset". Empty: nobody yet.
[[nodiscard]] std::string asked_to_install(bool full_image);

// Waits until somebody has been asked. Empty: not in that time.
[[nodiscard]] std::string await_installation(bool full_image, int timeout_ms);

enum class configuration { NOT_TOUCHED, UPDATED, FAILED };

// What the installer says of a configuration that it cannot update.
inline constexpr char PRI_MODEM_TEXT[] = "modem configuration does not match";
inline constexpr char PRI_LINUX_TEXT[] = "system configuration does not match";

// How an installation ends. With both codes away the firmware is installed.
struct installer_outcome {
    std::optional<long> code{};             // the installer fails with it
    std::optional<uint32_t> revert_code{};  // the boot fail-safe rejects the new firmware with it
    std::string reason{};                   // text that goes with the code; empty: there is none
    configuration modem_pri = configuration::NOT_TOUCHED;
    configuration linux_pri = configuration::NOT_TOUCHED;
};

// What installer and fail-safe tell the daemon, and nothing else: the result files of that outcome.
void leave_result(const installer_outcome& outcome);

// Version that the staged package brings: of the package, or of what the update tool says.
[[nodiscard]] std::string staged_version();

// Gives the device the firmware of the staged package.
void write_firmware();

// The installer as a whole, and after it the fail-safe: takes the flag, writes the firmware, leaves the
// result. False, and nothing is done, when the staging folder does not call for that installation.
[[nodiscard]] bool run_installer(const installer_outcome& outcome, bool full_image);
