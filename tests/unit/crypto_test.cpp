// Keys and messages are made by openssl's command, so that both sides of the code are not the same.
#include "package/crypto.h"

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pkcs7.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <tuple>

#include "package/openssl_objects.h"
#include "package/smime_message.h"
#include "support/device_files.h"

namespace {

#ifdef FOTA_STRICT_SIGNER
constexpr int TRAVELLING_SIGNER = -1;
#else
constexpr int TRAVELLING_SIGNER = 0;
#endif

const std::string CONTENT =
    std::string("archive\r\nbytes\n\0with all of them", 33) + std::string(70000, '\xe7');

struct Crypto : testing::Test {
    // Three identities; for each the content as a signed message, and that encrypted for the device.
    void SetUp() override {
        wipe_device();
        ASSERT_EQ(chdir("/tmp"), 0);
        char phrase[64] = {};
        ASSERT_EQ(pw_cb(phrase, sizeof phrase, 0, nullptr), 28);
        setenv("P", phrase, 1);
        put_file("/tmp/content", CONTENT);
        sh("for who in device build stranger; do"
           "  openssl req -x509 -newkey rsa:2048 -passout env:P -subj /CN=$who -keyout $who.key -out "
           "$who.pem;"
           "  openssl smime -sign -binary -nodetach -nocerts -signer $who.pem -inkey $who.key -passin env:P"
           "    -in content -out $who.signed;"
           "  openssl smime -encrypt -binary -aes256 -in $who.signed -out $who.enc device.pem;"
           "done;"
           "openssl smime -encrypt -binary -aes256 -in content -out unsigned.enc device.pem;"
           "openssl smime -sign -binary -nodetach -signer stranger.pem -inkey stranger.key -passin env:P"
           "  -in content -out travelling.signed;"
           "cat device.pem build.pem >signers; : >empty; mkfifo pipe");
    }
};

int decrypt_package(const char* key, int delete_inputs) {
    return fota_decrypt_file(key, "signers", "in", "out", "temp", delete_inputs);
}

TEST_F(Crypto, PackageIsDecryptedVerifiedAndCleanedUp) {
    sh("head -c 50000 build.enc >short");
    const std::tuple<const char*, int, int, bool, bool> rows[] = {
        {"build.enc", 0, 0, true, true},       {"build.enc", 1, 0, false, false},
        {"stranger.enc", 1, -1, false, false}, {"unsigned.enc", 1, -1, false, false},
        {"content", 1, -1, true, false},       {"empty", 1, -1, true, false},
        {"short", 1, -1, true, false},         {"build.signed", 1, -1, true, true},
    };
    for (const auto& [input, delete_inputs, result, input_stays, temp_stays] : rows) {
        SCOPED_TRACE(input);
        sh(std::string("rm -f out temp; cp ") + input + " in");
        EXPECT_EQ(decrypt_package("device.key", delete_inputs), result);
        EXPECT_EQ(exists("in"), input_stays);
        EXPECT_EQ(exists("temp"), temp_stays);
        EXPECT_EQ(exists("out") ? get_file("out") : "", result == 0 ? CONTENT : "");
        EXPECT_EQ(ERR_peek_error(), 0u);
    }
    sh("cp build.enc in; rm -f out");
    for (const char* wrong : {"missing", "signers", "stranger.key", "pipe", "."}) {
        EXPECT_EQ(decrypt_package(wrong, 0), -1) << wrong;
        EXPECT_FALSE(exists("out")) << wrong;
    }
    for (int i = 0; i < 5; ++i) {
        const char* a[] = {"device.key", "signers", "in", "out", "temp"};
        a[i] = nullptr;
        EXPECT_EQ(fota_decrypt_file(a[0], a[1], a[2], a[3], a[4], 0), -1) << i;
    }
}

// Signed data without any signature: openssl's command refuses to make it.
void make_message_without_signature(const char* path) {
    const owned<BIO> in(BIO_new_file("content", "r")), out(BIO_new_file(path, "w"));
    const owned<PKCS7> message(PKCS7_sign(nullptr, nullptr, nullptr, in.get(), PKCS7_BINARY));
    BIO_reset(in.get());
    EXPECT_EQ(SMIME_write_PKCS7(out.get(), message.get(), in.get(), PKCS7_BINARY), 1);
}

TEST_F(Crypto, SignatureCountsOnlyFromAKnownSignerOverThisContent) {
    sh("echo clear text | openssl smime -sign -signer build.pem -inkey build.key -passin env:P -out "
       "multipart;"
       "sed 's/clear text/other text/' multipart >altered; ! cmp multipart altered");
    make_message_without_signature("nobody.signed");
    const std::tuple<const char*, const char*, int> rows[] = {
        {"build.signed", "signers", 0},       {"travelling.signed", "signers", TRAVELLING_SIGNER},
        {"multipart", "signers", 0},          {"altered", "signers", -1},
        {"nobody.signed", "signers", -1},     {"build.enc", "signers", -1},
        {"travelling.signed", "content", -1}, {"travelling.signed", "missing", -1},
    };
    for (const auto& [message, signers, result] : rows) {
        EXPECT_EQ(verify_signature(signers, message, "out"), result) << message;
        EXPECT_EQ(ERR_peek_error(), 0u) << message;
    }
}

bool is_streamed(const std::string& path, smime_kind kind) {
    const owned<BIO> file(BIO_new_file(path.c_str(), "r"));
    smime_message read;
    read_smime_message(file.get(), kind, &read);
    ERR_clear_error();
    return read.is_streamed;
}

// What builders make is read as a stream; the rest, and what is cut within a header, by libcrypto as a whole.
TEST_F(Crypto, MessagesOfEveryForm) {
    sh("cp build.pem two; cat device.pem >>two");
    const std::string
        sign =
            "openssl smime -sign -binary -nodetach -signer build.pem -inkey build.key -passin env:P"
            " -in content ",
        encrypt = "openssl smime -encrypt -binary -in content ";
    const struct {
        bool is_encrypted;
        std::string command;
        bool is_streamed, is_good;
    } rows[] = {
        {false, sign, true, true},
        {false, sign + "-stream", true, true},
        {false, sign + "-nocerts -md sha512", true, true},
        {false, sign + "-noattr -md sha1 -stream", true, true},
        {false, sign + "-signer device.pem -inkey device.key", true, true},
        {false, sign + "-signer stranger.pem -inkey stranger.key", true, TRAVELLING_SIGNER == 0},
        {false, sign + "-nocerts -signer stranger.pem -inkey stranger.key", true, false},
        {false, sign + "-certfile two -stream | sed 's/$/\\r/'", true, true},
        {false, sign + "| sed 's/CRLF//; s/^Content-Type: /content-type:   /; s/^MIME.*/Comment: none/'",
         true, true},
        {false, sign + "| head -c -9", false, false},
        {false, sign + "| head -c 90000", false, false},
        {false, sign + "-stream | head -c 60000", false, false},
        {false, sign + "; echo QUJD", false, false},
        {false, "echo; " + sign, false, false},
        {false, sign + "| sed '20s/./-/'", false, false},
        {false, sign + "| sed '20s/$/ /'", false, true},
        {false, encrypt + "device.pem", false, false},
        {true, encrypt + "-aes256 device.pem", true, true},
        {true, encrypt + "-aes128 -stream device.pem", true, true},
        {true, encrypt + "-des3 build.pem device.pem", true, true},
        {true, encrypt + "-camellia192 -stream device.pem | sed 's/$/\\r/'", true, true},
        {true, encrypt + "-aes256 device.pem | head -c 90001", false, false},
        {true, encrypt + "-aes256 -stream device.pem | head -c 60002", false, false},
        {true, encrypt + "-aes256 device.pem | openssl smime -pk7out", false, false},
        {true, encrypt + "-aes256 -stream build.pem stranger.pem", true, false},
        {true, sign, false, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.command);
        sh("rm -f out; (" + row.command + ") >message");
        EXPECT_EQ(
            is_streamed("message", row.is_encrypted ? smime_kind::encrypted : smime_kind::with_signature),
            row.is_streamed);
        const int result = row.is_encrypted ? decrypt_file("device.key", "message", "out")
                                            : verify_signature("signers", "message", "out");
        EXPECT_EQ(result, row.is_good ? 0 : -1);
        EXPECT_TRUE(!row.is_good || get_file("out") == CONTENT);
    }
}

TEST_F(Crypto, OutputIsMadeAnewAndNeverFollowed) {
    put_file("/tmp/victim", "precious");
    for (const char* plant : {"ln -s victim out", "ln -s nowhere out", "ln victim out", "mkfifo out"}) {
        sh(std::string("rm -f out; ") + plant);
        EXPECT_EQ(verify_signature("signers", "build.signed", "out"), 0);
        struct stat info = {};
        ASSERT_EQ(lstat("out", &info), 0);
        EXPECT_EQ(info.st_mode, S_IFREG | 0600u) << plant;
        EXPECT_EQ(get_file("out"), CONTENT);
        EXPECT_EQ(get_file("victim"), "precious");
        EXPECT_FALSE(exists("nowhere"));
    }
    sh("rm out; mkdir out");
    EXPECT_EQ(verify_signature("signers", "build.signed", "out"), -1);
}

TEST_F(Crypto, OutputThatDoesNotFitIsAFailure) {
    rlimit old_limit = {};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &old_limit), 0);
    const auto old_handler = signal(SIGXFSZ, SIG_IGN);
    for (const rlim_t missing : {60000, 1, 0}) {
        const rlimit limit = {CONTENT.size() - missing, old_limit.rlim_max};
        ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
        const int verified = verify_signature("signers", "build.signed", "out");
        const int decrypted = decrypt_file("device.key", "unsigned.enc", "temp");
        setrlimit(RLIMIT_FSIZE, &old_limit);
        EXPECT_EQ(verified, missing == 0 ? 0 : -1) << missing;
        EXPECT_EQ(decrypted, missing == 0 ? 0 : -1) << missing;
    }
    signal(SIGXFSZ, old_handler);
}

TEST_F(Crypto, DetachedSignature) {
    sh("sign() { openssl dgst -sha256 -sign $1 -passin env:P -out $3 $2; };"
       "openssl x509 -in build.pem -pubkey -noout >key; openssl x509 -in stranger.pem -pubkey -noout >other;"
       "openssl rsa -pubin -in key -RSAPublicKey_out -out pkcs1;"
       "openssl genrsa -out big.key 4096; openssl rsa -in big.key -pubout -out big;"
       "sign build.key content good; sign build.key empty of_empty; sign big.key content of_big;"
       "echo rest >>of_big; head -c 255 good >cut; cat good content | head -c 656 >long;"
       "head -c -1 content >altered; echo x >>altered");
    std::string flipped = get_file("good");
    flipped[100] = static_cast<char>(flipped[100] ^ 1);
    put_file("/tmp/flipped", flipped);
    const struct {
        const char* files[3];
        int result;
    } rows[] = {
        {{"key", "content", "good"}, 0},     {{"key", "altered", "good"}, -1},
        {{"key", "content", "flipped"}, -1}, {{"key", "content", "cut"}, -1},
        {{"key", "content", "empty"}, -1},   {{"key", "content", "long"}, -1},
        {{"big", "content", "of_big"}, 0},   {{"other", "content", "good"}, -1},
        {{"pkcs1", "content", "good"}, -1},  {{"content", "content", "good"}, -1},
        {{"key", "empty", "of_empty"}, 0},   {{"missing", "content", "good"}, -1},
        {{"key", "missing", "good"}, -1},    {{"key", "content", "missing"}, -1},
        {{"pipe", "content", "good"}, -1},   {{"key", "pipe", "good"}, -1},
        {{"key", "content", "pipe"}, -1},    {{nullptr, "content", "good"}, -1},
        {{"key", nullptr, "good"}, -1},      {{"key", "content", nullptr}, -1},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(fota_verify_digest_signature(row.files[0], row.files[1], row.files[2]), row.result)
            << "row " << &row - rows;
        EXPECT_EQ(ERR_peek_error(), 0u);
    }
}

TEST(CryptoPassPhrase, IsCutToTheBufferWithoutTerminator) {
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
        EXPECT_EQ(std::string(part, static_cast<size_t>(count)),
                  std::string(whole, static_cast<size_t>(count)));
        EXPECT_EQ(part[count], '#');
    }
    EXPECT_EQ(pw_cb(nullptr, 64, 0, nullptr), 0);
}

}  // namespace
