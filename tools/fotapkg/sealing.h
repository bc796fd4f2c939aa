// From package details to a package: signed, encrypted for the devices, in its archive.
#pragma once

#include <cstdint>
#include <filesystem>

#include "signers.h"
#include "tools/common/json_line.h"

inline constexpr uint64_t MAX_PACKAGE_BYTES = INT32_MAX;  // devices count no further

struct sealing_options {
    signing_options signing;
    uint64_t limit = MAX_PACKAGE_BYTES;
    bool store = false;            // the message in the package is not deflated
    std::filesystem::path output;  // appears only when it is complete, and within the limit
};

// What it takes, read before any work is done.
struct sealing_keys {
    build_signers signers;
    owned<STACK_OF(X509)> devices;
};
[[nodiscard]] sealing_keys read_sealing_keys(const sealing_options& options,
                                             const std::filesystem::path& details);

// The fields of what is told of a package, with its name and nothing else known yet.
void begin_sealing_facts(const std::filesystem::path& output, json& facts);

// Makes the package `options.output` of the archive `details`, by way of `work`, and tells `facts`.
void seal(const std::filesystem::path& details, const sealing_options& options, const sealing_keys& keys,
          const work_folder& work, json& facts);
