#include "bundle.h"

#include <openssl/evp.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "common/state_files.h"
#include "tools/common/files.h"
#include "tools/common/output.h"
#include "tools/packages/archives.h"
#include "tools/packages/keys.h"
#include "tools/packages/openssl_objects.h"
#include "tools/packages/pieces.h"

namespace fs = std::filesystem;

namespace {

constexpr int MAX_SIGNATURE_BYTES = 512;  // devices read no more

std::vector<file_range> cut(const file_range& package, const bundle_options& options) {
    const uint64_t size = package.size;
    const uint64_t count = options.piece_size ? (size - 1) / *options.piece_size + 1 : options.pieces;
    const std::string wish = size_text(size) + " cannot be cut into " + std::to_string(count) + " pieces; ";
    if (count > size) throw failure(wish + "ask for fewer");
    if (count > MAX_PIECES) {
        throw failure(wish + "give a --piece-size that makes at most " + std::to_string(MAX_PIECES));
    }
    std::vector<file_range> pieces;
    uint64_t offset = 0;
    for (uint64_t i = 0; i < count; ++i) {
        const uint64_t equal = size / count + (i < size % count ? 1 : 0);
        const uint64_t length = options.piece_size ? std::min(*options.piece_size, size - offset) : equal;
        if (length > MAX_PIECE_BYTES) throw failure("Devices take no pieces of 2 GiB and more; ask for more");
        pieces.push_back({package.path, offset, length});
        offset += length;
    }
    return pieces;
}

owned<EVP_PKEY> read_signing_key(const fs::path& folder) {
    const fs::path public_path = key_file(folder, BUILD_PUBKEY_FILE);
    const owned<EVP_PKEY> public_key = read_public_key(public_path);
    owned<EVP_PKEY> key = read_build_key(folder, BUILD_PUBKEY_FILE, public_key.get());
    if (EVP_PKEY_base_id(key.get()) != EVP_PKEY_RSA || EVP_PKEY_size(key.get()) > MAX_SIGNATURE_BYTES) {
        throw failure(
            "The build key is no RSA key of at most 4096 bits, and devices check no other; make "
            "one with `fotapkg keys`");
    }
    return key;
}

std::string sign(const file_range& piece, EVP_PKEY* key) {
    const owned<EVP_MD_CTX> context(EVP_MD_CTX_new());
    bool good = context && EVP_DigestSignInit(context.get(), nullptr, EVP_sha256(), nullptr, key) == 1;
    read_range(piece, [&](const char* bytes, size_t size) {
        good = good && EVP_DigestSignUpdate(context.get(), bytes, size) == 1;
    });
    unsigned char signature[MAX_SIGNATURE_BYTES];
    size_t length = sizeof signature;
    if (!good || EVP_DigestSignFinal(context.get(), signature, &length) != 1)
        throw openssl_failure("Cannot sign a piece");
    return std::string(reinterpret_cast<const char*>(signature), length);
}

}  // namespace

void make_bundle(const bundle_options& options) {
    check_output(options.output);
    std::error_code ignored;
    if (fs::equivalent(options.package, options.output, ignored))
        throw failure("The bundle would replace its package; give another --output");
    const file_range package = whole_file(options.package);
    if (!LIBRARY_READER.has_member(options.package, FOTA_PKG_DETAILS_MEMBER)) {
        throw failure(options.package.string() + " is no update package; make one with `fotapkg package`");
    }
    const owned<EVP_PKEY> key = read_signing_key(options.keys);
    const std::vector<file_range> pieces = cut(package, options);
    const work_folder work;

    const std::string list_name = fs::path(FOTA_SIDELOAD_PKG_LIST).filename();
    std::string list;
    std::vector<zip_entry> entries(1);
    for (size_t i = 0; i < pieces.size(); ++i) {
        char name[32];
        snprintf(name, sizeof name, "piece_%04zu", i + 1);
        const std::string signature_name = std::string(name) + SIGNATURE_SUFFIX;
        write_file(work / signature_name, sign(pieces[i], key.get()), 0600);
        entries.push_back({name, pieces[i]});
        entries.push_back({signature_name, whole_file(work / signature_name)});
        list += signature_name + "\n";
    }
    write_file(work / list_name, list, 0600);
    entries.front() = {list_name, whole_file(work / list_name)};
    show_step("pieces", std::to_string(pieces.size()) + " of " + size_text(pieces.front().size) +
                            ", each signed with " + BUILD_KEY_FILE);
    // A package that is only stored is base64 text: deflating saves a quarter of the upload.
    write_zip(options.output, entries, zip_method::deflated);
    show_step("bundle", options.output.string() + ", " + file_size_text(options.output));
}
