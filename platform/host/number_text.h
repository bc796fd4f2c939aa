// Numbers as the settings and XML services read them.
#pragma once

#include <charconv>
#include <cstdint>
#include <string_view>

namespace host {

// Reads a whole text, less the white space around it, as a decimal or, after "0x", hexadecimal number. False,
// and `*value` as it was, when it is anything else or does not fit. Any thread.
[[nodiscard]] inline bool parse_uint32(std::string_view text, uint32_t* value) {
    constexpr std::string_view WHITE_SPACE = " \t\r\n";
    const size_t first = text.find_first_not_of(WHITE_SPACE);
    if (first == std::string_view::npos) return false;
    text = text.substr(first, text.find_last_not_of(WHITE_SPACE) - first + 1);
    const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
    if (hexadecimal) text.remove_prefix(2);
    uint32_t number = 0;
    const char* end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, number, hexadecimal ? 16 : 10);
    if (result.ec != std::errc() || result.ptr != end) return false;
    *value = number;
    return true;
}

}  // namespace host
