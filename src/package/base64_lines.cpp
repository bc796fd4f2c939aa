#include "package/base64_lines.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>

namespace {

constexpr size_t TEXT_SIZE = 16384;  // of the file in memory at once
constexpr size_t LINE_CHARS_MAX = 76;
constexpr size_t QUAD_CHARS = 4, QUAD_BYTES = 3;
constexpr uint8_t NO_VALUE = 0x80, PADDING = 0x40;  // the others have six bits

constexpr std::array<uint8_t, 256> VALUES = [] {
    constexpr char DIGITS[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::array<uint8_t, 256> values = {};
    values.fill(NO_VALUE);
    for (uint8_t i = 0; i < 64; ++i) values[static_cast<uint8_t>(DIGITS[i])] = i;
    values['='] = PADDING;
    return values;
}();

size_t read_file(int fd, uint64_t offset, char* out, size_t size) {
    size_t done = 0;
    while (done < size) {
        const ssize_t count = pread(fd, out + done, size - done, static_cast<off_t>(offset + done));
        if (count <= 0) break;
        done += static_cast<size_t>(count);
    }
    return done;
}

bool are_digits(const char* text, size_t count) {
    uint8_t all = 0;
    for (size_t i = 0; i < count; ++i) all |= VALUES[static_cast<uint8_t>(text[i])];
    return (all & (NO_VALUE | PADDING)) == 0;
}

// False when there is something else among them. Of a padded quad only the bytes that it has are of use.
bool decode_quads(const char* text, size_t quads, unsigned char* out) {
    uint8_t all = 0;
    for (; quads > 0; --quads, text += QUAD_CHARS, out += QUAD_BYTES) {
        const uint8_t a = VALUES[static_cast<uint8_t>(text[0])], b = VALUES[static_cast<uint8_t>(text[1])],
                      c = VALUES[static_cast<uint8_t>(text[2])], d = VALUES[static_cast<uint8_t>(text[3])];
        all |= static_cast<uint8_t>(a | b | c | d);
        out[0] = static_cast<unsigned char>(a << 2 | b >> 4);
        out[1] = static_cast<unsigned char>(b << 4 | c >> 2);
        out[2] = static_cast<unsigned char>(c << 6 | d);
    }
    return (all & NO_VALUE) == 0;
}

// The length of the line end at the start of `text`, LF or CR LF; 0: there is none.
size_t line_end_size(const char* text, size_t size) {
    if (size > 0 && text[0] == '\n') return 1;
    return size > 1 && text[0] == '\r' && text[1] == '\n' ? 2 : 0;
}

// The offset behind the last byte that is no line end. 0: none is near the end.
uint64_t find_end(int fd, uint64_t start, uint64_t file_size) {
    char text[512];
    const uint64_t from = file_size - std::min<uint64_t>(file_size - start, sizeof text);
    size_t count = read_file(fd, from, text, static_cast<size_t>(file_size - from));
    while (count > 0 && (text[count - 1] == '\n' || text[count - 1] == '\r')) --count;
    return count > 0 ? from + count : 0;
}

bool find_line_length(base64_lines* lines, uint64_t end) {
    char text[LINE_CHARS_MAX + 2];
    const size_t count = read_file(lines->fd, lines->start, text, sizeof text);
    size_t chars = 0;
    while (chars < count && lines->start + chars < end && text[chars] != '\n' && text[chars] != '\r') ++chars;
    const size_t end_size = line_end_size(text + chars, count - chars);
    if (chars > LINE_CHARS_MAX) return false;
    if (lines->start + chars == end) {  // there is no other line
        chars = (chars + QUAD_CHARS - 1) / QUAD_CHARS * QUAD_CHARS;
    } else if (chars == 0 || chars % QUAD_CHARS != 0 || end_size == 0) {
        return false;
    }
    lines->line_chars = static_cast<uint32_t>(chars);
    lines->line_size = static_cast<uint32_t>(chars + end_size);
    return true;
}

// The digits that decode to `position` begin a quad there.
uint64_t offset_of_quad(const base64_lines& lines, uint64_t position) {
    const uint64_t chars = position / QUAD_BYTES * QUAD_CHARS;
    return lines.start + chars / lines.line_chars * lines.line_size + chars % lines.line_chars;
}

}  // namespace

bool find_base64_lines(int fd, uint64_t start, base64_lines* lines) {
    struct stat info = {};
    if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode) || static_cast<uint64_t>(info.st_size) <= start)
        return false;
    *lines = {};
    lines->fd = fd;
    lines->start = start;
    const uint64_t end = find_end(fd, start, static_cast<uint64_t>(info.st_size));
    if (end <= start || !find_line_length(lines, end)) return false;

    const size_t in_text = TEXT_SIZE / lines->line_size * lines->line_size;
    const char* const line_end = lines->line_size - lines->line_chars == 2 ? "\r\n" : "\n";
    uint64_t chars = 0;
    size_t padding = 0;
    for (uint64_t offset = start; offset < end;) {
        char text[TEXT_SIZE];
        const size_t count = static_cast<size_t>(std::min<uint64_t>(end - offset, in_text));
        if (read_file(fd, offset, text, count) != count) return false;
        offset += count;
        for (size_t at = 0; at < count; at += lines->line_size) {
            size_t length = std::min<size_t>(count - at, lines->line_chars);
            chars += length;
            if (at + length < count) {
                if (memcmp(text + at + length, line_end, lines->line_size - lines->line_chars) != 0)
                    return false;
            } else if (offset == end) {
                for (; padding < 2 && length > 0 && text[at + length - 1] == '='; --length) ++padding;
            }
            if (!are_digits(text + at, length)) return false;
        }
    }
    lines->ends_evenly = chars % QUAD_CHARS == 0;
    if (!lines->ends_evenly && padding > 0) return false;
    lines->decoded_size = chars / QUAD_CHARS * QUAD_BYTES - padding;
    return true;
}

ssize_t read_decoded(const base64_lines& lines, uint64_t position, unsigned char* out, size_t size) {
    if (position >= lines.decoded_size) return 0;
    size = static_cast<size_t>(std::min<uint64_t>(size, lines.decoded_size - position));
    size_t done = 0;
    while (done < size) {
        const uint64_t at = position + done, from = offset_of_quad(lines, at),
                       to = offset_of_quad(lines, position + size - 1) + QUAD_CHARS;
        char text[TEXT_SIZE];
        unsigned char bytes[TEXT_SIZE / QUAD_CHARS * QUAD_BYTES];
        const size_t count =
            read_file(lines.fd, from, text, static_cast<size_t>(std::min<uint64_t>(to - from, sizeof text)));
        // The first line may be the end of one, and the last line the start of one.
        size_t in_line = static_cast<size_t>(at / QUAD_BYTES * QUAD_CHARS % lines.line_chars), decoded = 0;
        for (size_t i = 0; i < count; i += lines.line_size - in_line, in_line = 0) {
            const size_t quads = std::min(count - i, lines.line_chars - in_line) / QUAD_CHARS;
            if (!decode_quads(text + i, quads, bytes + decoded)) return -1;
            decoded += quads * QUAD_BYTES;
        }
        const size_t skipped = static_cast<size_t>(at % QUAD_BYTES);
        if (decoded <= skipped) return -1;  // the file has become shorter
        const size_t taken = std::min(decoded - skipped, size - done);
        memcpy(out + done, bytes + skipped, taken);
        done += taken;
    }
    return static_cast<ssize_t>(done);
}
