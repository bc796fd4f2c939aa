// What the commands tell scripts, as JSON.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>

#include "tools/common/json_line.h"

// Sets "size" and "sha256" of the file in `facts`.
void add_file(const std::filesystem::path& path, json& facts);

// The devices' limit and the verdict on a package of `size` bytes; null when that is not known.
[[nodiscard]] json limit_facts(std::optional<uint64_t> size, uint64_t limit, bool is_bundle);

// The folder of keys, and the files in it that `fotapkg keys` makes.
void tell_keys(const std::filesystem::path& folder, json& facts);
