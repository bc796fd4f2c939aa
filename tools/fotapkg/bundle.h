// Side-load bundles: a package in signed pieces, as users upload it to a device.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>

#include "signers.h"
#include "tools/common/json_line.h"

inline constexpr uint64_t MAX_PIECES = 9999;

struct bundle_options {
    std::filesystem::path package;
    signing_options signing;
    uint64_t pieces = 4;                 // of equal size
    std::optional<uint64_t> piece_size;  // in bytes, instead of a number of pieces
    bool pieces_only = false;            // the output is a folder of what is to be signed
    std::filesystem::path output;
};

// Makes the bundle, or the folder of pieces and their list. `output` appears only when it is complete. What
// came of it goes to `facts`.
void make_bundle(const bundle_options& options, json& facts);

// Makes the bundle `output` of such a folder, once a signature lies beside each piece.
void bundle_signed_pieces(const std::filesystem::path& folder, const signing_options& signing,
                          const std::filesystem::path& output, json& facts);
