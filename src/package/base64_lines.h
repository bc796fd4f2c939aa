// Lines of base64 in a file, read at any place of what they decode to. Any thread, as far as the file is
// nobody else's.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

// Lines of one length, the last one shorter or as long, padded at the very end alone, each ended alike.
struct base64_lines {
    int fd = -1;                // of the file, the caller's
    uint64_t start = 0;         // offset of the first line in the file, bytes
    uint32_t line_chars = 0;    // of a whole line, without its end; a multiple of 4
    uint32_t line_size = 0;     // with its end, which is LF or CR LF
    uint64_t decoded_size = 0;  // bytes; when the last line is cut short, without what is not whole
    bool ends_evenly = false;   // the last line was not cut short, as far as its length tells
};

// Looks through all lines from `start` to the end of the file; line ends alone may follow. False when they
// are anything but what is described above, or cannot be read.
[[nodiscard]] bool find_base64_lines(int fd, uint64_t start, base64_lines* lines);

// Decodes at most `size` bytes from `position` on. Returns their number, less than `size` at the end alone;
// -1 when they cannot be read, or are base64 no longer.
[[nodiscard]] ssize_t read_decoded(const base64_lines& lines, uint64_t position, unsigned char* out,
                                   size_t size);
