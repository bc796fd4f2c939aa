// Update packages.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

inline constexpr uint64_t MAX_PACKAGE_BYTES = INT32_MAX;  // devices count no further

struct package_options {
    std::filesystem::path content;  // folder of the files to install
    std::filesystem::path keys;  // folder with the build's key and certificate and the devices' certificate
    std::vector<std::string> sources;
    std::string target;
    std::string description;
    std::optional<std::filesystem::path> full_image;  // script that takes the installer's place
    std::optional<std::filesystem::path> pre_install, post_install, post_install_failed;
    std::optional<uint32_t> estimate_secs;
    uint64_t limit = MAX_PACKAGE_BYTES;
    bool store = false;  // the message in the package is not deflated
    std::filesystem::path output;
};

// Empty, or what is wrong with a line that the device reads, such as the description, or with a version: the
// device reads at most 254 bytes, and a version up to its first blank.
[[nodiscard]] std::string line_problem(const std::string& text);
[[nodiscard]] std::string version_problem(const std::string& version);

// Makes the package. `output` appears only when it is complete, and within the limit.
void make_package(const package_options& options);
