// What is inside a package or a bundle, shown.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>

#include "tools/common/json_line.h"

struct inspect_options {
    std::filesystem::path file;
    std::optional<std::filesystem::path> keys;
    std::optional<uint64_t> limit;  // bytes: the device's MaxPkgSizeAllowed, instead of its default
};

enum class inspect_verdict {
    good,       // all that `options` asked to be opened is
    refused,    // a device refuses something in it
    unchecked,  // a key is missing from the folder of keys
};

// Shows what is inside, as far as it can be opened, and tells `facts`.
[[nodiscard]] inspect_verdict inspect(const inspect_options& options, json& facts);
