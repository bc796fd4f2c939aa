#include "tools/packages/staged_details.h"

#include <openssl/evp.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>

#include "common/file_helpers.h"
#include "common/state_files.h"
#include "common/text.h"
#include "fota/request.h"
#include "package/checksum_list.h"
#include "tools/common/files.h"
#include "tools/packages/archives.h"
#include "tools/packages/openssl_objects.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* SCRIPTS[] = {FOTA_STAGING_PRE_INSTALL_SCRIPT, FOTA_STAGING_FULL_FOTA_SCRIPT,
                                   FOTA_STAGING_POST_INSTALL_SCRIPT, FOTA_STAGING_POST_INSTALL_FAILED_SCRIPT};

std::string first_line(const fs::path& path) {
    char line[FOTA_TEXT_SIZE] = {};
    (void)read_first_line(path.c_str(), line);
    text_cut_line_end(line);
    return line;
}

std::vector<std::string> read_versions(const fs::path& path) {
    std::vector<std::string> versions;
    const file_ptr stream = open_regular_for_reading(path.c_str());
    char line[FOTA_TEXT_SIZE];
    while (stream && fgets(line, sizeof line, stream.get()) != nullptr) {
        text_trim(line);
        if (line[0] != '\0') versions.emplace_back(line);
    }
    return versions;
}

staged_file look_at(const fs::path& folder, const std::string& name, file_state state) {
    const file_range data = whole_file(folder / name);
    return {name, data.size, digest_of(data, EVP_md5()), state};
}

// A file that is listed twice has to match both times.
using files_by_name = std::map<std::string, staged_file>;

void add_listed(files_by_name& files, const fs::path& folder, const checksum_entry& entry) {
    const std::string name = fs::path(entry.name).lexically_normal();
    const auto known = files.find(name);
    if (known != files.end() && known->second.state != file_state::matching) return;
    staged_file file = {name, 0, "", file_state::outside};
    if (stays_inside(name)) {
        file.state = file_state::missing;
        if (fs::is_regular_file(folder / name)) {
            file = look_at(folder, name, file_state::matching);
            if (strncmp(file.md5.c_str(), entry.digest, file.md5.size()) != 0)
                file.state = file_state::differing;
        }
    }
    files[name] = file;
}

}  // namespace

std::string staged_name(std::string_view path) {
    return std::string(path.substr(sizeof FOTA_STAGING_DIR));
}

staged_details read_staged_details(const fs::path& folder) {
    staged_details details;
    const auto at = [&](const char* staged_path) { return folder / staged_name(staged_path); };
    files_by_name files;
    const fs::path list_path = at(FOTA_STAGING_CHECKSUM_LIST);
    if (const file_ptr list = open_regular_for_reading(list_path.c_str())) {
        details.has_list = true;
        checksum_entry entry;
        while (next_checksum_entry(list.get(), &entry)) add_listed(files, folder, entry);
    }
    for (const fs::directory_entry& item : fs::recursive_directory_iterator(folder)) {
        const std::string name = item.path().lexically_relative(folder);
        if (!item.is_regular_file() || item.path() == list_path || files.count(name) != 0) continue;
        files[name] = look_at(folder, name, file_state::unlisted);
    }
    for (const auto& [name, file] : files) details.files.push_back(file);

    details.sources = read_versions(at(FOTA_STAGING_SRC_VER));
    details.targets = read_versions(at(FOTA_STAGING_TARGET_VER));
    details.description = first_line(at(FOTA_STAGING_PKG_DESCRIPTION));
    const fs::path estimate = at(FOTA_STAGING_EST_UPD_TIME);
    uint32_t secs = 0;
    if (fs::exists(estimate) && fota_read_str_conv_to_uint32(estimate.c_str(), &secs) == FOTA_RC_SUCCESS)
        details.estimate_secs = secs;
    details.is_full_image = fs::exists(at(FOTA_STAGING_FULL_FOTA));
    details.has_full_image_script = fs::exists(at(FOTA_STAGING_FULL_FOTA_SCRIPT));
    for (const char* script : SCRIPTS) {
        if (fs::is_regular_file(at(script)))
            details.scripts.push_back(
                {staged_name(script), fs::file_size(at(script)), first_line(at(script))});
    }
    return details;
}

std::string list_problem(const staged_details& staged) {
    if (!staged.has_list) return "there is none";
    for (const staged_file& file : staged.files) {
        if (file.state == file_state::differing) return file.name + " differs from the list";
        if (file.state == file_state::missing) return file.name + " is in the list, but not there";
        if (file.state == file_state::outside) return file.name + " leads out of the staging folder";
    }
    return "";
}

std::string full_image_text(const staged_details& details) {
    if (!details.is_full_image) return "no";
    return details.has_full_image_script ? "installed by its upgrade script"
                                         : "WITHOUT an upgrade script: devices cannot install it";
}

std::string versions_text(const staged_details& details) {
    const auto joined = [](const std::vector<std::string>& versions) {
        std::string text;
        for (const std::string& version : versions) text += (text.empty() ? "" : ", ") + version;
        return text.empty() ? "none" : text;
    };
    return "from " + joined(details.sources) + " to " + joined(details.targets);
}
