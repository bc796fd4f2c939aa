// Private keys to sign with: files, or what a token keeps to itself and PKCS#11 names.
#pragma once

#include <string>

#include "tools/packages/openssl_objects.h"

// Empty, or what is wrong with the word that says where the pass phrase comes from.
[[nodiscard]] std::string passin_problem(const std::string& passin);

// A source of a key as it may be shown: a URI without the PIN that it may bring along.
[[nodiscard]] std::string shown_source(const std::string& source);

// The pass phrase of private keys, or the PIN of the token that has them.
class pass_phrase {
public:
    // From "env:VARIABLE", "file:FILE" or standard input ("-"): its first line. From nowhere ("") it is asked
    // for at the terminal, when a key needs one.
    explicit pass_phrase(const std::string& passin);

    // Reads the key in the file, or the one that the "pkcs11:" URI names. A key file that others may read is
    // warned of. No other pass phrase is asked for when one was given.
    [[nodiscard]] owned<EVP_PKEY> read_key(const std::string& source);

private:
    std::string text_;
    bool is_given_;
};
