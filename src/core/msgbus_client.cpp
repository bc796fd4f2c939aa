#include "core/msgbus_client.h"

#include "core/daemon_state.h"
#include "core/log.h"

namespace {

constexpr char CLIENT_NAME[] = "FOTA_MBH";

MsgBusHandle* bus = nullptr;

fota_rc attach_failed(const char* step) {
    if (bus != nullptr) MsgBus_Release(bus);
    bus = nullptr;
    LOG_ERROR_DEBUG_ONLY_AS(CLIENT_NAME, "%s Failed", step);
    return FOTA_RC_FAILURE;
}

// Texts of a record may lack their terminator.
constexpr int width(size_t field_size) {
    return static_cast<int>(field_size);
}

}  // namespace

fota_rc fota_msgbus_init() {
    if (bus != nullptr) return FOTA_RC_SUCCESS;
    bus = MsgBus_Create(CLIENT_NAME);
    if (bus == nullptr) return attach_failed("MsgBus_Create");
    if (MsgBus_Connect(bus) != 0) return attach_failed("MsgBus_Connect");
    if (MsgBus_SetCallback(bus, fota_msgbus_callback) != 0) {
        MsgBus_Disconnect(bus);
        return attach_failed("MsgBus_SetCallback");
    }
    LOG_NOTICE_AS(CLIENT_NAME, "Init MsgBus done");
    return FOTA_RC_SUCCESS;
}

fota_rc fota_msgbus_disable() {
    if (bus == nullptr) return FOTA_RC_FAILURE;
    LOG_NOTICE_AS(CLIENT_NAME, "Disable Message bus interface");
    MsgBus_Disconnect(bus);
    MsgBus_Release(bus);
    bus = nullptr;
    return FOTA_RC_SUCCESS;
}

void fota_msgbus_callback(MsgBusHandle*, const MsgBusEvent*) {}

void fota_broadcast_update_status(const fota_history_rec* record) {
    LOG_NOTICE("send out update status=[%d], agent=[%.*s]\n", static_cast<int>(record->status),
               width(sizeof record->pkg_info.agent_name), record->pkg_info.agent_name);
    const int rc = MsgBusSetBinary("fota.update_status", record, sizeof *record);
    if (rc != 0)
        LOG_ERROR("MsgBusSetBinary(FOTA_UPDATE_STATUS_MESSAGE_BUS_CHANNEL,..) failed, rc=[%d]\n", rc);
}

void fota_broadcast_revert_status(const fota_history_rec* record) {
    LOG_NOTICE("send out revert status=[%d], agent=[%.*s]\n", static_cast<int>(record->status),
               width(sizeof record->pkg_info.agent_name), record->pkg_info.agent_name);
    const int rc = MsgBusSetBinary("fota.revert_status", record, sizeof *record);
    if (rc != 0)
        LOG_ERROR("MsgBusSetBinary(FOTA_REVERT_STATUS_MESSAGE_BUS_CHANNEL,..) failed, rc=[%d]\n", rc);
}

void fota_broadcast_upgrade_status(int32_t status) {
    LOG_NOTICE("send out upgrade status=[%d]\n", status);
    fota_set_last_upgrade_status(status);
    const int rc = MsgBusSetInt64("fota.upgrade_status", status);
    if (rc != 0)
        LOG_ERROR("MsgBusSetInt32(FOTA_UPGRADE_STATUS_MESSAGE_BUS_CHANNEL,..) failed, rc=[%d]\n", rc);
}

void fota_broadcast_backup_before_update(int32_t seconds) {
    LOG_NOTICE("Sending out - [FOTA_BACKUP_BEFORE_UPDATE]\n");
    const int rc = MsgBusSetBinary("fota.backup_before_update", &seconds, sizeof seconds);
    if (rc != 0) LOG_ERROR("MsgBusSetBinary(FOTA_BACKUP_BEFORE_UPDATE,..) failed, rc=[%d]\n", rc);
}
