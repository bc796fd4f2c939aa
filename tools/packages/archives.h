// Zip archives: made and read by the library on the build host, read by unzip on a device, which has no
// library for them.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "tools/common/failure.h"
#include "tools/common/files.h"

struct unpacked_zip {
    size_t files = 0;
    std::vector<std::string> links;  // members that are symbolic links: left out
};

// One way to read archives. All throw bad_input for an archive, or a member, that cannot be read.
struct archive_reader {
    // Whether the archive has a file whose whole stored name is `member`. False when it is no archive.
    bool (*has_member)(const std::filesystem::path& zip, const std::string& member);

    // Extracts that file to `destination`. Throws bad_input when there is none.
    void (*extract_member)(const std::filesystem::path& zip, const std::string& member,
                           const std::filesystem::path& destination);

    // Extracts everything into the existing folder `folder`. A link is left out: devices make it, but what it
    // leads to on this machine is not what it leads to on a device. Throws bad_input also when an entry would
    // lie outside the folder or has a name that the devices' unzip changes.
    unpacked_zip (*extract_all)(const std::filesystem::path& zip, const std::filesystem::path& folder);

    // Throws bad_input unless the devices' unzip takes the whole archive, or `member` of it (may be null),
    // without a warning: it sees other faults than the library does.
    void (*test)(const std::filesystem::path& zip, const char* member);
};

// `test` for others: unpacks by unzip as a device does, and throws away what comes of it, since unzip warns
// of some names only when it unpacks. A failure when there is no unzip on this machine.
void test_by_unpacking(const std::filesystem::path& zip, const char* member);

// By unzip, on a device: what it makes of an archive is what the daemon will find.
extern const archive_reader UNZIP_READER;

// By the library, on the build host. These are in a library of their own.
extern const archive_reader LIBRARY_READER;

struct zip_entry {
    std::string name;
    file_range data;
    mode_t mode = 0644;
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

// What is in the archive, in its order. Throws bad_input.
[[nodiscard]] std::vector<zip_member> list_members(const std::filesystem::path& zip);
