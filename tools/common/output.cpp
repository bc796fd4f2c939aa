#include "tools/common/output.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <clocale>
#include <cstdlib>
#include <cwchar>
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

// One long text does not drive all the others apart; and no column becomes narrower than this on a terminal.
constexpr size_t MAX_COLUMN_WIDTH = 40;
constexpr size_t MIN_COLUMN_WIDTH = 8;
constexpr size_t GAP = 2;

// What a character's width needs, whatever the user's language is.
locale_t utf8_locale() {
    static const locale_t locale = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    return locale;
}

bool has_looks(FILE* stream) {
    const char* const no_color = getenv("NO_COLOR");
    const char* const terminal = getenv("TERM");
    return (no_color == nullptr || *no_color == '\0') && isatty(fileno(stream)) == 1 &&
           (terminal == nullptr || strcmp(terminal, "dumb") != 0);
}

// Widths of the columns for a terminal of `room` columns: the widest ones give way.
void narrow(std::vector<size_t>& widths, size_t room) {
    size_t total = GAP * (widths.size() - 1);
    for (const size_t width : widths) total += width;
    for (; total > room; --total) {
        const auto widest = std::max_element(widths.begin(), widths.end());
        if (*widest <= MIN_COLUMN_WIDTH) return;
        --*widest;
    }
}

// The lines of a cell. A word that is wider than its column is broken, at whole characters.
std::vector<std::string> cell_lines(const std::string& text, size_t width) {
    std::vector<std::string> lines;
    std::istringstream words(folded(text, width));
    for (std::string line; std::getline(words, line);) {
        while (column_count(line) > width) {
            size_t end = line.size();
            while (end > 1 && ((line[end] & 0xC0) == 0x80 || column_count(line.substr(0, end)) > width))
                --end;
            lines.push_back(line.substr(0, end));
            line.erase(0, end);
        }
        lines.push_back(line);
    }
    return lines;
}

std::string padded(FILE* stream, const output_cell& cell, const std::string& line, size_t width) {
    std::string text = styled(stream, cell.style, line);
    const size_t count = column_count(line);
    return text.append(std::max(width, count) - count + GAP, ' ');
}

void print_row(FILE* stream, const std::vector<output_cell>& row, const std::vector<size_t>& widths,
               bool is_folded) {
    std::vector<std::vector<std::string>> cells;
    size_t height = 0;
    for (size_t i = 0; i < row.size(); ++i) {
        cells.push_back(is_folded ? cell_lines(row[i].text, widths[i]) : std::vector{row[i].text});
        height = std::max(height, cells.back().size());
    }
    for (size_t n = 0; n < height; ++n) {
        std::string line;
        for (size_t i = 0; i < row.size(); ++i)
            line += padded(stream, row[i], n < cells[i].size() ? cells[i][n] : "", widths[i]);
        line.erase(line.find_last_not_of(' ') + 1);
        fprintf(stream, "%s\n", line.c_str());
    }
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
        const size_t width = column_count(word);
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

size_t column_count(const std::string& text) {
    const locale_t before = utf8_locale() == locale_t() ? locale_t() : uselocale(utf8_locale());
    size_t columns = 0;
    mbstate_t state = {};
    for (size_t at = 0; at < text.size();) {
        wchar_t character = 0;
        const size_t length = mbrtowc(&character, text.data() + at, text.size() - at, &state);
        const bool is_character = length != 0 && length <= MB_LEN_MAX;
        const int width = is_character ? wcwidth(character) : 1;
        if (!is_character) state = {};
        columns += static_cast<size_t>(std::max(width, 0));
        at += is_character ? length : 1;
    }
    if (before != locale_t()) uselocale(before);
    return columns;
}

std::string styled(FILE* stream, look style, const std::string& text) {
    static constexpr const char* BEGIN[] = {"", "\033[1m", "\033[32m", "\033[1;31m"};
    if (style == look::PLAIN || text.empty() || !has_looks(stream)) return text;
    return BEGIN[static_cast<size_t>(style)] + text + "\033[0m";
}

void print_lines(FILE* stream, const std::vector<output_line>& lines) {
    const std::optional<size_t> room = terminal_columns(stream);
    size_t width = 0;
    for (const output_line& line : lines) width = std::max(width, line.name.size());
    const size_t indent = width + 2;
    for (const output_line& line : lines) {
        std::string name = line.name + ":";
        name.append(width + 1 - name.size(), ' ');
        std::string value = shown(line.value);
        if (room && *room > 2 * indent) value = folded(value, *room - indent, indent);
        fprintf(stream, "%s %s\n", styled(stream, look::HEADING, name).c_str(), value.c_str());
    }
}

void print_table(FILE* stream, const output_table& table) {
    if (table.rows.empty()) return;
    std::vector<std::vector<output_cell>> rows(1);
    for (const std::string& heading : table.headings) rows[0].emplace_back(heading, look::HEADING);
    for (const auto& row : table.rows) {
        auto& cells = rows.emplace_back();
        for (const output_cell& cell : row) cells.emplace_back(shown(cell.text), cell.style);
    }
    const std::optional<size_t> room = terminal_columns(stream);
    std::vector<size_t> widths(table.headings.size());
    for (const auto& row : rows) {
        for (size_t i = 0; i < row.size(); ++i) {
            const size_t width = column_count(row[i].text);
            widths[i] = std::max(widths[i], room ? width : std::min(width, MAX_COLUMN_WIDTH));
        }
    }
    if (room) narrow(widths, *room);
    for (const auto& row : rows) print_row(stream, row, widths, room.has_value());
}
