#include "unseal.h"

#include <string>

#include "bundle.h"
#include "common/state_files.h"
#include "facts.h"
#include "inspection.h"
#include "tools/common/output.h"
#include "tools/common/steps.h"
#include "tools/packages/archives.h"
#include "tools/packages/keys.h"
#include "tools/packages/staged_details.h"

namespace fs = std::filesystem;

namespace {

std::string signers_text(const inspection& found) {
    std::string text;
    for (const message_signer& signer : found.signature->signers)
        text += (text.empty() ? "by " : " and ") + signer.subject;
    return text;
}

// Opens all layers, or reports a failure. `advice` is for the one who lacks the devices' key.
inspection open_all(const fs::path& file, const fs::path& keys, const work_folder& work,
                    const std::string& advice) {
    inspection found = inspect_file(file, keys, work);
    if (found.end && found.end->needs_key) {
        throw failure(file.string() + " is encrypted for devices, and " + keys.string() + " has no " +
                      DEVICE_KEY_FILE + " to open it; " + advice);
    }
    if (found.end)
        throw failure(file.string() + " ends at the " + found.end->layer + ": " + found.end->reason);
    if (found.signature->is_good == false) {
        throw failure(file.string() + " is damaged, or not signed by a signer in " +
                      (keys / BUILD_CERT_FILE).string());
    }
    return found;
}

void extract_folder(const fs::path& unpacked, const fs::path& output) {
    check_new_folder(output);
    make_complete(output, [&](const fs::path& part) {
        fs::copy(unpacked, part, fs::copy_options::recursive);
        for (const fs::directory_entry& item : fs::recursive_directory_iterator(part)) {
            constexpr fs::perms READABLE = fs::perms::group_read | fs::perms::others_read;
            constexpr fs::perms RUNNABLE = fs::perms::group_exec | fs::perms::others_exec;
            const bool runs = (item.status().permissions() & fs::perms::owner_exec) != fs::perms::none;
            fs::permissions(item.path(), runs ? READABLE | RUNNABLE : READABLE, fs::perm_options::add);
        }
    });
}

void extract_archive(const fs::path& archive, const fs::path& output) {
    check_output(output);
    make_complete(output, [&](const fs::path& part) { write_range(whole_file(archive), part, 0644); });
}

}  // namespace

void sign(const sign_options& whole, json& facts) {
    const fs::path& input = whole.input;
    const sealing_options& options = whole.sealing;
    if (fs::is_directory(input)) {
        if (!options.signing.keys.empty() || !options.signing.signatures.empty())
            throw failure(
                "A folder has its signatures beside its pieces; `fotapkg bundle` makes them with a --key");
        return bundle_signed_pieces(input, options.signing, options.output, facts);
    }
    begin_sealing_facts(options.output, facts);
    check_output(options.output);
    if (!LIBRARY_READER.has_member(input, staged_name(FOTA_STAGING_CHECKSUM_LIST))) {
        throw failure(input.string() +
                      " holds no package details; make them with `fotapkg package --details-only`");
    }
    const sealing_keys keys = read_sealing_keys(options, input);
    const work_folder work;
    show_step("details", file_size_text(input));
    seal(input, options, keys, work, facts);
}

void resign(const sign_options& whole, json& facts) {
    const fs::path& file = whole.input;
    const sealing_options& options = whole.sealing;
    begin_sealing_facts(options.output, facts);
    check_output(options.output);
    const sealing_keys keys = read_sealing_keys(options, "");
    const work_folder work;
    const inspection found =
        open_all(file, *options.signing.folder, work,
                 "put it there, or sign what was kept by `package --details-only` with `fotapkg sign`");
    if (!found.signature->is_good) {
        throw failure("There is no " + (*options.signing.folder / BUILD_CERT_FILE).string() +
                      " to check the old signature with; put its signer's certificate there");
    }
    show_step("opened", file.string() + ", signed " + signers_text(found));
    if (found.bundle) show_step("", "it is a bundle; what comes out is its package, for `fotapkg bundle`");
    seal(found.details->archive, options, keys, work, facts);
}

void extract(const extract_options& options, json& facts) {
    facts = {{"file", options.file.string()},
             {"output", options.output.string()},
             {"signature_good", nullptr},
             {"details", nullptr},
             {"files", nullptr}};
    const work_folder work;
    const inspection found =
        open_all(options.file, options.keys, work, "devices have it, and a build host that verifies");
    const bool is_checked = found.signature->is_good.has_value();
    if (!is_checked)
        complain("The signature is not checked: " + options.keys.string() + " has no " + BUILD_CERT_FILE);
    (options.details_only ? extract_archive : extract_folder)(
        options.details_only ? found.details->archive : found.details->unpacked, options.output);
    const size_t files = found.content->files.size() + (found.content->has_list ? 1 : 0);
    show_step("details", size_text(found.details->size) + ", " +
                             (is_checked ? "signed " + signers_text(found) : "NOT checked"));
    show_step("extracted", options.output.string() +
                               (options.details_only ? "" : ", " + std::to_string(files) + " files"));
    for (const std::string& name : found.links) show_step("link", name + ", left out here");
    if (is_checked) facts["signature_good"] = true;
    facts["details"] = {{"size", found.details->size}, {"sha256", found.details->sha256}};
    facts["files"] = files;
}
