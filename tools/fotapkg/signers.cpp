#include "signers.h"

#include <openssl/err.h>
#include <openssl/pem.h>

#include "private_key.h"
#include "tools/packages/keys.h"

namespace fs = std::filesystem;

namespace {

constexpr int MAX_PIECE_SIGNATURE_BYTES = 512;  // devices read no more

std::string certificate_source(const signing_options& options) {
    return options.certificates.empty() ? BUILD_CERT_FILE : "--cert";
}

owned<STACK_OF(X509)> read_build_certificates(const signing_options& options) {
    if (options.certificates.empty()) return read_certificates(key_file(options, BUILD_CERT_FILE));
    owned<STACK_OF(X509)> all(sk_X509_new_null());
    for (const fs::path& path : options.certificates) {
        const owned<STACK_OF(X509)> certificates = read_certificates(path);
        while (X509* const certificate = sk_X509_shift(certificates.get()))
            sk_X509_push(all.get(), certificate);
    }
    return all;
}

// The first certificate whose key fits.
template <typename Fits>
X509* find_certificate(const STACK_OF(X509) * certificates, const Fits& fits) {
    for (int i = 0; i < sk_X509_num(certificates); ++i) {
        X509* const certificate = sk_X509_value(certificates, i);
        EVP_PKEY* const key = X509_get0_pubkey(certificate);
        if (key != nullptr && fits(key)) return certificate;
    }
    return nullptr;
}

bool is_signature(const file_range& range, const std::string& signature, EVP_PKEY* key) {
    const owned<EVP_MD_CTX> context(EVP_MD_CTX_new());
    bool good = context && EVP_DigestVerifyInit(context.get(), nullptr, EVP_sha256(), nullptr, key) == 1;
    read_range(range, [&](const char* bytes, size_t size) {
        good = good && EVP_DigestVerifyUpdate(context.get(), bytes, size) == 1;
    });
    good =
        good && EVP_DigestVerifyFinal(context.get(), reinterpret_cast<const unsigned char*>(signature.data()),
                                      signature.size()) == 1;
    ERR_clear_error();
    return good;
}

std::string read_signature(const fs::path& path) {
    constexpr uint64_t LONGEST = 65536;  // no key makes such
    const file_range range = whole_file(path);
    if (range.size == 0 || range.size > LONGEST)
        throw failure(path.string() + " is no signature; give the bytes that the signing service made");
    std::string signature;
    read_range(range, [&](const char* bytes, size_t size) { signature.append(bytes, size); });
    return signature;
}

std::vector<std::string> key_sources(const signing_options& options) {
    if (!options.keys.empty() || !options.signatures.empty()) return options.keys;
    return {key_file(options, BUILD_KEY_FILE)};
}

// For people; where the folder's own key is meant, its name is enough.
std::string shown(const signing_options& options, const std::string& source) {
    return options.keys.empty() ? BUILD_KEY_FILE : shown_source(source);
}

bool is_same(const EVP_PKEY* key, const EVP_PKEY* public_key) {
    return EVP_PKEY_cmp(key, public_key) == 1;
}

}  // namespace

fs::path key_file(const signing_options& options, const char* name) {
    if (options.folder) return key_file(*options.folder, name);
    throw misuse(std::string("There is no ") + name + "; give --keys the folder that has it");
}

build_signers read_build_signers(const signing_options& options, const fs::path& details) {
    build_signers signers = {read_build_certificates(options), {}};
    const std::string certificates = certificate_source(options);
    pass_phrase phrase(options.passin);
    for (const std::string& source : key_sources(options)) {
        owned<EVP_PKEY> key = phrase.read_key(source);
        X509* const certificate =
            find_certificate(signers.certificates.get(),
                             [&](const EVP_PKEY* public_key) { return is_same(key.get(), public_key); });
        if (certificate == nullptr) {
            throw failure(shown_source(source) + " does not belong to " + certificates +
                          "; take both from one set of keys, or give --cert its certificate");
        }
        signers.all.push_back({certificate, std::move(key), "", shown(options, source)});
    }
    for (const fs::path& path : options.signatures) {
        const std::string signature = read_signature(path);
        const file_range signed_bytes = whole_file(details);
        X509* const certificate = find_certificate(signers.certificates.get(), [&](EVP_PKEY* key) {
            return is_signature(signed_bytes, signature, key);
        });
        if (certificate == nullptr) {
            throw failure(path.string() + " is no SHA-256 signature of " + details.string() +
                          " by a signer in " + certificates);
        }
        signers.all.push_back({certificate, nullptr, signature, path});
    }
    return signers;
}

fs::path piece_key_file(const signing_options& options, const work_folder& work) {
    fs::path path;
    if (options.certificates.empty()) {
        path = key_file(options, BUILD_PUBKEY_FILE);
    } else {
        const owned<STACK_OF(X509)> certificates = read_build_certificates(options);
        path = work / BUILD_PUBKEY_FILE;
        file_ptr stream = create_file(path, 0600);
        PEM_write_PUBKEY(stream.get(), X509_get0_pubkey(sk_X509_value(certificates.get(), 0)));
        finish_file(std::move(stream), path);
    }
    const std::string problem = piece_key_problem(read_public_key(path).get());
    if (!problem.empty()) throw failure(problem + "; make one with `fotapkg keys`");
    return path;
}

build_signer read_piece_signer(const signing_options& options, const fs::path& public_file) {
    const std::string source = key_sources(options).front();
    owned<EVP_PKEY> key = pass_phrase(options.passin).read_key(source);
    if (is_same(key.get(), read_public_key(public_file).get()))
        return {nullptr, std::move(key), "", shown(options, source)};
    throw failure(shown_source(source) + " does not belong to " +
                  (options.certificates.empty() ? BUILD_PUBKEY_FILE : options.certificates.front().string()) +
                  "; take both from one set of keys");
}

std::string piece_key_problem(const EVP_PKEY* key) {
    if (EVP_PKEY_base_id(key) == EVP_PKEY_RSA && EVP_PKEY_size(key) <= MAX_PIECE_SIGNATURE_BYTES) return "";
    return "The build key is no RSA key of at most 4096 bits, as bundles need";
}

std::string sign_range(const file_range& range, EVP_PKEY* key) {
    const owned<EVP_MD_CTX> context(EVP_MD_CTX_new());
    bool good = context && EVP_DigestSignInit(context.get(), nullptr, EVP_sha256(), nullptr, key) == 1;
    read_range(range, [&](const char* bytes, size_t size) {
        good = good && EVP_DigestSignUpdate(context.get(), bytes, size) == 1;
    });
    unsigned char signature[MAX_PIECE_SIGNATURE_BYTES];
    size_t length = sizeof signature;
    if (!good || EVP_DigestSignFinal(context.get(), signature, &length) != 1)
        throw openssl_failure("Cannot sign a piece");
    return std::string(reinterpret_cast<const char*>(signature), length);
}
