// Values as the settings and XML services read them.
#pragma once

#include <charconv>
#include <cstdint>
#include <string_view>

namespace platform {

// A text less the white space around it. Any thread.
[[nodiscard]] inline std::string_view trimmed(std::string_view text) {
    constexpr std::string_view WHITE_SPACE = " \t\r\n";
    const size_t first = text.find_first_not_of(WHITE_SPACE);
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(WHITE_SPACE) - first + 1);
}

// Reads a whole text, less the white space around it, as a decimal or, after "0x", hexadecimal number, held
// at 4294967295. False, and `*value` as it was, when it is anything else. Any thread.
[[nodiscard]] inline bool parse_uint32(std::string_view text, uint32_t* value) {
    text = trimmed(text);
    const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
    if (hexadecimal) text.remove_prefix(2);
    uint32_t number = 0;
    const char* end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, number, hexadecimal ? 16 : 10);
    if (result.ec == std::errc::invalid_argument || result.ptr != end) return false;
    *value = result.ec == std::errc::result_out_of_range ? UINT32_MAX : number;
    return true;
}

}  // namespace platform
