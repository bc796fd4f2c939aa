#include "package/openssl_objects.h"

#include <openssl/pem.h>

owned<STACK_OF(X509)> read_pem_certificates(BIO* file) {
    const owned<STACK_OF(X509_INFO)> items(PEM_X509_INFO_read_bio(file, nullptr, nullptr, nullptr));
    owned<STACK_OF(X509)> certificates(sk_X509_new_null());
    if (!items || !certificates) return nullptr;
    for (int i = 0; i < sk_X509_INFO_num(items.get()); ++i) {
        X509_INFO* item = sk_X509_INFO_value(items.get(), i);
        if (item->x509 == nullptr) continue;
        if (sk_X509_push(certificates.get(), item->x509) == 0) return nullptr;
        item->x509 = nullptr;  // the stack owns it now
    }
    if (sk_X509_num(certificates.get()) == 0) return nullptr;
    return certificates;
}
