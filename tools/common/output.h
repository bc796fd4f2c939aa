// Text for people. Whatever came from elsewhere passes through here before it reaches a terminal.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// How a text looks on a terminal; elsewhere, and where NO_COLOR is set, all are plain.
enum class look { PLAIN, HEADING, GOOD, BAD };

// One "name: value" line.
struct output_line {
    std::string name;
    std::string value;
};

struct output_cell {
    std::string text;
    look style = look::PLAIN;

    output_cell(std::string given, look how = look::PLAIN) : text(std::move(given)), style(how) {}
    output_cell(const char* given, look how = look::PLAIN) : text(given), style(how) {}
};

struct output_table {
    std::vector<std::string> headings;
    std::vector<std::vector<output_cell>> rows;  // as many cells as there are headings
};

// `text` with everything that a terminal could act on written as \xNN: control characters, and bytes that are
// not UTF-8. A backslash becomes two, so that no text can pass for an escaped one.
[[nodiscard]] std::string escaped(std::string_view text);

// The text in a fixed field of a record, which need not end in NUL.
template <size_t N>
[[nodiscard]] std::string_view field_text(const char (&field)[N]) {
    return {field, strnlen(field, N)};
}

// Columns that UTF-8 text takes on a terminal: two for a wide character, none for one that joins another.
[[nodiscard]] size_t column_count(const std::string& text);

// `text` in lines of at most `columns` columns, where its words allow it, all but the first after `indent`
// blanks.
[[nodiscard]] std::string folded(const std::string& text, size_t columns, size_t indent = 0);

// What there is room for on the terminal that `stream` is; none when it is no terminal: its reader may want
// whole lines.
[[nodiscard]] std::optional<size_t> terminal_columns(FILE* stream);

[[nodiscard]] std::string without_line_end(std::string text);

// "36700160 bytes (35.0 MiB)", and "900 seconds (15.0 min)".
[[nodiscard]] std::string size_text(uint64_t bytes);
[[nodiscard]] std::string duration_text(uint32_t secs);

// `text`, which is escaped already, as it looks on the terminal that `stream` may be.
[[nodiscard]] std::string styled(FILE* stream, look style, const std::string& text);

// Print with values aligned, and escaped; "-" for an empty value. On a terminal what is wider than it is
// folded.
void print_lines(FILE* stream, const std::vector<output_line>& lines);
void print_table(FILE* stream, const output_table& table);
