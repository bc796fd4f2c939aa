// The daemon's checks of a package or a bundle, shown.
#pragma once

#include <filesystem>

#include "tools/packages/package_checks.h"

// Checks `file` and shows one line a check as it ends, up to the first that fails, with the result code of
// the daemon; or, `as_json`, everything at the end. True when all is good.
[[nodiscard]] bool verify(const std::filesystem::path& file, check_options options, bool as_json);
