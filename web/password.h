// The password: kept as scrypt makes it, and compared without telling how far it was right.
#pragma once

#include <string>

inline constexpr size_t SHORTEST_PASSWORD = 8;
inline constexpr size_t LONGEST_PASSWORD = 200;

// The one line of a password file: "scrypt N r p SALT HASH". Throws std::exception.
[[nodiscard]] std::string make_password_line(const std::string& password);

// Whether the line has that form, within what this program would spend on it.
[[nodiscard]] bool is_password_line(const std::string& line);

// Takes as long for a wrong password as for the right one.
[[nodiscard]] bool is_password(const std::string& line, const std::string& password);

// So many bytes that nobody can guess, in hexadecimal. Throws std::exception.
[[nodiscard]] std::string random_text(size_t bytes);

// SHA-256 of `text`, and its HMAC with `key`: 32 bytes each.
[[nodiscard]] std::string digest(const std::string& text);
[[nodiscard]] std::string keyed_digest(const std::string& key, const std::string& text);

[[nodiscard]] std::string in_hex(const std::string& bytes);

// Compares in a time that depends on the lengths alone.
[[nodiscard]] bool is_same_secret(const std::string& one, const std::string& other);
