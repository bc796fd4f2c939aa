#include "tools/common/output.h"

#include <sys/ioctl.h>

#include <algorithm>
#include <iterator>
#include <sstream>

namespace {

// Length in bytes of the printable UTF-8 character that `text` begins with; 0 when it begins with none.
size_t printable_length(std::string_view text) {
    const auto byte = [text](size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char first = byte(0);
    if (first < 0x80) return first >= 0x20 && first != 0x7F ? 1 : 0;
    const size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    if (first < 0xC2 || first > 0xF4 || text.size() < length) return 0;
    uint32_t code = first & (0x7FU >> length);
    for (size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xC0) != 0x80) return 0;
        code = code << 6 | (byte(i) & 0x3F);
    }
    static constexpr uint32_t SMALLEST[] = {0, 0, 0xA0, 0x800,
                                            0x10000};  // 0x80 to 0x9F control a terminal too
    const bool is_character =
        code >= SMALLEST[length] && code <= 0x10FFFF && (code < 0xD800 || code > 0xDFFF);
    return is_character ? length : 0;
}

std::string in_brackets(double number, const char* unit) {
    char text[64];
    snprintf(text, sizeof text, " (%.1f %s)", number, unit);
    return text;
}

std::string shown(const std::string& value) {
    return value.empty() ? "-" : escaped(value);
}

// One long text does not drive all the others apart.
constexpr size_t MAX_COLUMN_WIDTH = 40;

// Characters of UTF-8 text: as many columns, but for scripts whose characters are wider.
size_t character_count(std::string_view text) {
    return static_cast<size_t>(
        std::count_if(text.begin(), text.end(), [](char byte) { return (byte & 0xC0) != 0x80; }));
}

}  // namespace

std::string escaped(std::string_view text) {
    static constexpr char HEX[] = "0123456789ABCDEF";
    std::string out;
    while (!text.empty()) {
        const size_t length = printable_length(text);
        if (length == 0) {
            const auto byte = static_cast<unsigned char>(text[0]);
            out += {'\\', 'x', HEX[byte >> 4], HEX[byte & 0xF]};
        } else {
            if (text[0] == '\\') out += '\\';
            out += text.substr(0, length);
        }
        text.remove_prefix(std::max<size_t>(length, 1));
    }
    return out;
}

std::string folded(const std::string& text, size_t columns, size_t indent) {
    std::istringstream words(text);
    std::string out;
    size_t used = 0;  // of the line
    for (std::string word; words >> word;) {
        const size_t width = character_count(word);
        if (used > 0 && used + 1 + width > columns) {
            out.append(1, '\n').append(indent, ' ');
            used = 0;
        }
        if (used > 0) out += ' ';
        out += word;
        used += (used > 0 ? 1 : 0) + width;
    }
    return out;
}

std::optional<size_t> terminal_columns(FILE* stream) {
    constexpr size_t USUAL = 80;
    winsize size = {};
    if (ioctl(fileno(stream), TIOCGWINSZ, &size) != 0) return std::nullopt;
    return size.ws_col > 0 ? size.ws_col : USUAL;
}

std::string without_line_end(std::string text) {
    if (text.ends_with('\n')) text.pop_back();
    return text;
}

std::string size_text(uint64_t bytes) {
    static constexpr const char* UNITS[] = {"KiB", "MiB", "GiB"};
    std::string text = std::to_string(bytes) + (bytes == 1 ? " byte" : " bytes");
    if (bytes < 1024) return text;
    size_t unit = 0;
    double number = static_cast<double>(bytes) / 1024;
    for (; number >= 1024 && unit + 1 < std::size(UNITS); ++unit) number /= 1024;
    return text + in_brackets(number, UNITS[unit]);
}

std::string duration_text(uint32_t secs) {
    const std::string text = std::to_string(secs) + (secs == 1 ? " second" : " seconds");
    return secs < 60 ? text : text + in_brackets(secs / 60.0, "min");
}

void print_lines(FILE* stream, const std::vector<output_line>& lines) {
    size_t width = 0;
    for (const output_line& line : lines) width = std::max(width, line.name.size());
    for (const output_line& line : lines) {
        const std::string name = line.name + ":";
        fprintf(stream, "%-*s %s\n", static_cast<int>(width + 1), name.c_str(), shown(line.value).c_str());
    }
}

void print_table(FILE* stream, const output_table& table) {
    if (table.rows.empty()) return;
    std::vector<std::vector<std::string>> rows = {table.headings};
    std::vector<size_t> widths(table.headings.size());
    for (const auto& row : table.rows) {
        std::transform(row.begin(), row.end(), std::back_inserter(rows.emplace_back()), shown);
    }
    for (const auto& row : rows) {
        for (size_t i = 0; i < row.size(); ++i)
            widths[i] = std::max(widths[i], std::min(character_count(row[i]), MAX_COLUMN_WIDTH));
    }
    for (const auto& row : rows) {
        std::string line;
        for (size_t i = 0; i + 1 < row.size(); ++i) {
            const size_t count = character_count(row[i]);
            line += row[i];
            line.append(std::max(widths[i], count) - count + 2, ' ');
        }
        fprintf(stream, "%s%s\n", line.c_str(), row.back().c_str());
    }
}
