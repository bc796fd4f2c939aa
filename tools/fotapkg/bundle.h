// Side-load bundles: a package in signed pieces, as users upload it to a device.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>

inline constexpr uint64_t MAX_PIECES = 9999;

struct bundle_options {
    std::filesystem::path package;
    std::filesystem::path keys;          // folder with the build's key
    uint64_t pieces = 4;                 // of equal size
    std::optional<uint64_t> piece_size;  // in bytes, instead of a number of pieces
    std::filesystem::path output;
};

// Makes the bundle. `output` appears only when it is complete.
void make_bundle(const bundle_options& options);
