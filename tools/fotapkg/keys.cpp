#include "keys.h"

#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>

#include <array>
#include <functional>
#include <string>
#include <string_view>

#include "common/state_files.h"
#include "package/crypto.h"
#include "support.h"

namespace fs = std::filesystem;

namespace {

// Nobody looks at the date: devices may have no clock yet when they check a package.
constexpr int VALID_DAYS = 20 * 365;

struct identity {
    owned<EVP_PKEY> key;
    owned<X509> cert;
};

owned<EVP_PKEY> make_rsa_key(int bits) {
    const owned<EVP_PKEY_CTX> context(EVP_PKEY_CTX_new_id(EVP_PKEY_RSA, nullptr));
    EVP_PKEY* key = nullptr;
    if (!context || EVP_PKEY_keygen_init(context.get()) != 1 ||
        EVP_PKEY_CTX_set_rsa_keygen_bits(context.get(), bits) != 1 ||
        EVP_PKEY_keygen(context.get(), &key) != 1) {
        throw openssl_failure("Cannot make an RSA key");
    }
    return owned<EVP_PKEY>(key);
}

// A signer is found by issuer and serial number, so both must differ from any other identity's.
owned<X509> make_certificate(EVP_PKEY* key, const char* common_name) {
    unsigned char serial[16];
    owned<X509> cert(X509_new());
    if (!cert || RAND_bytes(serial, sizeof serial) != 1) throw openssl_failure("Cannot make a certificate");
    serial[0] = static_cast<unsigned char>((serial[0] & 0x7f) | 0x40);
    ASN1_STRING_set(X509_get_serialNumber(cert.get()), serial, sizeof serial);
    X509_set_version(cert.get(), 2);
    X509_gmtime_adj(X509_getm_notBefore(cert.get()), 0);
    X509_time_adj_ex(X509_getm_notAfter(cert.get()), VALID_DAYS, 0, nullptr);
    X509_NAME* name = X509_get_subject_name(cert.get());
    if (X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                                   reinterpret_cast<const unsigned char*>(common_name), -1, -1, 0) != 1 ||
        X509_set_issuer_name(cert.get(), name) != 1 || X509_set_pubkey(cert.get(), key) != 1 ||
        X509_sign(cert.get(), key, EVP_sha256()) == 0) {
        throw openssl_failure("Cannot make a certificate");
    }
    return cert;
}

identity make_identity(int bits, const char* common_name) {
    identity made;
    made.key = make_rsa_key(bits);
    made.cert = make_certificate(made.key.get(), common_name);
    return made;
}

std::string pem_text(const std::function<int(BIO*)>& write) {
    const owned<BIO> bio(BIO_new(BIO_s_mem()));
    if (!bio || write(bio.get()) != 1) throw openssl_failure("Cannot write a key as PEM");
    char* data = nullptr;
    const long length = BIO_get_mem_data(bio.get(), &data);
    return std::string(data, static_cast<size_t>(length));
}

}  // namespace

fs::path key_file(const fs::path& folder, const char* name) {
    fs::path path = folder / name;
    if (fs::is_regular_file(path)) return path;
    throw failure("There is no file " + path.string() + "; give --keys a folder that `fotapkg keys` made");
}

void make_keys(const fs::path& folder, int bits, bool force) {
    if (!force) {
        for (const char* name :
             {DEVICE_KEY_FILE, DEVICE_CERT_FILE, BUILD_KEY_FILE, BUILD_CERT_FILE, BUILD_PUBKEY_FILE}) {
            if (!fs::exists(fs::symlink_status(folder / name))) continue;
            throw failure((folder / name).string() +
                          " exists; give another folder, or --force to lose that key");
        }
    }
    const identity device = make_identity(bits, "fota device");
    const identity build = make_identity(bits, "fota build");

    const struct {
        const char* name;
        mode_t mode;
        std::string content;
    } files[] = {
        {DEVICE_KEY_FILE, 0600, pem_text([&](BIO* out) {
             return PEM_write_bio_PKCS8PrivateKey(out, device.key.get(), EVP_aes_256_cbc(), nullptr, 0, pw_cb,
                                                  nullptr);
         })},
        {DEVICE_CERT_FILE, 0644,
         pem_text([&](BIO* out) { return PEM_write_bio_X509(out, device.cert.get()); })},
        {BUILD_KEY_FILE, 0600, pem_text([&](BIO* out) {
             return PEM_write_bio_PKCS8PrivateKey(out, build.key.get(), nullptr, nullptr, 0, nullptr,
                                                  nullptr);
         })},
        {BUILD_CERT_FILE, 0644,
         pem_text([&](BIO* out) { return PEM_write_bio_X509(out, build.cert.get()); })},
        {BUILD_PUBKEY_FILE, 0644,
         pem_text([&](BIO* out) { return PEM_write_bio_PUBKEY(out, build.key.get()); })},
    };
    if (fs::create_directories(folder)) fs::permissions(folder, fs::perms::owner_all);
    for (const auto& file : files) write_file(folder / file.name, file.content, file.mode);

    const std::string device_folder = fs::path(FOTA_DEVICE_KEY).parent_path().string();
    show_step("keys", "two RSA keys of %d bits in %s", bits, printable(folder.string()).c_str());
    show_step("on devices", "%s, %s and %s go to %s", DEVICE_KEY_FILE, BUILD_CERT_FILE, BUILD_PUBKEY_FILE,
              device_folder.c_str());
    show_step("on build host", "%s (secret: it signs packages), %s and %s stay", BUILD_KEY_FILE,
              BUILD_CERT_FILE, DEVICE_CERT_FILE);
}
