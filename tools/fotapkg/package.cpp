#include "package.h"

#include <algorithm>
#include <cstdio>
#include <string_view>

#include "common/state_files.h"
#include "facts.h"
#include "tools/common/files.h"
#include "tools/common/output.h"
#include "tools/common/steps.h"
#include "tools/packages/archives.h"
#include "tools/packages/openssl_objects.h"
#include "tools/packages/staged_details.h"

namespace fs = std::filesystem;

namespace {

constexpr size_t LINE_BYTES = 254;  // the device reads no more of a line
constexpr size_t NAME_BYTES = 255;  // the checksum list's limit
constexpr mode_t SCRIPT_MODE = 0755;

// Names in the staging folder with a meaning of their own, to the daemon or to the installer: content that
// brings one along would look like a flag or a result.
// clang-format off
constexpr const char* RESERVED[] = {
    FOTA_STAGING_CHECKSUM_LIST, FOTA_STAGING_SRC_VER, FOTA_STAGING_TARGET_VER, FOTA_STAGING_PKG_DESCRIPTION,
    FOTA_STAGING_FULL_FOTA, FOTA_STAGING_FULL_FOTA_SCRIPT, FOTA_STAGING_PRE_INSTALL_SCRIPT,
    FOTA_STAGING_POST_INSTALL_SCRIPT, FOTA_STAGING_POST_INSTALL_FAILED_SCRIPT, FOTA_STAGING_EST_UPD_TIME,
    FOTA_STAGING_UPDATE_DLPKG_VERIFIED, FOTA_STAGING_UPDATE_PRE_INSTALL, FOTA_STAGING_UPDATE_PRE_FULL_FOTA_INSTALL,
    FOTA_STAGING_LPM, FOTA_STAGING_SHUTDOWN, FOTA_STAGING_UPDATE_SUCCESS, FOTA_STAGING_UPDATE_FAILURE,
    FOTA_STAGING_UPDATE_FAILURE_REASON, FOTA_STAGING_PRI_LINUX_SUCCESS, FOTA_STAGING_PRI_LINUX_FAILURE,
    FOTA_STAGING_PRI_MODEM_SUCCESS, FOTA_STAGING_PRI_MODEM_FAILURE, FOTA_STAGING_SUA_COOKIE,
    FOTA_STAGING_SUA_PKG_DESC, FOTA_STAGING_SUA_PKG_NAME, FOTA_STAGING_SUA_PKG_VER, FOTA_STAGING_SUA_PKG_SIZE,
    FOTA_STAGING_SUA_PKG_TS, FOTA_DEVICE_INFO_DIR};
// clang-format on

void check_content_name(const std::string& name) {
    if (name.size() > NAME_BYTES) {
        throw failure(name + " in the content is longer than " + std::to_string(NAME_BYTES) +
                      " bytes; shorten it");
    }
    // The checksum list is split at blanks; unzip cuts what looks like a version behind a semicolon.
    const auto unfit = [](char c) { return c <= ' ' || c > '~' || c == ';' || c == '\\'; };
    if (std::any_of(name.begin(), name.end(), unfit)) {
        throw failure(name +
                      " in the content has a blank, ';', '\\' or a character that is not ASCII; rename it");
    }
    const std::string first = name.substr(0, name.find('/'));
    for (const char* reserved : RESERVED) {
        if (first != staged_name(reserved)) continue;
        throw failure(name + " in the content is a name that the update daemon uses itself; rename it");
    }
}

std::vector<zip_entry> collect_content(const fs::path& folder) {
    if (!fs::is_directory(folder))
        throw failure(folder.string() + " is not a folder; give --content one with files");
    std::vector<zip_entry> entries;
    for (const fs::directory_entry& item : fs::recursive_directory_iterator(folder)) {
        const fs::file_status status = item.symlink_status();
        if (fs::is_directory(status)) continue;
        const std::string name = item.path().lexically_relative(folder).string();
        if (!fs::is_regular_file(status)) {
            throw failure(
                name + " in the content is neither file nor folder; take it out or copy what it stands for");
        }
        check_content_name(name);
        entries.push_back({name, whole_file(item.path())});
        if ((status.permissions() & fs::perms::owner_exec) != fs::perms::none)
            entries.back().mode = SCRIPT_MODE;
    }
    return entries;
}

// The device runs it through a shell, which takes an image for a script, and an empty file for one that
// succeeds.
void check_full_image_script(const package_options& options) {
    const fs::path& script = *options.full_image;
    char start[2] = {};
    if (fread(start, 1, sizeof start, open_file(script).get()) != sizeof start || start[0] != '#' ||
        start[1] != '!') {
        throw failure(
            script.string() +
            " does not begin with #!; give --full-image the upgrade script, and --content the images");
    }
    std::error_code ignored;
    if (options.pre_install && fs::equivalent(script, *options.pre_install, ignored)) {
        throw failure(
            "--pre-install and --full-image are the same script, which would run twice; leave one out");
    }
}

// Every entry of the details archive, in its order; texts and lists are made in `work`.
std::vector<zip_entry> collect_details(const package_options& options, const work_folder& work, json& facts) {
    std::vector<zip_entry> entries = collect_content(options.content);
    uint64_t bytes = 0;
    for (const zip_entry& entry : entries) bytes += entry.data.size;
    facts["content"] = {{"files", entries.size()}, {"bytes", bytes}};
    show_step("content", size_text(bytes) + " in " + std::to_string(entries.size()) + " files");
    if (entries.empty())
        show_step("", options.content.string() + " is empty: nothing but scripts is delivered");

    const auto add_text = [&](const char* staged_path, const std::string& text) {
        const std::string name = staged_name(staged_path);
        write_file(work / name, text, 0600);
        entries.push_back({name, whole_file(work / name)});
    };
    const auto add_script = [&](const char* staged_path, const std::optional<fs::path>& source) {
        if (source) entries.push_back({staged_name(staged_path), whole_file(*source), SCRIPT_MODE});
    };
    std::string source_lines;
    for (const std::string& version : options.sources) source_lines += version + "\n";
    add_text(FOTA_STAGING_SRC_VER, source_lines);
    add_text(FOTA_STAGING_TARGET_VER, options.target);
    add_text(FOTA_STAGING_PKG_DESCRIPTION, options.description);
    if (options.estimate_secs) add_text(FOTA_STAGING_EST_UPD_TIME, std::to_string(*options.estimate_secs));
    if (options.full_image) add_text(FOTA_STAGING_FULL_FOTA, "");
    add_script(FOTA_STAGING_FULL_FOTA_SCRIPT, options.full_image);
    add_script(FOTA_STAGING_PRE_INSTALL_SCRIPT, options.pre_install);
    add_script(FOTA_STAGING_POST_INSTALL_SCRIPT, options.post_install);
    add_script(FOTA_STAGING_POST_INSTALL_FAILED_SCRIPT, options.post_install_failed);

    const auto by_name = [](const zip_entry& a, const zip_entry& b) { return a.name < b.name; };
    std::sort(entries.begin(), entries.end(), by_name);
    set_doing("computing digests");
    std::string list;
    for (const zip_entry& entry : entries)
        list += digest_of(entry.data, EVP_md5()) + "  " + entry.name + "\n";
    show_step("checksum list", std::to_string(entries.size()) + " files");
    add_text(FOTA_STAGING_CHECKSUM_LIST, list);
    std::sort(entries.begin(), entries.end(), by_name);
    return entries;
}

}  // namespace

std::string line_problem(const std::string& text) {
    if (text.empty()) return "must not be empty";
    if (text.size() > LINE_BYTES) return "is longer than " + std::to_string(LINE_BYTES) + " bytes";
    const auto control = [](char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7f'; };
    return std::any_of(text.begin(), text.end(), control) ? "holds a line end or another control character"
                                                          : "";
}

std::string version_problem(const std::string& version) {
    const auto unfit = [](char c) { return c <= ' ' || c > '~'; };
    return std::any_of(version.begin(), version.end(), unfit)
               ? "a version holds ASCII letters, digits and signs only"
               : line_problem(version);
}

void make_package(const package_options& options, json& facts) {
    const fs::path& output = options.sealing.output;
    begin_sealing_facts(output, facts);
    check_output(output);
    if (options.full_image) check_full_image_script(options);
    sealing_keys keys;
    if (!options.details_only) keys = read_sealing_keys(options.sealing, "");
    const work_folder work;
    const fs::path details = options.details_only ? output : work / "pkg_details.zip";
    const std::vector<zip_entry> entries = collect_details(options, work, facts);
    set_doing("deflating the content");
    write_zip(details, entries, zip_method::deflated);
    add_file(details, facts["details"]);
    show_step("details", (options.details_only ? output.string() + ", " : "") + file_size_text(details));
    if (options.details_only) return add_file(output, facts);

    seal(details, options.sealing, keys, work, facts);
    const uint64_t content = facts["content"]["bytes"];
    constexpr uint64_t WORTH_COUNTING = 65536;  // the layers of a smaller one outweigh it
    if (content < WORTH_COUNTING) return;
    const auto percent = [&](const fs::path& path) {
        return std::to_string(100 * fs::file_size(path) / content) + " %";
    };
    show_step("in the air", percent(output) + " of the content, which deflates to " + percent(details));
}
