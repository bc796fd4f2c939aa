// Text for people. Whatever came from elsewhere passes through here before it reaches a terminal.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// One "name: value" line.
struct output_line {
    std::string name;
    std::string value;
};

struct output_table {
    std::vector<std::string> headings;
    std::vector<std::vector<std::string>> rows;  // as many cells as there are headings
};

// `text` with everything that a terminal could act on written as \xNN: control characters, and bytes that are
// not UTF-8. A backslash becomes two, so that no text can pass for an escaped one.
[[nodiscard]] std::string escaped(std::string_view text);

// The text in a fixed field of a record, which need not end in NUL.
template <size_t N>
[[nodiscard]] std::string_view field_text(const char (&field)[N]) {
    return {field, strnlen(field, N)};
}

// `text` in lines of at most `columns` characters, where its words allow it, all but the first after `indent`
// blanks.
[[nodiscard]] std::string folded(const std::string& text, size_t columns, size_t indent = 0);

// What there is room for on the terminal that `stream` is; none when it is no terminal: its reader may want
// whole lines.
[[nodiscard]] std::optional<size_t> terminal_columns(FILE* stream);

[[nodiscard]] std::string without_line_end(std::string text);

// "36700160 bytes (35.0 MiB)", and "900 seconds (15.0 min)".
[[nodiscard]] std::string size_text(uint64_t bytes);
[[nodiscard]] std::string duration_text(uint32_t secs);

// Print with values aligned, and escaped; "-" for an empty value.
void print_lines(FILE* stream, const std::vector<output_line>& lines);
void print_table(FILE* stream, const output_table& table);
