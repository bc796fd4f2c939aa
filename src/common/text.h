// Bounded text and local dates. Any thread.
#pragma once

#include <cstddef>
#include <ctime>

// Copies at most `src_width` bytes of `src`, up to its NUL if it has one there, into `dst`, cut to `dst_size`
// - 1 bytes. The rest of `dst` is zeroed, so that no stale byte leaves in a record. The two must not overlap.
void text_copy(char* dst, size_t dst_size, const char* src, size_t src_width);

// The same between two fields; neither is read or written past its width.
template <size_t N, size_t M>
void text_copy(char (&dst)[N], const char (&src)[M]) {
    text_copy(dst, N, src, M);
}

// Formats into `dst`, cut to its size; the rest of `dst` is zeroed. True when nothing was cut.
[[gnu::format(printf, 3, 4)]] bool text_format(char* dst, size_t dst_size, const char* format, ...);

// Appends at most `src_width` bytes of `src`, up to its NUL, to the text in `dst`, cut to `dst_size` - 1
// bytes in all.
void text_append(char* dst, size_t dst_size, const char* src, size_t src_width);

// The same between two fields; neither is read or written past its width.
template <size_t N, size_t M>
void text_append(char (&dst)[N], const char (&src)[M]) {
    text_append(dst, N, src, M);
}

// Cuts `text` at its first carriage return, line feed, tab or space.
void text_trim(char* text);

// Cuts one line end off the end of `text`, if it has one.
void text_cut_line_end(char* text);

static_assert(sizeof(time_t) == 8, "a 32-bit clock ends in January 2038: build with -D_TIME_BITS=64");

inline constexpr char FOTA_DATE_FORMAT[] = "%m-%d-%Y-%H:%M:%S";

// The local time now, in a zone that may have come from the network since start. False when it cannot be
// converted.
[[nodiscard]] bool local_time_now(tm* local);

// The epoch seconds of a local time; whether it is summer time is for the library to decide.
[[nodiscard]] time_t local_time_to_epoch(tm* local);

// Writes the local time now in FOTA_DATE_FORMAT; the rest of `dst` is zeroed. Empty when the time cannot be
// converted.
void local_date_now(char* dst, size_t dst_size);
