// What the commands of fotapkg share: errors, text for the terminal, files, and owners of OpenSSL objects.
#pragma once

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

#include "common/file_helpers.h"

// Ends a command: one sentence that says what is wrong and what to do about it.
struct failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// A failure with the newest of OpenSSL's reasons after `what`.
[[nodiscard]] failure openssl_failure(const std::string& what);

// A failure with the reason that errno gives after `what`.
[[nodiscard]] failure system_failure(const std::string& what);

// A line that tells how far a command has come, shown at once.
[[gnu::format(printf, 2, 3)]] void show_step(const char* step, const char* format, ...);

// `text` with everything but printable ASCII as \xNN: file names and what is in a package may hold escape
// sequences.
[[nodiscard]] std::string printable(std::string_view text);

// Such as "34.5 MiB".
[[nodiscard]] std::string size_text(uint64_t bytes);

// A folder of our own under $TMPDIR, or else /tmp, that goes with its contents.
class work_folder {
public:
    work_folder();
    ~work_folder();
    work_folder(const work_folder&) = delete;
    work_folder& operator=(const work_folder&) = delete;
    [[nodiscard]] std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

private:
    std::filesystem::path path_;
};

// Makes `path`, whatever was there before, with exactly `mode`. Never follows a link.
[[nodiscard]] file_ptr create_file(const std::filesystem::path& path, mode_t mode);

// Reports a failure when what was written to `stream` is not all in the file `path`.
void finish_file(file_ptr stream, const std::filesystem::path& path);

void write_file(const std::filesystem::path& path, std::string_view content, mode_t mode);

// Opens a regular file for reading.
[[nodiscard]] file_ptr open_file(const std::filesystem::path& path);

struct openssl_deleter {
    void operator()(BIO* bio) const { BIO_free_all(bio); }
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
    void operator()(EVP_PKEY_CTX* context) const { EVP_PKEY_CTX_free(context); }
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
    void operator()(X509* cert) const { X509_free(cert); }
    void operator()(PKCS7* message) const { PKCS7_free(message); }
};
template <typename T>
using owned = std::unique_ptr<T, openssl_deleter>;

[[nodiscard]] owned<X509> read_certificate(const std::filesystem::path& path);

// The subject of a certificate, fit for the terminal.
[[nodiscard]] std::string subject_of(X509* cert);
