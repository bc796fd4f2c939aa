// Those who drive an update: the requests that each path is made of.
//
// Call them inside the sandbox, from any of its processes, beside a running daemon. Each sends its request
// and returns the client's result code: FOTA_RC_..., or a negative FOTA_CLIENT_..., as for a text that does
// not fit its field. What the daemon told is in the session then, in the place of what it had told before.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "common/state_files.h"
#include "fota/request.h"

struct update_session {
    std::string agent;
    const char* method = "";                  // what the record is to say of the path
    int package_fd = -1;                      // of what comes to the device; -1: nothing, it is there
    void (*progress)(int percent) = nullptr;  // told how much of it has come; null: nobody is
    const char* package = FOTA_UPGRADE_PKG;   // on the device, to be validated or side-loaded
    uint32_t boot_preference = FOTA_BOOT_ONLINE;
    uint32_t wait_secs = 0;     // between the start request and the installation
    fota_device_info device{};  // what a script-driven update is told
    int timeout_ms = 60000;
    int package_timeout_ms = 300000;  // for a request that looks through a package

    uint32_t rec_id = 0;  // made by the validation; 0: none
    uint32_t estimate_secs = 0;
    fota_history_rec pending{};  // the record before there is an outcome
    fota_history_rec outcome{};  // rec_id 0: there is none
};

using agent_request = int (*)(update_session& session);

// Over the air. The download is no request: it is answered with success, or throws std::exception.
[[nodiscard]] int agent_lock(update_session& session);
[[nodiscard]] int agent_download(update_session& session);
[[nodiscard]] int agent_validate(update_session& session);
[[nodiscard]] int agent_pending_record(update_session& session);
[[nodiscard]] int agent_defer(update_session& session);
[[nodiscard]] int agent_start(update_session& session);

// The other ways.
[[nodiscard]] int agent_sideload_prepare(update_session& session);
[[nodiscard]] int agent_sideload_start(update_session& session);
[[nodiscard]] int agent_script_start(update_session& session);

// Afterwards, of an update of this agent and of a fall-back.
[[nodiscard]] int agent_update_status(update_session& session);
[[nodiscard]] int agent_revert_status(update_session& session);

inline constexpr agent_request OVER_THE_AIR[] = {agent_lock, agent_download, agent_validate, agent_start};
inline constexpr agent_request SIDE_LOAD[] = {agent_sideload_prepare, agent_sideload_start};

// Makes the requests one after the other, up to the first that is not answered with success. Returns the last
// answer.
[[nodiscard]] int agent_drive(update_session& session, std::span<const agent_request> requests);
