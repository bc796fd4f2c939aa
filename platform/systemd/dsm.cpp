#include "dsm.h"

#include <fcntl.h>
#include <unistd.h>

#include "inhibitor.h"
#include "service_files.h"
#include "system_bus.h"
#include "vexa_dbg.h"

namespace {

using platform::bus_call;
using platform::bus_caller;

constexpr int DSM_FAILURE = 0x70001;
constexpr int INSTALLER_RUN_LEVEL = 5;
constexpr int LEVEL_ERROR = 3;
constexpr char INSTALLER_TARGET[] = "fota-installer.target";
constexpr char TARGET_OBJECT[] = "/org/freedesktop/systemd1/unit/fota_2dinstaller_2etarget";

// Where systemd keeps its default target. It does not wait until that is on flash.
constexpr char UNITS_FOLDER[] = "/etc/systemd/system";

void sync_default_target() {
    const platform::scoped_fd folder(open(UNITS_FOLDER, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (folder.fd >= 0) (void)fsync(folder.fd);
}

constexpr platform::bus_method manager(const char* method) {
    return {"org.freedesktop.systemd1", "/org/freedesktop/systemd1", "org.freedesktop.systemd1.Manager",
            method};
}

// Whether anything is WantedBy the target: a device in an empty one stays there, and comes back there at each
// boot.
bool has_installer(bus_caller* caller) {
    const platform::bus_method get = {"org.freedesktop.systemd1", TARGET_OBJECT,
                                      "org.freedesktop.DBus.Properties", "Get"};
    sd_bus_message* const reply = bus_call(caller, get, "ss", "org.freedesktop.systemd1.Unit", "Wants");
    if (reply == nullptr) return false;
    const char* unit = nullptr;
    if (sd_bus_message_enter_container(reply, 'v', "as") > 0 &&
        sd_bus_message_enter_container(reply, 'a', "s") > 0 && sd_bus_message_read(reply, "s", &unit) > 0) {
        return true;
    }
    vexa_dbg_log("DSM", LEVEL_ERROR, "[DSM]:[%s] - no installer is enabled for %s",
                 vexa_dbg_get_level_name(LEVEL_ERROR), INSTALLER_TARGET);
    return false;
}

}  // namespace

extern "C" int dsm_set_persistent_mode(int run_level) {
    if (run_level != INSTALLER_RUN_LEVEL) return DSM_FAILURE;
    bus_caller caller("DSM", LEVEL_ERROR);
    if (!has_installer(&caller)) return DSM_FAILURE;
    // The next boot's first: a loss of power between the two must not end in a system that is up as ever
    // while the installer is awaited. Where then only the second fails it stays: the daemon's own way to the
    // installer follows, and the installer leads back from either.
    if (bus_call(&caller, manager("SetDefaultTarget"), "sb", INSTALLER_TARGET, 1) == nullptr)
        return DSM_FAILURE;
    sync_default_target();
    return bus_call(&caller, manager("StartUnit"), "ss", INSTALLER_TARGET, "isolate") != nullptr
               ? DSM_SUCCESS
               : DSM_FAILURE;
}

extern "C" int dsm_reset_device(int) {
    // It is this daemon's own inhibitor that would hold the reset up.
    platform::release_inhibitors();
    bus_caller caller("DSM", LEVEL_ERROR);
    const platform::bus_method reboot = {"org.freedesktop.login1", "/org/freedesktop/login1",
                                         "org.freedesktop.login1.Manager", "Reboot"};
    return bus_call(&caller, reboot, "b", 0) != nullptr ? DSM_SUCCESS : DSM_FAILURE;
}
