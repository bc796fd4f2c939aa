#include "tools/packages/keys.h"

#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>

#include <functional>
#include <list>
#include <string>

#include "common/state_files.h"
#include "package/crypto.h"
#include "tools/common/output.h"
#include "tools/common/steps.h"

namespace fs = std::filesystem;

namespace {

// Nobody looks at the date: devices may have no clock yet when they check a package.
constexpr int VALID_DAYS = 20 * 365;

struct identity {
    owned<EVP_PKEY> key;
    owned<X509> cert;
};

// With a self-signed certificate. A signer is found by issuer and serial number, so both must differ from any
// other identity's.
identity make_identity(int bits, const char* common_name) {
    const owned<EVP_PKEY_CTX> context(EVP_PKEY_CTX_new_id(EVP_PKEY_RSA, nullptr));
    EVP_PKEY* key = nullptr;
    unsigned char serial[16];
    if (!context || EVP_PKEY_keygen_init(context.get()) != 1 ||
        EVP_PKEY_CTX_set_rsa_keygen_bits(context.get(), bits) != 1 ||
        EVP_PKEY_keygen(context.get(), &key) != 1 || RAND_bytes(serial, sizeof serial) != 1) {
        throw openssl_failure("Cannot make an RSA key");
    }
    identity made{owned<EVP_PKEY>(key), owned<X509>(X509_new())};
    X509* const cert = made.cert.get();
    if (cert == nullptr) throw std::bad_alloc();
    serial[0] = static_cast<unsigned char>((serial[0] & 0x7f) | 0x40);
    ASN1_STRING_set(X509_get_serialNumber(cert), serial, sizeof serial);
    X509_set_version(cert, 2);
    X509_gmtime_adj(X509_getm_notBefore(cert), 0);
    X509_time_adj_ex(X509_getm_notAfter(cert), VALID_DAYS, 0, nullptr);
    X509_NAME* name = X509_get_subject_name(cert);
    if (X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                                   reinterpret_cast<const unsigned char*>(common_name), -1, -1, 0) != 1 ||
        X509_set_issuer_name(cert, name) != 1 || X509_set_pubkey(cert, key) != 1 ||
        X509_sign(cert, key, EVP_sha256()) == 0) {
        throw openssl_failure("Cannot make a certificate");
    }
    return made;
}

}  // namespace

fs::path key_file(const fs::path& folder, const char* name) {
    fs::path path = folder / name;
    if (fs::is_regular_file(path)) return path;
    throw failure("There is no file " + path.string() + "; give --keys a folder that `fotapkg keys` made");
}

void check_device_key(const fs::path& path) {
    const file_ptr stream = open_file(path);
    warn_of_readers(path);
    const owned<EVP_PKEY> key(PEM_read_PrivateKey(stream.get(), nullptr, pw_cb, nullptr));
    if (key) return;
    throw openssl_failure(path.string() +
                          " holds no private key under the daemon's pass phrase, so a device with it refuses "
                          "every package; take one that `fotapkg keys` made");
}

owned<EVP_PKEY> read_public_key(const fs::path& path) {
    const file_ptr stream = open_file(path);
    owned<EVP_PKEY> key(PEM_read_PUBKEY(stream.get(), nullptr, nullptr, nullptr));
    if (!key) throw openssl_failure(path.string() + " holds no public key; make one with `fotapkg keys`");
    return key;
}

void warn_of_readers(const fs::path& path) {
    std::error_code ignored;
    if ((fs::status(path, ignored).permissions() & fs::perms::others_read) == fs::perms::none) return;
    complain(path.string() + " is a secret that every user of this machine may read; `chmod 600` it");
}

void make_keys(const fs::path& folder, int bits, bool force) {
    identity device, build;
    const struct {
        const char* name;
        mode_t mode;
        std::function<int(FILE*)> write;
    } files[] = {
        {DEVICE_KEY_FILE, 0600,
         [&](FILE* out) {
             return PEM_write_PKCS8PrivateKey(out, device.key.get(), EVP_aes_256_cbc(), nullptr, 0, pw_cb,
                                              nullptr);
         }},
        {DEVICE_CERT_FILE, 0644, [&](FILE* out) { return PEM_write_X509(out, device.cert.get()); }},
        {BUILD_KEY_FILE, 0600,
         [&](FILE* out) {
             return PEM_write_PKCS8PrivateKey(out, build.key.get(), nullptr, nullptr, 0, nullptr, nullptr);
         }},
        {BUILD_CERT_FILE, 0644, [&](FILE* out) { return PEM_write_X509(out, build.cert.get()); }},
        {BUILD_PUBKEY_FILE, 0644, [&](FILE* out) { return PEM_write_PUBKEY(out, build.key.get()); }},
    };
    for (const auto& file : files) {
        if (force || !fs::exists(fs::symlink_status(folder / file.name))) continue;
        throw failure((folder / file.name).string() +
                      " exists; give another folder, or --force to lose that key");
    }
    set_doing("making keys");
    device = make_identity(bits, "fota device");
    build = make_identity(bits, "fota build");
    if (fs::create_directories(folder)) fs::permissions(folder, fs::perms::owner_all);
    std::list<unfinished> parts;
    for (const auto& file : files) {
        const fs::path path = part_of(folder / file.name);
        parts.emplace_back(path);
        file_ptr stream = create_file(path, file.mode);
        if (file.write(stream.get()) != 1 && ferror(stream.get()) == 0)
            throw openssl_failure("Cannot write " + path.string());
        finish_file(std::move(stream), path);
    }
    for (const auto& file : files) fs::rename(part_of(folder / file.name), folder / file.name);
    show_step("keys", "two RSA keys of " + std::to_string(bits) + " bits in " + folder.string());
    show_step("on devices", std::string(DEVICE_KEY_FILE) + ", " + BUILD_CERT_FILE + " and " +
                                BUILD_PUBKEY_FILE + " go to " +
                                fs::path(FOTA_DEVICE_KEY).parent_path().string());
    show_step("on build host", std::string(BUILD_KEY_FILE) + " (secret: it signs packages), " +
                                   BUILD_CERT_FILE + " and " + DEVICE_CERT_FILE + " stay");
}
