// Owners of OpenSSL objects; digests; certificates and how they are named.
#pragma once

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pkcs7.h>
#include <openssl/x509.h>

#include <filesystem>
#include <memory>
#include <string>

#include "tools/common/failure.h"
#include "tools/common/files.h"

// The digest of those bytes in lower-case hexadecimal.
[[nodiscard]] std::string digest_of(const file_range& range, const EVP_MD* algorithm);

// Two lower-case hexadecimal digits for each byte.
[[nodiscard]] std::string hex_text(const unsigned char* bytes, size_t count);

// A failure with the newest of OpenSSL's reasons after `what`.
[[nodiscard]] failure openssl_failure(const std::string& what);

struct openssl_deleter {
    void operator()(BIO* bio) const { BIO_free_all(bio); }
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
    void operator()(EVP_PKEY_CTX* context) const { EVP_PKEY_CTX_free(context); }
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
    void operator()(X509* cert) const { X509_free(cert); }
    void operator()(STACK_OF(X509) * certs) const { sk_X509_pop_free(certs, X509_free); }
    void operator()(PKCS7* message) const { PKCS7_free(message); }
};
template <typename T>
using owned = std::unique_ptr<T, openssl_deleter>;

// The certificates of a PEM file, at least one.
[[nodiscard]] owned<STACK_OF(X509)> read_certificates(const std::filesystem::path& path);

// Such as "CN=fota build"; a very long name is cut.
[[nodiscard]] std::string name_text(const X509_NAME* name);

// Such as "CN=build one and CN=build two".
[[nodiscard]] std::string subjects_of(const STACK_OF(X509) * certs);
