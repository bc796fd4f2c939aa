#include "msgbus_files.h"

extern "C" int MsgBus_Connect(MsgBusHandle* bus) {
    bus->connected = platform::make_bus_folder();
    return bus->connected ? 0 : -1;
}

extern "C" void MsgBus_Disconnect(MsgBusHandle* bus) {
    bus->connected = false;
}

extern "C" int MsgBusSetBinary(const char* key, const void* data, int size) {
    return platform::write_key(key, data, size) ? 0 : -1;
}

extern "C" int MsgBusGet(const char* key, MsgBusValue* value) {
    return platform::get_key(key, value);
}
