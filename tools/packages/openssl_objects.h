// Digests; certificates and how they are named.
#pragma once

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <filesystem>
#include <string>

#include "package/openssl_objects.h"
#include "tools/common/failure.h"
#include "tools/common/files.h"

// The digest of those bytes in lower-case hexadecimal.
[[nodiscard]] std::string digest_of(const file_range& range, const EVP_MD* algorithm);

// Two lower-case hexadecimal digits for each byte.
[[nodiscard]] std::string hex_text(const unsigned char* bytes, size_t count);

// A failure with the newest of OpenSSL's reasons after `what`.
[[nodiscard]] failure openssl_failure(const std::string& what);

// The certificates of a PEM file, at least one.
[[nodiscard]] owned<STACK_OF(X509)> read_certificates(const std::filesystem::path& path);

// Such as "CN=fota build"; a very long name is cut.
[[nodiscard]] std::string name_text(const X509_NAME* name);

// Such as "CN=build one and CN=build two".
[[nodiscard]] std::string subjects_of(const STACK_OF(X509) * certs);

// The SHA-256 of a certificate, by which people compare it; empty when OpenSSL cannot tell.
[[nodiscard]] std::string fingerprint_of(const X509* certificate);
