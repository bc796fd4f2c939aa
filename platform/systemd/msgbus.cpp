// The keys as files, and announced on the system bus: by a thread that owns the connection, so that whoever
// sets a key never waits for D-Bus. What the thread tells it reads from the files.
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "msgbus_files.h"
#include "system_bus.h"
#include "vexa_dbg.h"

namespace {

constexpr char NAME[] = "org.fotad.Update1";
constexpr char OBJECT[] = "/org/fotad/Update1";
constexpr char FEATURES_FILE[] = "/opt/qast/etc/features.xml";
constexpr uint64_t START_LIMIT = 2000000;  // microseconds
constexpr int RETRY_MS = 3000;
constexpr size_t LARGEST_VALUE = 4096;
constexpr int LEVEL_NOTICE = 5;

struct property {
    const char *name, *type, *key;
};
constexpr property PROPERTIES[] = {{"UpgradeStatus", "x", "fota.upgrade_status"},
                                   {"BackupBeforeUpdate", "u", "fota.backup_before_update"},
                                   {"UpdateStatus", "ay", "fota.update_status"},
                                   {"RevertStatus", "ay", "fota.revert_status"}};

std::atomic<int> wake_fd = -1;  // stays open: another thread may be about to write to it
std::atomic<bool> ends;
std::atomic<unsigned> changed;  // a bit for each property
pthread_t thread;
bool thread_runs;

// What is not set is 0, or empty.
int get_property(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void* place,
                 sd_bus_error*) {
    const auto* const wanted = static_cast<const property*>(place);
    alignas(int64_t) unsigned char value[LARGEST_VALUE] = {};
    const ssize_t size = platform::read_key(wanted->key, value, sizeof value);
    if (wanted->type[0] != 'a') return sd_bus_message_append_basic(reply, wanted->type[0], value);
    return sd_bus_message_append_array(reply, 'y', value, size > 0 ? static_cast<size_t>(size) : 0);
}

#define READ_ONLY(index)                                                          \
    SD_BUS_PROPERTY(PROPERTIES[index].name, PROPERTIES[index].type, get_property, \
                    (index) * sizeof(property), SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE)
constexpr sd_bus_vtable INTERFACE[] = {SD_BUS_VTABLE_START(0), READ_ONLY(0), READ_ONLY(1),
                                       READ_ONLY(2),           READ_ONLY(3), SD_BUS_VTABLE_END};
#undef READ_ONLY

// Once, and not every few seconds for as long as nothing changes.
void say(const char* what) {
    static char said[128];
    if (strcmp(said, what) == 0) return;
    snprintf(said, sizeof said, "%s", what);
    vexa_dbg_log("MSGBUS", LEVEL_NOTICE, "[MSGBUS]:[%s] - %s on the system bus: %s",
                 vexa_dbg_get_level_name(LEVEL_NOTICE), NAME, said);
}

enum name_state : int { REFUSED = -1, ASKED = 0, OWNED = 1 };

int take_name(sd_bus_message* reply, void* state, sd_bus_error*) {
    constexpr uint32_t PRIMARY_OWNER = 1;
    uint32_t answer = 0;
    const sd_bus_error* const error = sd_bus_message_get_error(reply);
    const bool owned =
        error == nullptr && sd_bus_message_read(reply, "u", &answer) > 0 && answer == PRIMARY_OWNER;
    *static_cast<name_state*>(state) = owned ? OWNED : REFUSED;
    say(owned ? "announced" : error != nullptr ? error->name : "the name belongs to another");
    return 0;
}

void announce(sd_bus* bus) {
    const unsigned now = changed.exchange(0);
    for (unsigned i = 0; i < std::size(PROPERTIES); ++i) {
        if ((now & 1U << i) == 0) continue;
        (void)sd_bus_emit_properties_changed(bus, OBJECT, NAME, PROPERTIES[i].name, nullptr);
    }
}

// Waits for the bus, at most until `until`, or until it wants to be looked at again; without one until it is
// time to try again. A key that is set ends it too.
void wait_for_events(sd_bus* bus, uint64_t until) {
    pollfd events[] = {{wake_fd, POLLIN, 0}, {-1, 0, 0}};
    int timeout_ms = RETRY_MS;
    if (bus != nullptr) {
        uint64_t own = UINT64_MAX;
        (void)sd_bus_get_timeout(bus, &own);
        const uint64_t now = platform::bus_clock(), end = std::min(own, until);
        const uint64_t left_ms = end > now ? (end - now) / 1000 + 1 : 0;
        timeout_ms = static_cast<int>(std::min<uint64_t>(left_ms, INT_MAX));
        events[1] = {sd_bus_get_fd(bus), static_cast<short>(sd_bus_get_events(bus)), 0};
    }
    (void)poll(events, std::size(events), timeout_ms);
    uint64_t count = 0;
    [[maybe_unused]] const ssize_t nothing_when_not_woken = read(wake_fd, &count, sizeof count);
}

// Returns when the connection is of no use any more, or the thread is to end.
void serve(sd_bus* bus) {
    name_state name = ASKED;
    const uint64_t start_end = platform::bus_clock() + START_LIMIT;
    if (sd_bus_add_object_vtable(bus, nullptr, OBJECT, NAME, INTERFACE, const_cast<property*>(PROPERTIES)) <
            0 ||
        sd_bus_request_name_async(bus, nullptr, NAME, 0, take_name, &name) < 0) {
        return;
    }
    for (;;) {
        const int done = sd_bus_process(bus, nullptr);
        if (name == OWNED) announce(bus);
        if (done < 0 || name == REFUSED || ends) return;
        if (name == ASKED && platform::bus_clock() >= start_end) return say("no answer");
        if (done == 0) wait_for_events(bus, name == OWNED ? UINT64_MAX : start_end);
    }
}

void* publish(void*) {
    while (!ends) {
        sd_bus* bus = nullptr;
        if (sd_bus_open_system(&bus) >= 0) {
            serve(bus);
        } else {
            say("no system bus");
        }
        sd_bus_close_unref(bus);
        if (!ends) wait_for_events(nullptr, 0);
    }
    return nullptr;
}

void wake() {
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t full_wakes_too = write(wake_fd, &one, sizeof one);
}

// Without it the keys are files only, and the daemon serves all the same.
void start_publishing() {
    if (wake_fd < 0) wake_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    ends = false;
    // Signals are the daemon's.
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    thread_runs = wake_fd >= 0 && pthread_create(&thread, nullptr, publish, nullptr) == 0;
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (!thread_runs) say("no thread");
}

}  // namespace

extern "C" int MsgBus_Connect(MsgBusHandle* bus) {
    bus->connected = platform::make_bus_folder();
    if (bus->connected && !thread_runs) start_publishing();
    return bus->connected ? 0 : -1;
}

extern "C" void MsgBus_Disconnect(MsgBusHandle* bus) {
    bus->connected = false;
    if (!thread_runs) return;
    ends = true;
    wake();
    pthread_join(thread, nullptr);
    thread_runs = false;
}

extern "C" int MsgBusSetBinary(const char* key, const void* data, int size) {
    if (!platform::write_key(key, data, size)) return -1;
    for (unsigned i = 0; i < std::size(PROPERTIES); ++i) {
        if (strcmp(key, PROPERTIES[i].key) == 0) changed |= 1U << i;
    }
    wake();
    return 0;
}

extern "C" int MsgBusGet(const char* key, MsgBusValue* value) {
    const int result = platform::get_key(key, value);
    // The settings are a file: no program has to say after each boot that they can be read.
    if (strcmp(key, "settings.ready") != 0 || access(FEATURES_FILE, R_OK) != 0) return result;
    value->value = 1;
    return 0;
}
