// The daemon's checks of a package or a bundle, on the build host.
#pragma once

#include <filesystem>

// Checks `file` as a device does that has the keys in `keys`, one line a check, up to the first that fails,
// which is shown with the result code of the daemon. A bundle is what `is_bundle` calls one, or what has a
// list of pieces; the package that its pieces make is checked too. True when all is good.
[[nodiscard]] bool verify(const std::filesystem::path& file, const std::filesystem::path& keys,
                          bool is_bundle);
