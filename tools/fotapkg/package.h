// Update packages.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "sealing.h"

struct package_options {
    std::filesystem::path content;  // folder of the files to install
    std::vector<std::string> sources;
    std::string target;
    std::string description;
    std::optional<std::filesystem::path> full_image;  // script that takes the installer's place
    std::optional<std::filesystem::path> pre_install, post_install, post_install_failed;
    std::optional<uint32_t> estimate_secs;
    sealing_options sealing;
    bool details_only = false;  // the output is what is to be signed
};

// Empty, or what is wrong with a line that the device reads, such as the description, or with a version: the
// device reads at most 254 bytes, and a version up to its first blank.
[[nodiscard]] std::string line_problem(const std::string& text);
[[nodiscard]] std::string version_problem(const std::string& version);

// Makes the package; what came of it goes to `facts`.
void make_package(const package_options& options, json& facts);
