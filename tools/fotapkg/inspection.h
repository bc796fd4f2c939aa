// What is inside a package or a side-load bundle, layer by layer, as far as the keys at hand open it.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "tools/packages/archives.h"
#include "tools/packages/messages.h"
#include "tools/packages/pieces.h"
#include "tools/packages/staged_details.h"

// Where a look inside ends before the innermost layer.
struct inspection_end {
    std::string layer;   // "file", "bundle", "pieces", "package", "encryption", "signature" or "details"
    std::string reason;  // what is wrong, or which key would open it
    bool needs_key = false;
};

struct bundle_facts {
    std::vector<zip_member> members;
    std::vector<bundle_piece> pieces;
    std::vector<std::string> unlisted;
};

struct signature_facts {
    std::vector<message_signer> signers;
    std::optional<bool> is_good;  // as the daemon's check says; none: no build signers' file to check it with
};

struct details_facts {
    std::filesystem::path archive, unpacked;  // where they lie; the second is a folder without links
    uint64_t size = 0;
    std::string sha256;  // the same for the same input, unlike what is signed and encrypted around it
};

enum class file_kind { unknown, package, bundle };

struct inspection {
    file_kind kind = file_kind::unknown;
    uint64_t file_size = 0;
    std::optional<bundle_facts> bundle;    // only for a bundle
    std::optional<uint64_t> package_size;  // of the package: the file, or what the pieces make
    std::vector<zip_member> members;       // of the package
    std::optional<encryption_facts> encryption;
    std::optional<signature_facts> signature;
    std::optional<details_facts> details;   // the archive
    std::optional<staged_details> content;  // what it unpacks to
    std::vector<std::string> links;         // in it, left out
    std::optional<inspection_end> end;
};

// Opens every layer of `file` for which `keys`, a folder of any of the files that `fotapkg keys` makes, has
// what it takes. What it comes to lies in `work`. Throws `failure` for trouble on this machine.
[[nodiscard]] inspection inspect_file(const std::filesystem::path& file,
                                      const std::optional<std::filesystem::path>& keys,
                                      const work_folder& work);
