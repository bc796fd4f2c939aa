// Error codes of the update engine that the installer runs, and what each means to the device-management
// server.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

inline constexpr size_t ENGINE_ERROR_TEXT_SIZE = 256;

struct engine_error {
    uint32_t code;
    uint32_t fumo;
    char text[ENGINE_ERROR_TEXT_SIZE];
};
static_assert(sizeof(engine_error) == 264);

inline constexpr uint32_t ENGINE_VERSION_MISMATCH_DURING_SCOUT = 0x80000142;

// Writes the text of `engine_code` into `text` (ENGINE_ERROR_TEXT_SIZE bytes at most are needed; may be null)
// of `text_size` bytes and returns its FUMO result. -1, and `text` as it was, for a code that is not in the
// table. Any thread.
[[nodiscard]] long map_engine_error_code(uint32_t engine_code, char* text, size_t text_size);

// All of them, in the order in which they are looked up. Any thread.
[[nodiscard]] std::span<const engine_error> engine_errors();
