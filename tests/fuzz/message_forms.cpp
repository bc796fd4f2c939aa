#include "fuzz/message_forms.h"

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/pkcs7.h>
#include <openssl/rand.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "package/crypto.h"
#include "package/openssl_objects.h"
#include "support/device_files.h"
#include "vexa_dbg.h"

namespace {

// A copy without a pass phrase, which takes longer to try than all the rest.
constexpr char DEVICE_KEY[] = "/run/device.key", SIGNERS[] = FOTA_TEST_KEYS "/build_cert.pem";

struct message_form {
    bool is_encrypted;
    std::string header, structure;  // the structure as bytes
};
std::vector<message_form> forms;
owned<STACK_OF(X509)> signers;

// Both ways get the same numbers: a message for another device is decrypted with a random key.
unsigned char next_random;
int fill_alike(unsigned char* out, int count) {
    for (int i = 0; i < count; ++i) out[i] = next_random += 41;
    return 1;
}
int is_seeded() {
    return 1;
}
const RAND_METHOD SAME_NUMBERS = {nullptr, fill_alike, nullptr, nullptr, fill_alike, is_seeded};

void add_form(bool is_encrypted, const std::string& command) {
    sh("cd /tmp; K=" FOTA_TEST_KEYS "; " + command + " >form");
    const std::string text = get_file("/tmp/form");
    const size_t header_size = text.find("\n\n") + 2;
    message_form form = {is_encrypted, text.substr(0, header_size), {}};
    std::string digits = text.substr(header_size);
    std::erase(digits, '\n');
    form.structure.resize(digits.size());
    const int size = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(form.structure.data()),
                                     reinterpret_cast<const unsigned char*>(digits.data()),
                                     static_cast<int>(digits.size()));
    form.structure.resize(static_cast<size_t>(size - std::count(digits.begin(), digits.end(), '=')));
    forms.push_back(form);
}

// Takes bytes from the input; zero when there are no more.
struct choices {
    std::string_view rest;
    size_t operator()(size_t limit) {
        size_t number = 0;
        for (int i = 0; i < 2 && !rest.empty(); ++i, rest.remove_prefix(1)) {
            number = number << 8 | static_cast<unsigned char>(rest[0]);
        }
        return limit == 0 ? 0 : number % limit;
    }
};

constexpr unsigned char TELLING[] = {0,    1,    2,    4,    5,    6,    0x24, 0x30, 0x31,
                                     0x7F, 0x80, 0x81, 0x82, 0x84, 0xA0, 0xA1, 0xFF};

// A place of the structure, most often where there is one.
size_t choose_place(choices& choose, size_t size) {
    switch (choose(4)) {
        case 0:
            return choose(std::min<size_t>(size, 80));
        case 1:
            return size - choose(std::min<size_t>(size, 40));
        case 2:
            return std::min(size, 340 + choose(160));
        default:
            return choose(size + 1);
    }
}

void change(choices& choose, std::string& bytes, const std::string_view values) {
    if (bytes.empty()) return;
    const size_t at = std::min(choose_place(choose, bytes.size()), bytes.size());
    const size_t count = std::min<size_t>(choose(6), bytes.size() - at);
    const char value = values[choose(values.size())];
    switch (choose(8)) {
        case 0:
            bytes.insert(at, count + 1, value);
            break;
        case 1:
            bytes.erase(at, count + 1);
            break;
        case 2:
            bytes.resize(at);
            break;
        case 3:
            bytes.insert(at, bytes.substr(choose_place(choose, bytes.size() - 1), count + 2));
            break;
        case 4:
            if (at < bytes.size()) bytes[at] = static_cast<char>(bytes[at] ^ 1 << choose(8));
            break;
        case 5:
            if (at < bytes.size()) bytes[at] = static_cast<char>(bytes[at] + (choose(2) ? 1 : -1));
            break;
        default:
            if (at < bytes.size()) bytes[at] = value;
    }
}

std::string encode(choices& choose, const std::string& structure) {
    static constexpr size_t LENGTHS[] = {64, 64, 64, 64, 64, 64, 76, 72, 4, 63, 80, 1000};
    static constexpr const char* ENDS[] = {"\n", "\n", "\n", "\n", "\n", "\r\n", "\r\n", "\r", " \n", ""};
    std::string digits((structure.size() + 2) / 3 * 4 + 1, '\0');
    EVP_EncodeBlock(reinterpret_cast<unsigned char*>(digits.data()),
                    reinterpret_cast<const unsigned char*>(structure.data()),
                    static_cast<int>(structure.size()));
    digits.pop_back();
    const size_t length = LENGTHS[choose(std::size(LENGTHS))];
    const std::string end = ENDS[choose(std::size(ENDS))];
    std::string lines;
    for (size_t at = 0; at < digits.size(); at += length) lines += digits.substr(at, length) + end;
    return lines;
}

struct outcome {
    bool is_good = false;
    std::string output = "none made", errors;
};

std::string take(BIO* memory) {
    char* data = nullptr;
    const long size = BIO_get_mem_data(memory, &data);
    return {data, static_cast<size_t>(size)};
}

// libcrypto alone, with the whole message in memory.
outcome read_whole(const message_form& form, const std::string& text) {
    outcome whole;
    const owned<BIO> input(BIO_new_mem_buf(text.data(), static_cast<int>(text.size()))),
        output(BIO_new(BIO_s_mem()));
    BIO* detached = nullptr;
    const owned<PKCS7> message(SMIME_read_PKCS7(input.get(), form.is_encrypted ? nullptr : &detached));
    const owned<BIO> content(detached);
    if (message) {
        if (form.is_encrypted) {
            // A key is new to each message: it takes random numbers when it is used first.
            const owned<BIO> key_file(BIO_new_file(DEVICE_KEY, "r"));
            const owned<EVP_PKEY> device_key(
                PEM_read_bio_PrivateKey(key_file.get(), nullptr, pw_cb, nullptr));
            whole.is_good = PKCS7_decrypt(message.get(), device_key.get(), nullptr, output.get(), 0) == 1;
        } else {
            const owned<X509_STORE> store(X509_STORE_new());
            whole.is_good = PKCS7_verify(message.get(), signers.get(), store.get(), content.get(),
                                         output.get(), PKCS7_NOVERIFY) == 1;
        }
        whole.output = take(output.get());
    }
    const owned<BIO> errors(BIO_new(BIO_s_mem()));
    ERR_print_errors(errors.get());
    whole.errors = take(errors.get());
    return whole;
}

outcome read_as_daemon(const message_form& form, const std::string& text) {
    put_file("/tmp/message", text);
    put_file("/var/log/debug_log", "");
    remove("/tmp/out");
    outcome read;
    read.is_good = (form.is_encrypted ? decrypt_file(DEVICE_KEY, "/tmp/message", "/tmp/out")
                                      : verify_signature(SIGNERS, "/tmp/message", "/tmp/out")) == 0;
    if (exists("/tmp/out")) read.output = get_file("/tmp/out");
    read.errors = get_file("/var/log/debug_log");
    return read;
}

}  // namespace

void make_message_forms() {
    char phrase[64] = {};
    (void)pw_cb(phrase, sizeof phrase - 1, 0, nullptr);
    setenv("P", phrase, 1);
    const std::string sign =
        "openssl smime -sign -binary -nodetach -signer $K/build_cert.pem -inkey $K/build_key.pem";
    const std::string encrypt = "openssl smime -encrypt -binary ", recipient = " $K/device_cert.pem";
    sh("cd /tmp; head -c 9000 /dev/zero | tr '\\0' x >long; echo short >short");
    for (const std::string options :
         {"", " -stream", " -nocerts", " -noattr -md sha512", " -stream -noattr -md sha1"}) {
        add_form(false, sign + options + " -in short");
    }
    add_form(false, sign + " -stream -in long");
    add_form(false, sign + " -signer $K/device_cert.pem -inkey $K/device.pem -passin env:P -in short");
    for (const std::string options : {"-aes256", "-aes128 -stream", "-des3"}) {
        add_form(true, encrypt + options + " -in short" + recipient);
    }
    add_form(true, encrypt + "-aes256 -stream -in long" + recipient);
    add_form(true, encrypt + "-aes256 -in short $K/build_cert.pem" + recipient);
    add_form(true, encrypt + "-aes256 -in short $K/build_cert.pem");

    sh("openssl rsa -in " FOTA_TEST_KEYS "/device.pem -passin env:P -out " + std::string(DEVICE_KEY));
    vexa_dbg_start();
    RAND_set_rand_method(&SAME_NUMBERS);
    const owned<BIO> certificates(BIO_new_file(SIGNERS, "r"));
    signers.reset(sk_X509_new_null());
    while (X509* certificate = PEM_read_bio_X509(certificates.get(), nullptr, nullptr, nullptr)) {
        sk_X509_push(signers.get(), certificate);
    }
    ERR_clear_error();
}

void compare_message_forms(std::string_view input) {
    choices choose = {input};
    const message_form& form = forms[choose(forms.size())];
    std::string structure = form.structure;
    const std::string_view telling(reinterpret_cast<const char*>(TELLING), sizeof TELLING);
    for (size_t count = choose(4); count > 0; --count) change(choose, structure, telling);
    std::string text = form.header + encode(choose, structure) + (choose(2) ? "\n" : "");
    for (size_t count = choose(6); count > 3; --count) change(choose, text, "\r\n =-+A/~:\t");

    next_random = 0;
    const outcome whole = read_whole(form, text);
    next_random = 0;
    const outcome streamed = read_as_daemon(form, text);
    if (whole.is_good == streamed.is_good && whole.output == streamed.output &&
        (whole.is_good || streamed.errors.find(whole.errors) != std::string::npos)) {
        return;
    }
    put_file("/tmp/message", text);
    std::fprintf(stderr, "message_forms: whole: %s, %zu bytes, %s\nstream: %s, %zu bytes, %s\n%s\n",
                 whole.is_good ? "good" : "bad", whole.output.size(), whole.errors.c_str(),
                 streamed.is_good ? "good" : "bad", streamed.output.size(), streamed.errors.c_str(),
                 text.c_str());
    std::abort();
}
