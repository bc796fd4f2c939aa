// Keys and certificates of the devices and of the build.
#pragma once

#include <filesystem>

#include "tools/packages/openssl_objects.h"

inline constexpr char DEVICE_KEY_FILE[] = "device.pem";
inline constexpr char DEVICE_CERT_FILE[] = "device_cert.pem";
inline constexpr char BUILD_KEY_FILE[] = "build_key.pem";
inline constexpr char BUILD_CERT_FILE[] = "build_cert.pem";
inline constexpr char BUILD_PUBKEY_FILE[] = "build_pubkey.pem";

// The path of one of them in `folder`. Reports a failure when it is not there.
[[nodiscard]] std::filesystem::path key_file(const std::filesystem::path& folder, const char* name);

// Reports a failure when the daemon could not read the private key at `path`: it gives one fixed pass phrase.
void check_device_key(const std::filesystem::path& path);

// Reads a key of the SubjectPublicKeyInfo form.
[[nodiscard]] owned<EVP_PKEY> read_public_key(const std::filesystem::path& path);

// Says on standard error when every user of this machine may read the private key at `path`.
void warn_of_readers(const std::filesystem::path& path);

// Makes RSA keys of `bits` bits and their self-signed certificates as the files above in `folder`, which is
// made when missing. With `force` in the place of files that are there; without, one that is there is a
// failure before anything is written. They appear when all of them are complete.
void make_keys(const std::filesystem::path& folder, int bits, bool force);
