// Zip archives.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

struct zip_entry {
    std::string name;
    std::filesystem::path source;
    mode_t mode;
};

// What is wrong with an archive that is read, as against trouble on this machine.
struct bad_archive : std::runtime_error {
    using std::runtime_error::runtime_error;
};

enum class zip_method { stored, deflated };

// Makes the archive `zip`, with the entries in their order and a fixed date, so that the same input gives the
// same bytes.
void write_zip(const std::filesystem::path& zip, const std::vector<zip_entry>& entries, zip_method method);

// Extracts the member whose whole stored name is `member` to the file `destination`. Throws bad_archive when
// there is none.
void extract_member(const std::filesystem::path& zip, const std::string& member,
                    const std::filesystem::path& destination);

// Extracts everything into the existing folder `folder` and returns the number of files. Throws bad_archive
// also when an entry would lie outside the folder or is neither file nor folder.
size_t extract_all(const std::filesystem::path& zip, const std::filesystem::path& folder);
