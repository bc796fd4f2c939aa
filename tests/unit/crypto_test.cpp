#include "package/crypto.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/pkcs7.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string>

namespace {

namespace fs = std::filesystem;
using std::string;

#ifdef FOTA_STRICT_SIGNER
constexpr int TRAVELLING_SIGNER = -1;
#else
constexpr int TRAVELLING_SIGNER = 0;
#endif

template <typename T>
using owned = std::unique_ptr<T, void (*)(T*)>;

// What `write` puts into a BIO.
string written(const std::function<void(BIO*)>& write) {
    const owned<BIO> bio(BIO_new(BIO_s_mem()), BIO_free_all);
    write(bio.get());
    char* data = nullptr;
    const long length = BIO_get_mem_data(bio.get(), &data);
    return string(data, static_cast<size_t>(length));
}

// Reads `content`, which must outlive it.
owned<BIO> reading(const string& content) {
    return {BIO_new_mem_buf(content.data(), static_cast<int>(content.size())), BIO_free_all};
}

struct identity {
    std::shared_ptr<EVP_PKEY> key;
    std::shared_ptr<X509> cert;

    explicit identity(int bits) : cert(X509_new(), X509_free) {
        static long serial = 0;
        const owned<EVP_PKEY_CTX> context(EVP_PKEY_CTX_new_id(EVP_PKEY_RSA, nullptr), EVP_PKEY_CTX_free);
        EVP_PKEY* made = nullptr;
        EVP_PKEY_keygen_init(context.get());
        EVP_PKEY_CTX_set_rsa_keygen_bits(context.get(), bits);
        EVP_PKEY_keygen(context.get(), &made);
        key.reset(made, EVP_PKEY_free);
        ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), ++serial);
        X509_gmtime_adj(X509_getm_notBefore(cert.get()), 0);
        X509_gmtime_adj(X509_getm_notAfter(cert.get()), 3600);
        X509_set_pubkey(cert.get(), made);
        X509_sign(cert.get(), made, EVP_sha256());
    }
    string cert_pem() const {
        return written([this](BIO* out) { PEM_write_bio_X509(out, cert.get()); });
    }
    string key_pem() const {
        return written([this](BIO* out) {
            PEM_write_bio_PKCS8PrivateKey(out, key.get(), EVP_aes_256_cbc(), nullptr, 0, pw_cb, nullptr);
        });
    }
    string public_key_pem() const {
        return written([this](BIO* out) { PEM_write_bio_PUBKEY(out, key.get()); });
    }
};

// One for all tests: keys take long to make.
struct identities {
    identity device{2048}, build{2048}, stranger{2048};
};
const identities& who() {
    static const identities made;
    return made;
}

// An S/MIME signed message; without a `signer` one that nobody signed.
string signed_message(const identity* signer, const string& content, int flags) {
    return written([&](BIO* out) {
        const owned<BIO> in = reading(content);
        const owned<PKCS7> message(PKCS7_sign(signer ? signer->cert.get() : nullptr,
                                              signer ? signer->key.get() : nullptr, nullptr, in.get(), flags),
                                   PKCS7_free);
        BIO_reset(in.get());
        SMIME_write_PKCS7(out, message.get(), in.get(), flags);
    });
}

string enveloped_message(const string& content) {
    return written([&](BIO* out) {
        const owned<BIO> in = reading(content);
        STACK_OF(X509)* recipients = sk_X509_new_null();
        sk_X509_push(recipients, who().device.cert.get());
        const owned<PKCS7> message(PKCS7_encrypt(recipients, in.get(), EVP_aes_256_cbc(), PKCS7_BINARY),
                                   PKCS7_free);
        sk_X509_free(recipients);
        SMIME_write_PKCS7(out, message.get(), nullptr, PKCS7_BINARY);
    });
}

string rsa_signature(const identity& signer, const string& content) {
    const owned<EVP_MD_CTX> context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    string signature(512, '\0');
    size_t length = signature.size();
    EVP_DigestSignInit(context.get(), nullptr, EVP_sha256(), nullptr, signer.key.get());
    EVP_DigestSign(context.get(), reinterpret_cast<unsigned char*>(signature.data()), &length,
                   reinterpret_cast<const unsigned char*>(content.data()), content.size());
    signature.resize(length);
    return signature;
}

class Crypto : public testing::Test {
protected:
    void SetUp() override {
        string pattern = testing::TempDir() + "/crypto_XXXXXX";
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        dir_ = pattern;
        write("device.pem", who().device.key_pem());
        write("signers.pem", who().device.cert_pem() + who().build.cert_pem());
    }
    void TearDown() override { fs::remove_all(dir_); }

    string path(const string& name) const { return dir_ + "/" + name; }
    void write(const string& name, const string& content) const {
        std::ofstream(path(name), std::ios::binary) << content;
    }
    // Empty also when the file is missing.
    string read(const string& name) const {
        std::ostringstream content;
        content << std::ifstream(path(name), std::ios::binary).rdbuf();
        return content.str();
    }
    bool there(const string& name) const { return fs::exists(path(name)); }

    int decrypt_package(const string& key, int delete_inputs) const {
        return fota_decrypt_file(path(key).c_str(), path("signers.pem").c_str(), path("in").c_str(),
                                 path("out").c_str(), path("temp").c_str(), delete_inputs);
    }
    int verify(const string& signers) const {
        return verify_signature(path(signers).c_str(), path("signed").c_str(), path("out").c_str());
    }

    string dir_;
};

const string CONTENT = string("archive\r\nbytes\n\0with all of them", 33) + string(70000, '\xe7');
constexpr int OPAQUE = PKCS7_BINARY | PKCS7_NOCERTS;

TEST_F(Crypto, PackageIsDecryptedVerifiedAndCleanedUp) {
    const string good = enveloped_message(signed_message(&who().build, CONTENT, OPAQUE));
    const string foreign = enveloped_message(signed_message(&who().stranger, CONTENT, OPAQUE));
    const struct {
        const char* name;
        string input;
        int delete_inputs, result;
        bool input_stays, temp_stays;
        string output;
    } cases[] = {
        {"good, inputs kept", good, 0, 0, true, true, CONTENT},
        {"good, inputs deleted", good, 1, 0, false, false, CONTENT},
        {"unknown signer", foreign, 1, -1, false, false, ""},
        {"not signed", enveloped_message(CONTENT), 1, -1, false, false, ""},
        {"no message", CONTENT, 1, -1, true, false, ""},
        {"empty", "", 1, -1, true, false, ""},
        {"cut short", good.substr(0, good.size() / 2), 1, -1, true, false, ""},
        {"not encrypted", signed_message(&who().build, CONTENT, OPAQUE), 1, -1, true, true, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        for (const char* name : {"out", "temp"}) fs::remove(path(name));
        write("in", c.input);
        EXPECT_EQ(decrypt_package("device.pem", c.delete_inputs), c.result);
        EXPECT_EQ(there("in"), c.input_stays);
        EXPECT_EQ(there("temp"), c.temp_stays);
        EXPECT_EQ(read("out"), c.output);
        EXPECT_EQ(ERR_peek_error(), 0u);
    }
}

TEST_F(Crypto, PackageNeedsItsFilesAndTheDevicesKey) {
    write("in", enveloped_message(signed_message(&who().build, CONTENT, OPAQUE)));
    write("stranger.pem", who().stranger.key_pem());
    ASSERT_EQ(mkfifo(path("pipe").c_str(), 0600), 0);
    for (const char* wrong : {"missing", "signers.pem", "stranger.pem", "pipe", "."}) {
        EXPECT_EQ(decrypt_package(wrong, 0), -1) << wrong;
        EXPECT_FALSE(there("out")) << wrong;
    }
    const string names[] = {path("device.pem"), path("signers.pem"), path("in"), path("out"), path("temp")};
    for (int i = 0; i < 5; ++i) {
        const char* a[] = {names[0].c_str(), names[1].c_str(), names[2].c_str(), names[3].c_str(),
                           names[4].c_str()};
        a[i] = nullptr;
        EXPECT_EQ(fota_decrypt_file(a[0], a[1], a[2], a[3], a[4], 0), -1) << i;
    }
}

TEST_F(Crypto, SignatureCountsOnlyFromAKnownSignerOverThisContent) {
    string altered = signed_message(&who().build, "clear text", PKCS7_DETACHED);
    const string clear = altered;
    altered.replace(altered.find("clear text"), 5, "other");
    write("no_cert.pem", "just text\n");
    const struct {
        const char* name;
        string message;
        const char* signers;
        int result;
    } cases[] = {
        {"second of the known signers", signed_message(&who().build, CONTENT, OPAQUE), "signers.pem", 0},
        {"signer in the message", signed_message(&who().stranger, CONTENT, PKCS7_BINARY), "signers.pem",
         TRAVELLING_SIGNER},
        {"multipart", clear, "signers.pem", 0},
        {"multipart, altered", altered, "signers.pem", -1},
        {"no signature at all", signed_message(nullptr, CONTENT, OPAQUE), "signers.pem", -1},
        {"not a signed message", enveloped_message(CONTENT), "signers.pem", -1},
        {"signers' file without certificate", signed_message(&who().stranger, CONTENT, PKCS7_BINARY),
         "no_cert.pem", -1},
        {"no signers' file", signed_message(&who().stranger, CONTENT, PKCS7_BINARY), "missing", -1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        write("signed", c.message);
        EXPECT_EQ(verify(c.signers), c.result);
        EXPECT_EQ(ERR_peek_error(), 0u);
    }
}

TEST_F(Crypto, OutputIsMadeAnewAndNeverFollowed) {
    write("signed", signed_message(&who().build, CONTENT, OPAQUE));
    write("victim", "precious");
    const std::function<void()> plants[] = {
        [this] { fs::create_symlink(path("victim"), path("out")); },
        [this] { fs::create_symlink(path("nowhere"), path("out")); },
        [this] { fs::create_hard_link(path("victim"), path("out")); },
        [this] { mkfifo(path("out").c_str(), 0666); },
    };
    for (const auto& plant : plants) {
        fs::remove(path("out"));
        plant();
        EXPECT_EQ(verify("signers.pem"), 0);
        struct stat info = {};
        ASSERT_EQ(lstat(path("out").c_str(), &info), 0);
        EXPECT_EQ(info.st_mode, S_IFREG | 0600u);
        EXPECT_EQ(read("out"), CONTENT);
        EXPECT_EQ(read("victim"), "precious");
        EXPECT_FALSE(there("nowhere"));
    }
    fs::remove(path("out"));
    fs::create_directory(path("out"));
    EXPECT_EQ(verify("signers.pem"), -1);
}

TEST_F(Crypto, OutputThatDoesNotFitIsAFailure) {
    write("signed", signed_message(&who().build, CONTENT, OPAQUE));
    write("in", enveloped_message(CONTENT));
    rlimit old_limit = {};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &old_limit), 0);
    const auto old_handler = signal(SIGXFSZ, SIG_IGN);
    for (const rlim_t missing : {60000, 1, 0}) {
        const rlimit limit = {CONTENT.size() - missing, old_limit.rlim_max};
        ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
        const int verified = verify("signers.pem");
        const int decrypted =
            decrypt_file(path("device.pem").c_str(), path("in").c_str(), path("temp").c_str());
        setrlimit(RLIMIT_FSIZE, &old_limit);
        EXPECT_EQ(verified, missing == 0 ? 0 : -1) << missing;
        EXPECT_EQ(decrypted, missing == 0 ? 0 : -1) << missing;
    }
    signal(SIGXFSZ, old_handler);
}

TEST_F(Crypto, DetachedSignature) {
    const identity large(4096);
    const string pkcs1 =
        written([](BIO* out) { PEM_write_bio_RSAPublicKey(out, EVP_PKEY_get0_RSA(who().build.key.get())); });
    const string good = rsa_signature(who().build, CONTENT), key = who().build.public_key_pem();
    string flipped = good;
    flipped[100] = static_cast<char>(flipped[100] ^ 1);
    const struct {
        const char* name;
        string key, content, signature;
        int result;
    } cases[] = {
        {"good", key, CONTENT, good, 0},
        {"content altered at its end", key, CONTENT.substr(0, CONTENT.size() - 1) + "x", good, -1},
        {"signature altered", key, CONTENT, flipped, -1},
        {"signature cut", key, CONTENT, good.substr(0, good.size() - 1), -1},
        {"signature empty", key, CONTENT, "", -1},
        {"signature too long for the key", key, CONTENT, good + string(400, 'x'), -1},
        {"4096 bits, the rest of the file not read", large.public_key_pem(), CONTENT,
         rsa_signature(large, CONTENT) + "rest", 0},
        {"another's key", who().stranger.public_key_pem(), CONTENT, good, -1},
        {"PKCS#1 key", pkcs1, CONTENT, good, -1},
        {"no key", "text", CONTENT, good, -1},
        {"empty content", key, "", rsa_signature(who().build, ""), 0},
    };
    const string paths[] = {path("key"), path("data"), path("data.sign")};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        write("key", c.key);
        write("data", c.content);
        write("data.sign", c.signature);
        EXPECT_EQ(fota_verify_digest_signature(paths[0].c_str(), paths[1].c_str(), paths[2].c_str()),
                  c.result);
        EXPECT_EQ(ERR_peek_error(), 0u);
    }
    ASSERT_EQ(mkfifo(path("pipe").c_str(), 0600), 0);
    const string missing = path("missing"), pipe = path("pipe");
    for (const char* wrong : {missing.c_str(), pipe.c_str(), static_cast<const char*>(nullptr)}) {
        for (int i = 0; i < 3; ++i) {
            const char* arguments[] = {paths[0].c_str(), paths[1].c_str(), paths[2].c_str()};
            arguments[i] = wrong;
            EXPECT_EQ(fota_verify_digest_signature(arguments[0], arguments[1], arguments[2]), -1) << i;
        }
    }
}

TEST_F(Crypto, PassPhraseIsCutToTheBufferWithoutTerminator) {
    char whole[64];
    memset(whole, '#', sizeof whole);
    ASSERT_EQ(pw_cb(whole, sizeof whole, 0, nullptr), 28);
    EXPECT_EQ(whole[28], '#');
    unsigned char digest[32];
    EVP_Digest(whole, 28, digest, nullptr, EVP_sha256(), nullptr);
    // printf %s PASS_PHRASE | sha256sum; another phrase would not open the keys of the devices out there.
    EXPECT_EQ(memcmp(digest, "\xe4\x17\x92\x99", 4), 0);
    for (const int size : {28, 10, 1, 0, -1}) {
        char part[32];
        memset(part, '#', sizeof part);
        const int count = std::max(size, 0);
        EXPECT_EQ(pw_cb(part, size, 1, nullptr), count);
        EXPECT_EQ(string(part, static_cast<size_t>(count)), string(whole, static_cast<size_t>(count)));
        EXPECT_EQ(part[count], '#');
    }
    EXPECT_EQ(pw_cb(nullptr, 64, 0, nullptr), 0);
}

}  // namespace
