// Owners of OpenSSL objects, and certificates. Any thread.
#pragma once

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pkcs7.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <memory>

struct openssl_deleter {
    void operator()(BIO* bio) const { BIO_free_all(bio); }
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
    void operator()(EVP_PKEY_CTX* context) const { EVP_PKEY_CTX_free(context); }
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
    void operator()(PKCS7* message) const { PKCS7_free(message); }
    void operator()(RSA* key) const { RSA_free(key); }
    void operator()(X509* certificate) const { X509_free(certificate); }
    void operator()(X509_STORE* store) const { X509_STORE_free(store); }
    void operator()(STACK_OF(X509) * certificates) const { sk_X509_pop_free(certificates, X509_free); }
    void operator()(STACK_OF(X509_INFO) * items) const { sk_X509_INFO_pop_free(items, X509_INFO_free); }
};
template <typename T>
using owned = std::unique_ptr<T, openssl_deleter>;

// The certificates of a PEM file, in its order; what else is in it is passed over. Null when there is none,
// or memory is short.
[[nodiscard]] owned<STACK_OF(X509)> read_pem_certificates(BIO* file);
