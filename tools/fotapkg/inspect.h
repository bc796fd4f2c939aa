// What is inside a package or a bundle, shown.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>

struct inspect_options {
    std::filesystem::path file;
    std::optional<std::filesystem::path> keys;
    std::optional<uint64_t> limit;  // bytes: the device's MaxPkgSizeAllowed, instead of its default
    bool as_json = false;
};

// False when the look inside ends at something that is damaged, rather than at a missing key.
[[nodiscard]] bool inspect(const inspect_options& options);
