// The daemon on the message bus: it attaches once and announces what becomes of updates. A broadcast that
// fails is logged and not repeated. Broadcasts: any thread.
#pragma once

#include <cstdint>

#include "fota/history_record.h"
#include "fota/result_codes.h"
#include "msgbus.h"

enum fota_upgrade_status {
    FOTA_UPGRADE_IDLE = 0,      // no installation under way
    FOTA_UPGRADE_STARTED = 1,   // an installation has been started
    FOTA_UPGRADE_RESETTING = 2  // the full-image installation is resetting the device
};

// FOTA_RC_SUCCESS when attached, also when it was so before; else FOTA_RC_FAILURE. Main thread.
[[nodiscard]] fota_rc fota_msgbus_init();

// FOTA_RC_FAILURE when not attached. Main thread.
[[nodiscard]] fota_rc fota_msgbus_disable();

// Given to the bus library; the daemon acts on no event.
void fota_msgbus_callback(MsgBusHandle* bus, const MsgBusEvent* event);

// The record of an update whose outcome has been recorded, and of a fall-back to the previous firmware.
void fota_broadcast_update_status(const fota_history_rec* record);
void fota_broadcast_revert_status(const fota_history_rec* record);

// Also keeps the status for clients that ask later, even when the broadcast fails.
void fota_broadcast_upgrade_status(int32_t status);

// Warns that an installation starts in `seconds`.
void fota_broadcast_backup_before_update(int32_t seconds);
