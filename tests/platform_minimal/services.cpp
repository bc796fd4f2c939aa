// The smallest port: a device without services. Only the message queue has to do something; it is the host's.
#include "dsm.h"
#include "modem2.h"
#include "msgbus.h"
#include "powersave.h"
#include "settings.h"
#include "vexa_dbg.h"
#include "watchdog.h"
#include "xmldata.h"

struct MsgBusHandle {
} bus;

extern "C" {

// A service that takes everything and does nothing.
#define SERVICE(type, name, answer, parameters) \
    type name parameters {                      \
        return answer;                          \
    }
SERVICE(int, dsm_set_persistent_mode, DSM_SUCCESS, (int))
SERVICE(int, dsm_reset_device, DSM_SUCCESS, (int))
SERVICE(int, powersave_wakelock_acquire, POWERSAVE_SUCCESS, (const char*))
SERVICE(int, powersave_wakelock_release, POWERSAVE_SUCCESS, (const char*))
SERVICE(int, watchdog_application_register, 0, (const char*, int))
SERVICE(int, watchdog_application_send_keep_alive, 0, (const char*))
SERVICE(MsgBusHandle*, MsgBus_Create, &bus, (const char*))
SERVICE(int, MsgBus_Connect, 0, (MsgBusHandle*))
SERVICE(int, MsgBus_SetCallback, 0, (MsgBusHandle*, MsgBusCallback))
SERVICE(int, MsgBusSetBinary, 0, (const char*, const void*, int))
SERVICE(int, MsgBusSetInt64, 0, (const char*, int64_t))
SERVICE(int, MsgBusGet, (value->value = 1, 0), (const char*, MsgBusValue* value))
SERVICE(int, settings_get_features, (all->fota_enabled = 1, SETTINGS_SUCCESS), (settings_features * all))
SERVICE(int, modem2_get_info, (*info = {}, 0), (modem2_info * info))
SERVICE(int, xmldata_initialize, 0, (const char*, const char*))
SERVICE(int, xmldata_getcount, (*count = 0), (const char*, int* count))
SERVICE(int, xmldata_getuint32_default, (*out = unset, -1), (const char*, uint32_t* out, uint32_t unset))
SERVICE(int, xmldata_getstring_default, -1, (const char*, char*, int, const char*))
SERVICE(const char*, vexa_dbg_get_level_name, "", (int))
void MsgBus_Disconnect(MsgBusHandle*) {}
void MsgBus_Release(MsgBusHandle*) {}
void xmldata_shutdown(void) {}
void vexa_dbg_start(void) {}
void vexa_dbg_stop(void) {}
void vexa_dbg_context(const char*, const char*, uint32_t) {}
void vexa_dbg_log(const char*, int, const char*, ...) {}
void vexa_dbg_syslog(int, const char*, ...) {}
}  // extern "C"
