// The MD5 list that comes with a package. Any thread.
#pragma once

#include <cstdio>

struct checksum_entry {
    char digest[34];
    char name[256];
};

// Reads the next entry of a list: a line of a digest of 32 lower-case hexadecimal characters, white space,
// and a name; lines with fewer than two words are passed over. False at the end of the list.
[[nodiscard]] bool next_checksum_entry(FILE* list, checksum_entry* entry);

// Checks every file that the list at `list_path` names, relative to `base_dir`; stops at the first that is
// missing or differs. A list without any entry passes. Returns 0 or -1.
[[nodiscard]] int verify_checksum(const char* base_dir, const char* list_path);

// Compares the MD5 of a regular file with the first 32 characters of `expected_digest`. Returns 0 or -1.
[[nodiscard]] int verify_file_md5(const char* path, const char* expected_digest);
