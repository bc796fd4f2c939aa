// An update agent: agent URL AGENT. Run it at boot and then from time to time; it goes on from where the
// device stands. Ends with 0 when an update was installed or nothing is left to do now, with 1 when an update
// failed. While the file /run/AGENT.busy exists an installation is put off. Needs the program curl.
#include <fota/fota_client.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

namespace {

constexpr char PACKAGE[] = "/opt/qast/data/fota/upgrade.zip";
constexpr int TIMEOUT_MS = 20000;
constexpr int VALIDATION_SECS = 30 * 60;

bool is_done(int result, const char* what) {
    if (result == FOTA_RC_SUCCESS) return true;
    const char* meaning = fota_result_meaning(result);
    std::fprintf(stderr, "agent: %s: %s\n", what, meaning != nullptr ? meaning : "unknown result");
    return false;
}

bool download(const char* url) {
    uint32_t limit = 0;
    if (!is_done(fota_client_get_max_pkg_size(&limit, TIMEOUT_MS), "maximum size")) return false;
    const std::string size = std::to_string(limit);
    const char* const words[] = {"curl", "-sSf", "--max-filesize", size.c_str(), "-o", PACKAGE, url, nullptr};
    pid_t curl = -1;
    int status = -1;
    return posix_spawnp(&curl, "curl", nullptr, nullptr, const_cast<char**>(words), environ) == 0 &&
           waitpid(curl, &status, 0) == curl && status == 0;
}

// Without waiting in the library, as a program with a loop of its own does. The agent's name is known to fit.
int validate(const std::string& agent, const char* url) {
    fota_event_msg msg = {};
    msg.event = FOTA_MSG_VALIDATE_UPDATE_PKG;
    fota_validate_request& request = msg.payload.validate;
    std::strcpy(request.pkg_path, PACKAGE);
    std::strcpy(request.pkg_info.agent_name, agent.c_str());
    std::strcpy(request.pkg_info.update_method, "OTA");
    const char* slash = std::strrchr(url, '/');
    std::snprintf(request.pkg_info.pkg_name, sizeof request.pkg_info.pkg_name, "%s",
                  slash != nullptr ? slash + 1 : url);
    fota_client_call call;
    int result = fota_client_send(&msg, &call);
    if (result != FOTA_RC_SUCCESS) return result;
    result = FOTA_CLIENT_NOT_YET;
    for (int left = VALIDATION_SECS; left > 0 && result == FOTA_CLIENT_NOT_YET; --left) {
        pollfd waited = {call.fd, POLLIN, 0};
        if (poll(&waited, 1, 1000) == 0) std::fputc('.', stderr);
        result = fota_client_receive(&call, &msg);
    }
    fota_client_end(&call);
    return result;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) return 2;
    const char* const url = argv[1];
    const char* const agent = argv[2];
    fota_history_rec record;
    if (!is_done(fota_client_get_update_status(agent, &record, TIMEOUT_MS), "outcome")) return 1;
    if (record.rec_id != 0) {  // after the reboot; handed out once
        std::printf("%u %s\n", record.status, record.reason);
        return record.status == FOTA_STATUS_SUCCESS ? 0 : 1;
    }
    if (!is_done(fota_client_create_session_lock(agent, TIMEOUT_MS), "session")) return 1;
    const int result = fota_client_get_current_sess_record(agent, &record, TIMEOUT_MS);
    if (result == FOTA_RC_INVALID_PARAM) {  // no package yet
        if (!download(url) || !is_done(validate(agent, url), "validation")) return 1;
    } else if (!is_done(result, "package")) {
        return 1;
    }
    if (access(("/run/" + std::string(agent) + ".busy").c_str(), F_OK) == 0) {
        if (!is_done(fota_client_incr_install_defer_count(agent, TIMEOUT_MS), "putting off")) return 1;
        std::puts("put off");
        return 0;
    }
    if (!is_done(fota_client_start_installation(agent, FOTA_BOOT_ONLINE, 0, TIMEOUT_MS), "start")) return 1;
    std::puts("installation started");
    return 0;
}
