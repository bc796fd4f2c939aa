// Who signs for the build, and what was signed elsewhere.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "tools/packages/openssl_objects.h"

struct signing_options {
    std::optional<std::filesystem::path> folder;      // that `fotapkg keys` made, or parts of it
    std::vector<std::string> keys;                    // files or "pkcs11:" URIs, instead of its build_key.pem
    std::vector<std::filesystem::path> certificates;  // instead of its build_cert.pem and build_pubkey.pem
    std::vector<std::filesystem::path> signatures;    // of the package details, made elsewhere
    std::string passin;                               // see pass_phrase
};

// The command line lacks something.
struct misuse : failure {
    using failure::failure;
};

// The file `name` in the folder of keys. Reports a failure when there is none, misuse without a folder.
[[nodiscard]] std::filesystem::path key_file(const signing_options& options, const char* name);

// One signature of a message: by a key that is here, or made elsewhere.
struct build_signer {
    X509* certificate = nullptr;  // one of build_signers::certificates, for a message
    owned<EVP_PKEY> key;
    std::string signature;  // when there is no key
    std::string source;     // file or URI of either, for people
};

struct build_signers {
    owned<STACK_OF(X509)> certificates;
    std::vector<build_signer> all;
};

// Reads keys and signatures, and finds each one's certificate: the first that it fits. `details` is what the
// signatures are of. Reports a failure when one fits none: devices would find no signer.
[[nodiscard]] build_signers read_build_signers(const signing_options& options,
                                               const std::filesystem::path& details);

// The file with the public key by which devices check pieces of bundles; it may be made in `work`. Reports a
// failure when that is a key with which they check none.
[[nodiscard]] std::filesystem::path piece_key_file(const signing_options& options, const work_folder& work);

// Reads the one key that signs pieces. Reports a failure when `public_file`, see above, is not its own.
[[nodiscard]] build_signer read_piece_signer(const signing_options& options,
                                             const std::filesystem::path& public_file);

// Why devices check no piece that this key signs; empty: they do.
[[nodiscard]] std::string piece_key_problem(const EVP_PKEY* key);

// The signature by `key` over SHA-256.
[[nodiscard]] std::string sign_range(const file_range& range, EVP_PKEY* key);
