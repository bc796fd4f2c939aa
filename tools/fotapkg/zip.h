// Zip archives.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "support.h"

struct zip_entry {
    std::string name;
    file_range data;
    mode_t mode = 0644;
};

// What is wrong with a package or a bundle that is read, as against trouble on this machine.
struct bad_input : std::runtime_error {
    using std::runtime_error::runtime_error;
};

enum class zip_method { stored, deflated };

// Makes the archive `zip`, which appears only when it is complete, with the entries in their order and a
// fixed date, so that the same input gives the same bytes. Larger than `largest` bytes it is a failure.
void write_zip(const std::filesystem::path& zip, const std::vector<zip_entry>& entries, zip_method method,
               uint64_t largest = UINT64_MAX);

struct zip_member {
    std::string name;
    uint64_t size = 0;  // unpacked
    bool is_file = true;
};

// What is in the archive, in its order. Throws bad_input as the calls below.
[[nodiscard]] std::vector<zip_member> list_members(const std::filesystem::path& zip);

// Whether the archive has a file whose whole stored name is `member`. False when it is no archive.
[[nodiscard]] bool has_member(const std::filesystem::path& zip, const std::string& member);

// Extracts that file to `destination`. Throws bad_input when there is none.
void extract_member(const std::filesystem::path& zip, const std::string& member,
                    const std::filesystem::path& destination);

struct unpacked_zip {
    size_t files = 0;
    std::vector<std::string> links;  // members that are symbolic links: left out
};

// Extracts everything into the existing folder `folder`. A link is left out: devices make it, but what it
// leads to on this machine is not what it leads to on a device. Throws bad_input also when an entry would lie
// outside the folder or has a name that the devices' unzip changes.
unpacked_zip extract_all(const std::filesystem::path& zip, const std::filesystem::path& folder);

// Throws bad_input unless unzip, with which devices unpack, takes the whole archive, or that member of it,
// without a warning: it sees other faults than this code does. A failure when there is no unzip on this
// machine.
void test_with_unzip(const std::filesystem::path& zip, const char* member = nullptr);
