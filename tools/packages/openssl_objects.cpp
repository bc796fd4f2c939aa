#include "tools/packages/openssl_objects.h"

#include <openssl/err.h>

#include <algorithm>

namespace fs = std::filesystem;

failure openssl_failure(const std::string& what) {
    const char* reason = ERR_reason_error_string(ERR_peek_last_error());
    ERR_clear_error();
    return failure(what + (reason != nullptr ? std::string(" (") + reason + ")" : std::string()));
}

std::string digest_of(const file_range& range, const EVP_MD* algorithm) {
    const owned<EVP_MD_CTX> context(EVP_MD_CTX_new());
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned size = 0;
    bool good = context && EVP_DigestInit_ex(context.get(), algorithm, nullptr) == 1;
    read_range(range, [&](const char* bytes, size_t count) {
        good = good && EVP_DigestUpdate(context.get(), bytes, count) == 1;
    });
    if (!good || EVP_DigestFinal_ex(context.get(), digest, &size) != 1)
        throw openssl_failure("Cannot compute the digest of " + range.path.string());
    return hex_text(digest, size);
}

std::string hex_text(const unsigned char* bytes, size_t count) {
    static constexpr char DIGITS[] = "0123456789abcdef";
    std::string text;
    for (size_t i = 0; i < count; ++i) text += {DIGITS[bytes[i] >> 4], DIGITS[bytes[i] & 0xF]};
    return text;
}

owned<STACK_OF(X509)> read_certificates(const fs::path& path) {
    const file_ptr stream = open_file(path);
    const owned<BIO> file(BIO_new_fp(stream.get(), BIO_NOCLOSE));
    owned<STACK_OF(X509)> certs = read_pem_certificates(file.get());
    if (!certs) throw openssl_failure(path.string() + " holds no certificate; make one with `fotapkg keys`");
    ERR_clear_error();  // the end of the file is one
    return certs;
}

std::string name_text(const X509_NAME* name) {
    constexpr size_t LONGEST = 255;
    const owned<BIO> bio(BIO_new(BIO_s_mem()));
    X509_NAME_print_ex(bio.get(), name, 0, XN_FLAG_RFC2253 & ~ASN1_STRFLGS_ESC_MSB);
    char* data = nullptr;
    const auto length = static_cast<size_t>(BIO_get_mem_data(bio.get(), &data));
    return std::string(data, std::min(length, LONGEST)) + (length > LONGEST ? "..." : "");
}

std::string subjects_of(const STACK_OF(X509) * certs) {
    std::string text;
    for (int i = 0; i < sk_X509_num(certs); ++i) {
        text += (i > 0 ? " and " : "") + name_text(X509_get_subject_name(sk_X509_value(certs, i)));
    }
    return text;
}

std::string fingerprint_of(const X509* certificate) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned size = 0;
    return X509_digest(certificate, EVP_sha256(), digest, &size) == 1 ? hex_text(digest, size) : "";
}
