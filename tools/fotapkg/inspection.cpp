#include "inspection.h"

#include <openssl/evp.h>

#include <algorithm>

#include "common/state_files.h"
#include "package/crypto.h"
#include "tools/common/files.h"
#include "tools/common/steps.h"
#include "tools/packages/keys.h"
#include "tools/packages/openssl_objects.h"

namespace fs = std::filesystem;

namespace {

// Ends the look inside.
struct layer_end {
    inspection_end end;
};

// Opens one layer; a fault in what is read ends there.
template <typename Open>
void open_layer(const char* layer, const Open& open) {
    try {
        open();
    } catch (const bad_input& e) {
        throw layer_end{{layer, e.what(), false}};
    }
}

std::optional<fs::path> find_key(const std::optional<fs::path>& keys, const char* name) {
    if (!keys || !fs::exists(*keys / name)) return std::nullopt;
    return *keys / name;
}

owned<STACK_OF(X509)> find_certificates(const std::optional<fs::path>& keys, const char* name) {
    const std::optional<fs::path> path = find_key(keys, name);
    return path ? read_certificates(*path) : nullptr;
}

bool has(const std::vector<zip_member>& members, const std::string& name) {
    return std::any_of(members.begin(), members.end(),
                       [&](const zip_member& member) { return member.is_file && member.name == name; });
}

// Joins the pieces to `package`, also those whose signature is not good: this is to show what is inside.
void open_pieces(const fs::path& folder, const std::optional<fs::path>& keys, const fs::path& package,
                 bundle_facts& facts) {
    const std::optional<fs::path> public_key = find_key(keys, BUILD_PUBKEY_FILE);
    const std::vector<std::string> listed = read_piece_list(folder);
    std::string missing;
    for (const std::string& name : listed) {
        const bundle_piece piece = look_at_piece(folder, name, public_key);
        facts.pieces.push_back(piece);
        if (piece.size > 0) {
            join_piece(folder, piece, package);
        } else if (missing.empty()) {
            missing = piece.problem;
        }
    }
    facts.unlisted = unlisted_files(folder, listed);
    if (!missing.empty()) throw bad_input(missing);
}

void open_package(const fs::path& package, const std::optional<fs::path>& keys, const work_folder& work,
                  inspection& found) {
    const fs::path encrypted = work / "encrypted", signed_details = work / "signed",
                   details = work / "details", staging = work / "staging";
    found.package_size = fs::file_size(package);
    open_layer("package", [&] {
        found.members = list_members(package);
        LIBRARY_READER.extract_member(package, FOTA_PKG_DETAILS_MEMBER, encrypted);
        if (found.kind == file_kind::unknown) found.kind = file_kind::package;
    });
    open_layer("encryption", [&] {
        found.encryption = read_encryption(encrypted, find_certificates(keys, DEVICE_CERT_FILE).get());
        const std::optional<fs::path> device_key = find_key(keys, DEVICE_KEY_FILE);
        if (!device_key) {
            throw layer_end{{"encryption",
                             std::string("give --keys a folder with ") + DEVICE_KEY_FILE + " to see further",
                             true}};
        }
        check_device_key(*device_key);
        work.check_room(3 * fs::file_size(encrypted));
        if (decrypt_file(device_key->c_str(), encrypted.c_str(), signed_details.c_str()) != 0)
            throw bad_input("it is damaged, or not encrypted for " + device_key->string());
    });
    open_layer("signature", [&] {
        const std::optional<fs::path> build_cert = find_key(keys, BUILD_CERT_FILE);
        const owned<STACK_OF(X509)> build_signers = find_certificates(keys, BUILD_CERT_FILE);
        found.signature = {read_signers(signed_details, build_signers.get(), details), {}};
        const fs::path checked = work / "checked";
        if (build_cert) {
            found.signature->is_good =
                verify_signature(build_cert->c_str(), signed_details.c_str(), checked.c_str()) == 0;
        }
    });
    open_layer("details", [&] {
        const file_range archive = whole_file(details);
        found.details = {details, staging, archive.size, digest_of(archive, EVP_sha256())};
        fs::create_directory(staging);
        found.links = LIBRARY_READER.extract_all(details, staging).links;
        found.content = read_staged_details(staging);
    });
}

void open_file_layers(const fs::path& file, const std::optional<fs::path>& keys, const work_folder& work,
                      inspection& found) {
    found.file_size = whole_file(file).size;
    std::vector<zip_member> members;
    open_layer("file", [&] { members = list_members(file); });
    if (!has(members, fs::path(FOTA_SIDELOAD_PKG_LIST).filename()))
        return open_package(file, keys, work, found);
    const fs::path folder = work / "pieces", package = work / "upgrade.zip";
    found.kind = file_kind::bundle;
    found.bundle = {members, {}, {}};
    open_layer("bundle", [&] {
        fs::create_directory(folder);
        LIBRARY_READER.extract_all(file, folder);
    });
    open_layer("pieces", [&] { open_pieces(folder, keys, package, *found.bundle); });
    open_package(package, keys, work, found);
}

}  // namespace

inspection inspect_file(const fs::path& file, const std::optional<fs::path>& keys, const work_folder& work) {
    if (keys && !fs::is_directory(*keys))
        throw failure("There is no folder " + keys->string() + "; give --keys one that `fotapkg keys` made");
    set_doing("opening " + file.string());
    inspection found;
    try {
        open_file_layers(file, keys, work, found);
    } catch (const layer_end& e) {
        found.end = e.end;
    }
    return found;
}
