// The daemon's checks of a package or a bundle, shown.
#pragma once

#include <filesystem>

#include "tools/common/json_line.h"
#include "tools/packages/package_checks.h"

// Checks `file`, shows one line a check as it ends, up to the first that fails, with the result code of the
// daemon, and tells `facts`. True when all is good.
[[nodiscard]] bool verify(const std::filesystem::path& file, check_options options, json& facts);
