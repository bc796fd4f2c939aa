// What the two S/MIME messages around the package details tell without a key: for whom they are encrypted and
// who signed them. Nothing here says whether a signature is good. Throws bad_input when a file is no such
// message.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "tools/packages/openssl_objects.h"

struct message_recipient {
    std::string issuer, serial;
    std::optional<bool> is_device;  // whether it is one of the device certificates; none: there are none
};

struct encryption_facts {
    std::string cipher;  // such as "aes-256-cbc"
    std::vector<message_recipient> recipients;
};

// `devices` may be null.
[[nodiscard]] encryption_facts read_encryption(const std::filesystem::path& message,
                                               const STACK_OF(X509) * devices);

// Where the certificate of a signer was found. The daemon looks in this order.
enum class signer_source { build_signers, message, nowhere };

struct message_signer {
    std::string issuer, serial;
    std::string digest;  // such as "sha256"
    signer_source source = signer_source::nowhere;
    std::string subject, sha256;  // of the certificate; empty when there is none
};

// `build_signers` may be null. With `content` the signed bytes go to that file, whoever signed them.
[[nodiscard]] std::vector<message_signer> read_signers(
    const std::filesystem::path& message, const STACK_OF(X509) * build_signers,
    const std::optional<std::filesystem::path>& content = std::nullopt);
