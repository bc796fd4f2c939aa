#include "msgbus.h"

#include <bit>
#include <cstring>
#include <new>

#include "service_files.h"

struct MsgBusHandle {
    bool connected;
};

namespace {

constexpr char FOLDER[] = "/run/vexa/msgbus";

}  // namespace

static_assert(std::endian::native == std::endian::little, "integers are little-endian on the bus");

extern "C" MsgBusHandle* MsgBus_Create(const char* client) {
    if (client == nullptr || client[0] == '\0') return nullptr;
    return new (std::nothrow) MsgBusHandle{};
}

extern "C" int MsgBus_Connect(MsgBusHandle* bus) {
    bus->connected = platform::make_folder(FOLDER);
    return bus->connected ? 0 : -1;
}

// This bus announces no events.
extern "C" int MsgBus_SetCallback(MsgBusHandle* bus, MsgBusCallback) {
    return bus->connected ? 0 : -1;
}

extern "C" void MsgBus_Disconnect(MsgBusHandle* bus) {
    bus->connected = false;
}

extern "C" void MsgBus_Release(MsgBusHandle* bus) {
    delete bus;
}

extern "C" int MsgBusSetBinary(const char* key, const void* data, int size) {
    if (size < 0 || !platform::make_folder(FOLDER)) return -1;
    return platform::replace_file(FOLDER, key, data, static_cast<size_t>(size)) ? 0 : -1;
}

extern "C" int MsgBusSetInt64(const char* key, int64_t value) {
    return MsgBusSetBinary(key, &value, sizeof value);
}

extern "C" int MsgBusGet(const char* key, MsgBusValue* value) {
    *value = {};
    uint32_t start = 0;
    if (platform::read_file(FOLDER, key, &start, sizeof start) < 0) return -1;
    value->value = start;
    return 0;
}
