#include "long_requests.h"

#include <filesystem>

#include "common/command.h"
#include "common/state_files.h"
#include "tools/common/output.h"
#include "tools/common/patience.h"
#include "tools/common/steps.h"

namespace {

namespace fs = std::filesystem;

// 0 for a file that is empty, not there, or not for this user to see.
uint64_t size_of(const char* path) {
    std::error_code error;
    const uintmax_t size = fs::file_size(path, error);
    return error ? 0 : size;
}

std::string share_text(uint64_t done, uint64_t of) {
    return size_text(done) + " of " + size_text(of);
}

}  // namespace

std::string as_argument(const std::string& agent) {
    return is_plain_path(agent.c_str()) ? agent : "AGENT";
}

std::string agent_filled_in(std::string text, const std::string& agent) {
    for (size_t at = text.find("{}"); at != std::string::npos; at = text.find("{}"))
        text.replace(at, 2, as_argument(agent));
    return text;
}

// A file of work is removed or emptied when the step that reads it has ended.
std::string check_progress() {
    const uint64_t encrypted = size_of(FOTA_PKG_DETAILS_ENCRYPTED);
    const uint64_t decrypted = size_of(FOTA_DECRYPT_TEMP);
    const uint64_t details = size_of(FOTA_PKG_DETAILS);
    if (encrypted != 0 && decrypted != 0) return "decrypting, " + share_text(decrypted, encrypted);
    if (encrypted != 0) return "unpacking it, " + size_text(encrypted);
    if (decrypted != 0) return "checking the signature, " + share_text(details, decrypted);
    if (details != 0) return "unpacking and comparing the content, " + size_text(details);
    return "";
}

std::string prepare_progress() {
    if (size_of(FOTA_WEBUI_UPLOAD) != 0) return "unpacking the bundle";
    const uint64_t joined = size_of(FOTA_UPGRADE_PKG);  // begun anew when the bundle is unpacked, and gone
    return joined == 0 ? "" : size_text(joined) + " joined";
}

std::string nothing_to_tell() {
    return "";
}

int long_request(const options& options, const char* doing, const char* state, std::string (*progress)(),
                 const std::function<int()>& request) {
    const end_signals signals;
    if (!options.json) set_doing(doing, progress);
    return wait_for(request, signals, [&](bool is_sent) {
        return is_sent ? agent_filled_in(state, options.agent) : "Nothing has been asked for yet.";
    });
}
