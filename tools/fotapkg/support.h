// What the commands of fotapkg share: errors, progress, files, and owners of OpenSSL objects.
#pragma once

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

#include "common/file_helpers.h"

// Ends a command: one sentence that says what is wrong and what to do about it.
struct failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// A failure with the newest of OpenSSL's reasons, or the reason that errno gives, after `what`.
[[nodiscard]] failure openssl_failure(const std::string& what);
[[nodiscard]] failure system_failure(const std::string& what);

// A line that tells how far a command has come, shown at once. Escaped: file names and what is in a package
// may hold what a terminal acts on.
void show_step(const std::string& step, const std::string& text);

// Such as "36700160 bytes (35.0 MiB)".
[[nodiscard]] std::string file_size_text(const std::filesystem::path& path);

// Where a file is written that gets its name `path` when it is complete.
[[nodiscard]] std::filesystem::path part_of(const std::filesystem::path& path);

// Something unfinished on the disk: what lies at `path` goes when the owner ends, and when a signal ends the
// program.
class unfinished {
public:
    explicit unfinished(std::filesystem::path path);
    ~unfinished();
    unfinished(const unfinished&) = delete;
    unfinished& operator=(const unfinished&) = delete;

private:
    std::filesystem::path path_;
};

// Lets SIGHUP, SIGINT and SIGTERM end the program only after everything unfinished is gone. Before any other
// thread is made.
void clean_up_on_signals();

// A folder of our own under $TMPDIR, or else /tmp, that goes with its contents.
class work_folder {
public:
    work_folder();

    // Reports a failure when the file system has not so many bytes free: OpenSSL does not tell a full disk
    // from a damaged message.
    void check_room(uint64_t bytes) const;
    [[nodiscard]] std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

private:
    std::filesystem::path path_;
    unfinished contents_;
};

// Whether a path is relative and leads out of no folder.
[[nodiscard]] bool stays_inside(const std::filesystem::path& name);

// Reports a failure, before any work is done, when no file can come to be at `path`, or something lies there
// that must not be replaced: only a regular file may be.
void check_output(const std::filesystem::path& path);

// Makes `path`, whatever was there before, with exactly `mode`. Never follows a link.
[[nodiscard]] file_ptr create_file(const std::filesystem::path& path, mode_t mode);

// Reports a failure when what was written to `stream` is not all in the file `path`.
void finish_file(file_ptr stream, const std::filesystem::path& path);

void write_file(const std::filesystem::path& path, std::string_view content, mode_t mode);

// Opens a regular file for reading.
[[nodiscard]] file_ptr open_file(const std::filesystem::path& path);

struct file_range {
    std::filesystem::path path;
    uint64_t offset, size;
};

// A regular file as large as it is now.
[[nodiscard]] file_range whole_file(const std::filesystem::path& path);

// Hands the bytes of `range` to `take`, a bounded number at a time: packages may be larger than memory.
// Reports a failure when they are not all there any more.
void read_range(const file_range& range, const std::function<void(const char*, size_t)>& take);

// The digest of those bytes in lower-case hexadecimal.
[[nodiscard]] std::string digest_of(const file_range& range, const EVP_MD* algorithm);

// Two lower-case hexadecimal digits for each byte.
[[nodiscard]] std::string hex_text(const unsigned char* bytes, size_t count);

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
