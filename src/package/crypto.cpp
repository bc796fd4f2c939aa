#include "package/crypto.h"

#include <fcntl.h>
#include <openssl/bio.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/pem.h>
#include <openssl/pkcs7.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/file_helpers.h"
#include "core/log.h"
#include "package/openssl_objects.h"
#include "package/smime_message.h"

namespace {

#ifdef FOTA_STRICT_SIGNER
constexpr int SIGNER_FLAGS = PKCS7_NOVERIFY | PKCS7_NOINTERN;
#else
constexpr int SIGNER_FLAGS = PKCS7_NOVERIFY;
#endif

constexpr size_t SHA256_BYTES = 32;
constexpr size_t BUFFER_SIZE = 16384;

// What fota_verify_digest_signature reads into, first the data and then the signature: a 4096-bit RSA key's
// at most.
unsigned char signature_buffer[512];

// A pipe or a device would keep the reader waiting, or reading, for ever.
bool may_never_end(const char* path) {
    struct stat info = {};
    return stat(path, &info) == 0 && !S_ISREG(info.st_mode) && !S_ISDIR(info.st_mode);
}

bool exists(const char* path) {
    return path != nullptr && !may_never_end(path) && can_open_for_reading(path);
}

owned<BIO> open_input(const char* path) {
    return owned<BIO>(may_never_end(path) ? nullptr : BIO_new_file(path, "re"));
}

// Messages and their contents are large, and libcrypto reads and writes in small pieces.
using large_buffer = char[BUFFER_SIZE];

// Before the first read or write.
void use_buffer(BIO* file, large_buffer& buffer) {
    FILE* stream = nullptr;
    if (BIO_get_fp(file, &stream) == 1) setvbuf(stream, buffer, _IOFBF, sizeof buffer);
}

struct output_stream {
    file_ptr stream;
    owned<BIO> bio;  // writes to the stream, null when the file could not be made
};

// Outputs lie in folders that others may write to: what is already there is removed, never followed or
// reused, and nobody else can read what is not checked yet.
output_stream make_output(const char* path) {
    unlink(path);
    output_stream file;
    const int fd = open(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) {
        SYSerr(SYS_F_OPEN, errno);
        return file;
    }
    file.stream.reset(fdopen(fd, "w"));
    if (!file.stream) {
        close(fd);
        return file;
    }
    file.bio.reset(BIO_new_fp(file.stream.get(), BIO_NOCLOSE));
    return file;
}

// OpenSSL does not look at what becomes of the content that it writes while it checks a signature.
bool is_complete(const output_stream& file) {
    return fflush(file.stream.get()) == 0 && ferror(file.stream.get()) == 0;
}

bool failed(const char* function, const char* message, const char* detail = "") {
    LOG_ERROR_AS(function, "%s%s\n", message, detail);
    return false;
}

// Logs what OpenSSL has to say about a failure. These lines name no function.
void log_ossl_errors(fota_log_sinks sinks, fota_log_level level) {
    char* const text = ossl_err_as_string();
    if (text != nullptr && *text != '\0') fota_log(sinks, level, nullptr, "%s\n", text);
    free(text);
}

// What PKCS7_decrypt() does, with the content from a stream.
bool decrypt_stream(const smime_message& read, EVP_PKEY* key, BIO* output) {
    const owned<BIO> plain(PKCS7_dataDecode(read.message.get(), key, read.content.get(), nullptr));
    if (!plain) {
        // It fails there too, before it comes to the content, and adds what it has to say.
        ERR_clear_error();
        (void)PKCS7_decrypt(read.message.get(), key, nullptr, output, 0);
        return false;
    }
    bool is_written = true;
    char bytes[4096];
    int count = 0;
    while (is_written && (count = BIO_read(plain.get(), bytes, sizeof bytes)) > 0) {
        is_written = BIO_write(output, bytes, count) == count;
    }
    BIO_pop(plain.get());  // the stream is not its own
    return is_written && !read.state.is_unreadable && BIO_get_cipher_status(plain.get()) == 1;
}

// The steps of decrypt_file; `function` is the name that their log lines carry.
bool run_decryption(const char* function, const char* private_key_file, const char* input_file,
                    const char* output_file) {
    const owned<BIO> key_bio = open_input(private_key_file);
    if (!key_bio) return failed(function, "Cannot open Device private key file");
    (void)BIO_reset(key_bio.get());
    const owned<EVP_PKEY> key(PEM_read_bio_PrivateKey(key_bio.get(), nullptr, pw_cb, nullptr));
    if (!key) return failed(function, "Invalid private key certificate file");

    large_buffer input_buffer, output_buffer;
    const owned<BIO> input = open_input(input_file);
    if (!input) return failed(function, "Cannot open data file");
    use_buffer(input.get(), input_buffer);
    smime_message read;
    read_smime_message(input.get(), smime_kind::encrypted, &read);
    if (!read.message) return failed(function, "Error while reading data in PKCS7 format");

    const output_stream output = make_output(output_file);
    if (!output.bio) return failed(function, "Error cannot open file for writing");
    use_buffer(output.bio.get(), output_buffer);
    if (!(read.is_streamed
              ? decrypt_stream(read, key.get(), output.bio.get())
              : PKCS7_decrypt(read.message.get(), key.get(), nullptr, output.bio.get(), 0) == 1)) {
        return failed(function, "Error while decrypting message");
    }
    return is_complete(output) || failed(function, "Error while writing file");
}

// The steps of verify_signature.
bool run_verification(const char* function, const char* signer_cert_file, const char* input_file,
                      const char* output_file) {
    const owned<X509_STORE> store(X509_STORE_new());
    const owned<BIO> cert_bio = open_input(signer_cert_file);
    if (!cert_bio) return failed(function, "Cannot open signer Certificate file");
    const owned<STACK_OF(X509)> signers = read_pem_certificates(cert_bio.get());
    if (!store || !signers) return failed(function, "Invalid signer Certificate file");

    large_buffer input_buffer, output_buffer;
    const owned<BIO> input = open_input(input_file);
    if (!input) return failed(function, "Cannot open data file:", input_file);
    use_buffer(input.get(), input_buffer);
    smime_message read;
    read_smime_message(input.get(), smime_kind::with_signature, &read);
    if (!read.message) return failed(function, "Error while reading data in PKCS7 format");

    const output_stream output = make_output(output_file);
    if (!output.bio) return failed(function, "Error cannot open file for writing");
    use_buffer(output.bio.get(), output_buffer);
    if (PKCS7_verify(read.message.get(), signers.get(), store.get(), read.content.get(), output.bio.get(),
                     SIGNER_FLAGS) != 1) {
        return failed(function, "Error Verification failed");
    }
    return is_complete(output) || failed(function, "Error while writing file");
}

bool sha256_of_file(const char* path, unsigned char (&digest)[SHA256_BYTES]) {
    const file_ptr stream = open_for_reading(path);
    const owned<EVP_MD_CTX> context(EVP_MD_CTX_new());
    if (!stream || !context || EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) != 1) return false;
    size_t count = 0;
    while ((count = fread(signature_buffer, 1, sizeof signature_buffer, stream.get())) > 0) {
        if (EVP_DigestUpdate(context.get(), signature_buffer, count) != 1) return false;
    }
    return ferror(stream.get()) == 0 && EVP_DigestFinal_ex(context.get(), digest, nullptr) == 1;
}

bool rsa_signature_fits(const char* public_key_file, const char* input_file, const char* signature_file) {
    unsigned char digest[SHA256_BYTES];
    if (!sha256_of_file(input_file, digest)) return false;

    file_ptr stream = open_for_reading(signature_file);
    if (!stream) return false;
    const size_t length = fread(signature_buffer, 1, sizeof signature_buffer, stream.get());

    stream = open_for_reading(public_key_file);
    if (!stream) return false;
    const owned<RSA> key(PEM_read_RSA_PUBKEY(stream.get(), nullptr, nullptr, nullptr));
    return key && RSA_verify(NID_sha256, digest, sizeof digest, signature_buffer,
                             static_cast<unsigned>(length), key.get()) == 1;
}

}  // namespace

int fota_decrypt_file(const char* private_key_file, const char* signer_cert_file, const char* input_file,
                      const char* output_file, const char* temp_file, int delete_inputs) {
    if (!exists(private_key_file) || !exists(signer_cert_file) || !exists(input_file)) {
        LOG_ERROR("Cannot find one of the input files\n");
        return -1;
    }
    if (output_file == nullptr || temp_file == nullptr) {
        LOG_ERROR("Output/Temp file name, cannot be empty\n");
        return -1;
    }
    OPENSSL_init_crypto(OPENSSL_INIT_ADD_ALL_CIPHERS | OPENSSL_INIT_ADD_ALL_DIGESTS, nullptr);
    OPENSSL_init_crypto(OPENSSL_INIT_LOAD_CRYPTO_STRINGS, nullptr);

    int result = decrypt_file(private_key_file, input_file, temp_file);
    if (result == 0) {
        if (delete_inputs != 0) unlink(input_file);
        result = verify_signature(signer_cert_file, temp_file, output_file);
        if (delete_inputs != 0) unlink(temp_file);
    } else {
        empty_a_file(temp_file);  // it is of no use, and takes room on the flash
    }
    return result;
}

int decrypt_file(const char* private_key_file, const char* input_file, const char* output_file) {
    if (run_decryption(__func__, private_key_file, input_file, output_file)) {
        ERR_clear_error();
        return 0;
    }
    LOG_ERROR("Error in decrypting\n");
    log_ossl_errors(LOG_TO_DEBUG_LOG, LOG_LEVEL_NOTICE);
    return -1;
}

int verify_signature(const char* signer_cert_file, const char* input_file, const char* output_file) {
    if (run_verification(__func__, signer_cert_file, input_file, output_file)) {
        ERR_clear_error();
        LOG_DEBUG("%s: Signature verified\n", input_file);
        return 0;
    }
    LOG_ERROR("Error in Verifying data\n");
    log_ossl_errors(LOG_TO_BOTH_LOGS, LOG_LEVEL_ERROR);
    return -1;
}

int fota_verify_digest_signature(const char* public_key_file, const char* input_file,
                                 const char* signature_file) {
    const char* const paths[] = {public_key_file, input_file, signature_file};
    const auto shown = [](const char* path) { return path != nullptr ? path : "(null)"; };
    LOG_DEBUG_AS(nullptr, "\npublickey=%s\ninput_file=%s\nsignature_file=%s\n", shown(public_key_file),
                 shown(input_file), shown(signature_file));
    for (const char* path : paths) {
        if (exists(path)) continue;
        LOG_ERROR("Cannot find %s\n", shown(path));
        return -1;
    }
    const bool verified = rsa_signature_fits(public_key_file, input_file, signature_file);
    ERR_clear_error();
    if (!verified) {
        LOG_ERROR("%s: Signature Verification failed\n", input_file);
        return -1;
    }
    LOG_DEBUG("%s: Signature Verified\n", input_file);
    return 0;
}

int pw_cb(char* buffer, int size, int /*rwflag*/, void* /*user_data*/) {
    static constexpr char PASS_PHRASE[] = "Tq4ZmB8wKx2RvN7cLp5HsY3dFj6G";
    if (buffer == nullptr) return 0;
    const int length = std::clamp(size, 0, static_cast<int>(sizeof PASS_PHRASE - 1));
    memcpy(buffer, PASS_PHRASE, static_cast<size_t>(length));
    return length;
}

char* ossl_err_as_string() {
    const owned<BIO> bio(BIO_new(BIO_s_mem()));
    if (!bio) return nullptr;
    ERR_print_errors(bio.get());
    char* data = nullptr;
    const long length = BIO_get_mem_data(bio.get(), &data);
    const size_t size = length > 0 ? static_cast<size_t>(length) : 0;
    char* text = static_cast<char*>(calloc(size + 1, 1));
    if (text != nullptr && size > 0) memcpy(text, data, size);
    return text;
}
