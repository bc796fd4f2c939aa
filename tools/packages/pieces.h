// The pieces of an unpacked side-load bundle, looked at as the daemon does.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

// How the device gets from the name of a piece to that of its signature.
inline constexpr char SIGNATURE_SUFFIX[] = ".sign";

inline constexpr uint64_t MAX_PIECE_BYTES = INT32_MAX;  // devices count no further

struct bundle_piece {
    std::string name, signature;    // files in the bundle
    uint64_t size = 0;              // of the piece; 0 when it is not there
    std::optional<bool> is_signed;  // by the owner of the public key; none: not checked
    std::string problem;            // why a device refuses it; empty: it does not
};

// The names of the signatures in the bundle's list, in its order. Throws bad_input when there is none.
[[nodiscard]] std::vector<std::string> read_piece_list(const std::filesystem::path& folder);

// The piece whose signature is called `listed_name`. Without a public key its signature is not checked.
[[nodiscard]] bundle_piece look_at_piece(const std::filesystem::path& folder, const std::string& listed_name,
                                         const std::optional<std::filesystem::path>& public_key);

// Appends a piece that is there to `package` and removes it, as the daemon does: named twice, it is missing.
void join_piece(const std::filesystem::path& folder, const bundle_piece& piece,
                const std::filesystem::path& package);

// Files of the bundle that are neither the list nor in it: the daemon does not look at them.
[[nodiscard]] std::vector<std::string> unlisted_files(const std::filesystem::path& folder,
                                                      const std::vector<std::string>& listed);
