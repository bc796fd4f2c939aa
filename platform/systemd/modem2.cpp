#include "modem2.h"

#include <cstdio>
#include <cstring>

#include "modem_file.h"
#include "system_bus.h"

namespace {

constexpr int LEVEL_NOTICE = 5;
constexpr char MODEM_INTERFACE[] = "org.freedesktop.ModemManager1.Modem";

// Enters the next entry of a dictionary and reads its key. False at the dictionary's end, or when the message
// is not of the form that it should be.
bool next_entry(sd_bus_message* reply, const char* types, const char* key_type, const char** key) {
    return sd_bus_message_enter_container(reply, 'e', types) > 0 &&
           sd_bus_message_read(reply, key_type, key) > 0;
}

// The properties of an interface: the revision, or null.
const char* revision_among(sd_bus_message* reply) {
    const char* name = nullptr;
    if (sd_bus_message_enter_container(reply, 'a', "{sv}") <= 0) return nullptr;
    while (next_entry(reply, "sv", "s", &name)) {
        const char* revision = nullptr;
        if (strcmp(name, "Revision") == 0) {
            return sd_bus_message_read(reply, "v", "s", &revision) > 0 ? revision : nullptr;
        }
        if (sd_bus_message_skip(reply, "v") < 0 || sd_bus_message_exit_container(reply) < 0) return nullptr;
    }
    return nullptr;
}

// The first modem's revision, or null.
const char* find_revision(sd_bus_message* reply) {
    const char* name = nullptr;
    if (sd_bus_message_enter_container(reply, 'a', "{oa{sa{sv}}}") <= 0) return nullptr;
    while (next_entry(reply, "oa{sa{sv}}", "o", &name)) {
        if (sd_bus_message_enter_container(reply, 'a', "{sa{sv}}") < 0) return nullptr;
        while (next_entry(reply, "sa{sv}", "s", &name)) {
            if (strcmp(name, MODEM_INTERFACE) == 0) return revision_among(reply);
            if (sd_bus_message_skip(reply, "a{sv}") < 0 || sd_bus_message_exit_container(reply) < 0)
                return nullptr;
        }
        if (sd_bus_message_exit_container(reply) < 0 || sd_bus_message_exit_container(reply) < 0)
            return nullptr;
    }
    return nullptr;
}

}  // namespace

extern "C" int modem2_get_info(modem2_info* info) {
    *info = {};
    platform::bus_caller caller("MODEM", LEVEL_NOTICE);
    sd_bus_message* const reply = bus_call(&caller,
                                           {"org.freedesktop.ModemManager1", "/org/freedesktop/ModemManager1",
                                            "org.freedesktop.DBus.ObjectManager", "GetManagedObjects"},
                                           "");
    const char* const revision = reply != nullptr ? find_revision(reply) : nullptr;
    if (revision != nullptr) {
        const size_t length = strcspn(revision, "\r\n");
        memcpy(info->fw_version, revision,
               length < sizeof info->fw_version ? length : sizeof info->fw_version - 1);
    } else {
        // A modem that the modem manager does not know, or a simulated one.
        platform::read_modem_file(info);
    }
    return 0;
}
