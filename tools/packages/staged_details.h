// The unpacked package details, as the daemon reads them from its staging folder.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// What the checksum list says of a file.
enum class file_state {
    matching,
    differing,
    missing,   // listed only
    outside,   // listed, by a name that leads out of the folder: not looked at
    unlisted,  // there only: the daemon does not look at it
};

struct staged_file {
    std::string name;
    uint64_t size = 0;
    std::string md5;  // of the file that is there
    file_state state = file_state::unlisted;
};

struct staged_script {
    std::string name;
    uint64_t size = 0;
    std::string first_line;  // at most 254 bytes of it
};

struct staged_details {
    bool has_list = false;
    std::vector<staged_file> files;             // by name; without the list itself
    std::vector<std::string> sources, targets;  // versions, as the daemon reads them
    std::string description;
    std::optional<uint32_t> estimate_secs;
    bool is_full_image = false, has_full_image_script = false;
    std::vector<staged_script> scripts;  // those that the daemon would run
};

// The name in the details archive of a file that has its place in the daemon's staging folder.
[[nodiscard]] std::string staged_name(std::string_view path);

// Reads what was unpacked, without links, into `folder`.
[[nodiscard]] staged_details read_staged_details(const std::filesystem::path& folder);

// What is wrong with the files of the checksum list, at which the daemon fails; empty: nothing.
[[nodiscard]] std::string list_problem(const staged_details& details);

// For people: what a full-image package means for devices, or "no"; the source versions in one line.
[[nodiscard]] std::string full_image_text(const staged_details& details);
[[nodiscard]] std::string versions_text(const staged_details& details);
