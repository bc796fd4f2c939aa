#include "msgbus_files.h"

#include <bit>
#include <new>

#include "service_files.h"

namespace {

constexpr char FOLDER[] = "/run/vexa/msgbus";

}  // namespace

static_assert(std::endian::native == std::endian::little, "integers are little-endian on the bus");

extern "C" MsgBusHandle* MsgBus_Create(const char* client) {
    if (client == nullptr || client[0] == '\0') return nullptr;
    return new (std::nothrow) MsgBusHandle{};
}

// This bus announces no events.
extern "C" int MsgBus_SetCallback(MsgBusHandle* bus, MsgBusCallback) {
    return bus->connected ? 0 : -1;
}

extern "C" void MsgBus_Release(MsgBusHandle* bus) {
    MsgBus_Disconnect(bus);
    delete bus;
}

extern "C" int MsgBusSetInt64(const char* key, int64_t value) {
    return MsgBusSetBinary(key, &value, sizeof value);
}

namespace platform {

bool make_bus_folder() {
    return make_folder(FOLDER);
}

bool write_key(const char* key, const void* data, int size) {
    return size >= 0 && make_bus_folder() && replace_file(FOLDER, key, data, static_cast<size_t>(size));
}

ssize_t read_key(const char* key, void* data, size_t size) {
    return read_file(FOLDER, key, data, size);
}

int get_key(const char* key, MsgBusValue* value) {
    *value = {};
    uint32_t start = 0;
    if (read_key(key, &start, sizeof start) < 0) return -1;
    value->value = start;
    return 0;
}

}  // namespace platform
