// The daemon's checks of a package, on the build host.
#pragma once

#include <filesystem>

// Checks `package` as a device does that has the keys in `keys`, one line a check, up to the first that
// fails, which is shown with the result code of the daemon. True when the package is good.
[[nodiscard]] bool verify_package(const std::filesystem::path& package, const std::filesystem::path& keys);
