// The least that a program with libcrypto takes to start.
#include <openssl/crypto.h>

int main() {
    return OpenSSL_version_num() == 0 ? 1 : 0;
}
