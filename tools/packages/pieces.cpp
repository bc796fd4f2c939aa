#include "tools/packages/pieces.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "common/file_helpers.h"
#include "common/state_files.h"
#include "common/text.h"
#include "fota/request.h"
#include "package/crypto.h"
#include "package/staging_tools.h"
#include "tools/common/files.h"
#include "tools/packages/archives.h"

namespace fs = std::filesystem;

std::vector<std::string> read_piece_list(const fs::path& folder) {
    const std::string list_name = fs::path(FOTA_SIDELOAD_PKG_LIST).filename();
    const file_ptr list = open_regular_for_reading((folder / list_name).c_str());
    if (!list) throw bad_input("there is no list of them, " + list_name);
    std::vector<std::string> names;
    char line[FOTA_TEXT_SIZE];
    while (fgets(line, sizeof line, list.get()) != nullptr) {
        text_trim(line);
        if (line[0] != '\0') names.emplace_back(line);
    }
    if (names.empty()) throw bad_input("their list is empty");
    return names;
}

bundle_piece look_at_piece(const fs::path& folder, const std::string& listed_name,
                           const std::optional<fs::path>& public_key) {
    bundle_piece piece;
    piece.signature = listed_name;
    const fs::path signature = folder / listed_name;
    // The device's path to it has room for no more.
    const bool fits = sizeof FOTA_SIDELOAD_TMP_DIR + listed_name.size() < FOTA_TEXT_SIZE;
    const size_t suffix = strlen(SIGNATURE_SUFFIX);
    if (!fits || listed_name.find('/') != std::string::npos || listed_name.size() <= suffix ||
        !fs::is_regular_file(signature)) {
        piece.problem = listed_name + " is in the list, but not in the bundle";
        return piece;
    }
    piece.name = listed_name.substr(0, listed_name.size() - suffix);
    const fs::path path = folder / piece.name;
    if (!fs::is_regular_file(path)) {
        piece.problem = piece.name + " is not in the bundle, or named twice in the list";
        return piece;
    }
    piece.size = fs::file_size(path);
    if (public_key) {
        piece.is_signed =
            fota_verify_digest_signature(public_key->c_str(), path.c_str(), signature.c_str()) == 0;
    }
    if (piece.is_signed == false) {
        piece.problem = piece.name + " is damaged, or not signed by the owner of " + public_key->string();
    } else if (piece.size == 0 || piece.size > MAX_PIECE_BYTES) {
        piece.problem = piece.name + " is empty, or of 2 GiB and more";
    }
    return piece;
}

void join_piece(const fs::path& folder, const bundle_piece& piece, const fs::path& package) {
    const fs::path path = folder / piece.name;
    if (append_file_and_delete_source(package.c_str(), path.c_str()) != FOTA_RC_SUCCESS)
        throw failure("Cannot join the pieces to " + package.string() + "; see that there is room for them");
}

std::vector<std::string> unlisted_files(const fs::path& folder, const std::vector<std::string>& listed) {
    std::vector<std::string> names;
    for (const fs::directory_entry& item : fs::recursive_directory_iterator(folder)) {
        const std::string name = item.path().lexically_relative(folder);
        const bool is_known = name == fs::path(FOTA_SIDELOAD_PKG_LIST).filename() ||
                              std::find(listed.begin(), listed.end(), name) != listed.end();
        if (item.is_regular_file() && !is_known) names.push_back(name);
    }
    std::sort(names.begin(), names.end());
    return names;
}
