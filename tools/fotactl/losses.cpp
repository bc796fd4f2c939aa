#include "losses.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>

#include "common/file_helpers.h"
#include "common/state_files.h"
#include "device_state.h"
#include "tools/common/output.h"

namespace {

constexpr char SUA_AGENT[] = "SUA";

// An installation that goes on, or whose outcome nobody has recorded yet.
std::string started_installation(const options& options) {
    int32_t status = 0;
    const bool is_told = fota_client_get_upgrade_status(&status, options.timeout_ms) == FOTA_RC_SUCCESS;
    finding found = finding::ABSENT;
    const update_stage* const stage = find_stage(&found);
    const std::string key = stage == nullptr ? "" : stage->key;
    if (key == "installed" || key == "install_failed" || key == "fell_back")
        return "the outcome of the installation would be lost: " + std::string(stage->words);
    if (key == STAGE_INSTALLING || (is_told && status != 0)) {
        return "an installation has been started: its update would be thrown away, and the device may switch "
               "to its installation all the same";
    }
    return "";
}

// Then it refuses what this is asked for.
bool drops_requests() {
    return find_flag(FOTA_SIDELOAD_COOKIE) == finding::PRESENT ||
           find_flag(FOTA_STAGING_UPDATE_PRE_FULL_FOTA_INSTALL) == finding::PRESENT;
}

bool is_of(const std::string& agent) {
    const found_text owner = find_text(FOTA_SESSION_LOCK);
    return owner.found == finding::PRESENT && owner.text == agent;
}

std::string session_package() {
    const bool is_validated = find_flag(FOTA_STAGING_UPDATE_DLPKG_VERIFIED) == finding::PRESENT;
    const bool is_there = find_flag(FOTA_UPGRADE_PKG) == finding::PRESENT;
    if (!is_validated && !is_there) return "";
    const std::string size =
        is_there ? ", " + size_text(static_cast<uint64_t>(fota_get_file_size(FOTA_UPGRADE_PKG))) : "";
    return std::string(is_validated ? "the validated package" : "the package") + size;
}

// clang-format off
struct state_file {
    const char* path;
    const char* what;
};
constexpr state_file STATE_FILES[] = {
    {FOTA_HISTORY_DB, "the history of all updates"},
    {FOTA_SESSION_LOCK, "the update session"},
    {FOTA_UPGRADE_PKG, "the session's package"},
    {FOTA_TRACKING, "what the outcome is recorded by"},
    {FOTA_RESULT_PROCESSED, "an outcome that nobody has asked for yet"},
    {FOTA_REVERT_PROCESSED, "a fall-back that nobody has asked for yet"},
    {FOTA_REVERT_MARKER, "a fall-back that is not recorded yet"},
    {FOTA_WEBUI_UPLOAD, "an upload"},
    {FOTA_CONFIG_FILE, "the daemon's configuration"},
    {FOTA_DEVICE_KEY, "the device's key: it would take no package any more"},
    {FOTA_BUILD_CERT, "the signers' certificates: the device would take no package any more"},
    {FOTA_BUILD_PUBKEY, "the build's key: the device would take no bundle any more"},
};
// clang-format on

}  // namespace

std::string lost_by_unlock(const options& options) {
    if (drops_requests() || !is_of(options.agent)) return "";
    std::string installation = started_installation(options);
    if (!installation.empty()) return installation;
    const std::string package = session_package();
    return package.empty() ? "" : package + " would be thrown away";
}

std::string lost_by_abort(const options& options) {
    return drops_requests() || !is_of(options.agent) ? "" : started_installation(options);
}

std::string lost_by_sua(const options& options) {
    if (drops_requests()) return "";
    const found_text owner = find_text(FOTA_SESSION_LOCK);
    std::string installation = started_installation(options);
    if (!installation.empty()) return installation;
    if (owner.found != finding::PRESENT || owner.text == SUA_AGENT) return "";
    const std::string package = session_package();
    return "the session of " + (owner.text.empty() ? "nobody" : owner.text) +
           (package.empty() ? "" : " and " + package) + " would be thrown away";
}

std::string lost_by_removal(const options& options) {
    struct stat info = {};
    if (lstat(options.path.c_str(), &info) != 0) return "";
    const std::string path = std::filesystem::path(options.path).lexically_normal();  // one spelling of many
    for (const state_file& file : STATE_FILES) {
        if (path == file.path) return path + " is " + file.what;
    }
    if (!path.starts_with(std::string(FOTA_DATA_DIR) + "/")) return "";
    return path + " is a file by which the daemon knows how its update stands";
}

bool is_confirmed(const std::string& loss) {
    if (isatty(STDIN_FILENO) != 1 || isatty(STDERR_FILENO) != 1) return false;
    fprintf(stderr, "fotactl: %s. Do it all the same? [y/N] ", escaped(loss).c_str());
    char line[8] = {};
    return fgets(line, sizeof line, stdin) != nullptr && (line[0] == 'y' || line[0] == 'Y');
}
