#include "tools/play/agents.h"

#include <cstring>

#include "fota/fota_client.h"
#include "tools/play/programs.h"

int agent_lock(update_session& session) {
    return fota_client_create_session_lock(session.agent.c_str(), session.timeout_ms);
}

int agent_download(update_session& session) {
    if (session.package_fd >= 0) bring_package(session.package_fd, FOTA_UPGRADE_PKG, 1, session.progress);
    return FOTA_RC_SUCCESS;
}

int agent_validate(update_session& session) {
    fota_pkg_info info{};
    std::strncpy(info.agent_name, session.agent.c_str(), sizeof info.agent_name - 1);
    std::strncpy(info.update_method, session.method, sizeof info.update_method - 1);
    std::strcpy(info.manufacturer, "Velmora");
    return fota_client_validate_update_pkg(session.package, &info, &(session.rec_id = 0),
                                           session.package_timeout_ms);
}

int agent_pending_record(update_session& session) {
    return fota_client_get_current_sess_record(session.agent.c_str(), &(session.pending = {}),
                                               session.timeout_ms);
}

int agent_defer(update_session& session) {
    return fota_client_incr_install_defer_count(session.agent.c_str(), session.timeout_ms);
}

// The package's script before the installation runs meanwhile.
int agent_start(update_session& session) {
    return fota_client_start_installation(session.agent.c_str(), session.boot_preference, session.wait_secs,
                                          session.package_timeout_ms);
}

int agent_sideload_prepare(update_session& session) {
    return fota_client_sideload_prepare_package(FOTA_WEBUI_UPLOAD, session.package_timeout_ms);
}

int agent_sideload_start(update_session& session) {
    return fota_client_sideload_start_installation(session.agent.c_str(), session.package,
                                                   &(session.estimate_secs = 0), session.package_timeout_ms);
}

int agent_script_start(update_session& session) {
    return fota_client_sua_update_start(&session.device, session.timeout_ms);
}

int agent_update_status(update_session& session) {
    return fota_client_get_update_status(session.agent.c_str(), &(session.outcome = {}), session.timeout_ms);
}

int agent_revert_status(update_session& session) {
    return fota_client_get_revert_status(&(session.outcome = {}), session.timeout_ms);
}

int agent_drive(update_session& session, std::span<const agent_request> requests) {
    int answer = FOTA_RC_SUCCESS;
    for (const agent_request request : requests) {
        answer = request(session);
        if (answer != FOTA_RC_SUCCESS) break;
    }
    return answer;
}
