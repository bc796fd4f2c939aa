#include "private_key.h"

#include <openssl/engine.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/store.h>
#include <openssl/ui.h>

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <memory>

#include "tools/packages/keys.h"

namespace {

constexpr char TOKEN_SCHEME[] = "pkcs11:";
constexpr char VARIABLE[] = "env:", FILE_NAME[] = "file:";

std::string first_line(std::istream& stream, const std::string& passin) {
    std::string line;
    if (!std::getline(stream, line))
        throw failure("--passin " + passin + " gives no line; a pass phrase is one");
    return line;
}

std::string read_phrase(const std::string& passin) {
    if (passin == "-") return first_line(std::cin, passin);
    if (passin.starts_with(FILE_NAME)) {
        std::ifstream stream(passin.substr(sizeof FILE_NAME - 1));
        return first_line(stream, passin);
    }
    const char* const value = getenv(passin.substr(sizeof VARIABLE - 1).c_str());
    if (value == nullptr) throw failure("--passin " + passin + " names a variable that is not set");
    return value;
}

// As OpenSSL asks for it. What it is to be asked for is at its default: on the terminal.
int give(char* buffer, int size, int for_writing, void* phrase) {
    if (phrase == nullptr) return PEM_def_callback(buffer, size, for_writing, nullptr);
    const std::string& text = *static_cast<const std::string*>(phrase);
    if (text.size() >= static_cast<size_t>(size)) return -1;
    text.copy(buffer, text.size());
    return static_cast<int>(text.size());
}

struct store_deleter {
    void operator()(OSSL_STORE_CTX* store) const { OSSL_STORE_close(store); }
    void operator()(OSSL_STORE_INFO* info) const { OSSL_STORE_INFO_free(info); }
    void operator()(UI_METHOD* method) const { UI_destroy_method(method); }
};
template <typename T>
using of_store = std::unique_ptr<T, store_deleter>;

// The ways to a token: null when it has no such key. `*is_open` becomes true when there is this way.
owned<EVP_PKEY> read_by_provider(const std::string& uri, const UI_METHOD* method, void* phrase,
                                 bool* is_open) {
    const of_store<OSSL_STORE_CTX> store(OSSL_STORE_open(uri.c_str(), method, phrase, nullptr, nullptr));
    *is_open = *is_open || store;
    if (store) OSSL_STORE_expect(store.get(), OSSL_STORE_INFO_PKEY);
    while (store && OSSL_STORE_eof(store.get()) == 0) {
        const of_store<OSSL_STORE_INFO> info(OSSL_STORE_load(store.get()));
        if (info && OSSL_STORE_INFO_get_type(info.get()) == OSSL_STORE_INFO_PKEY)
            return owned<EVP_PKEY>(OSSL_STORE_INFO_get1_PKEY(info.get()));
        if (!info && OSSL_STORE_error(store.get()) != 0) break;
    }
    return nullptr;
}

owned<EVP_PKEY> read_by_engine([[maybe_unused]] const std::string& uri, [[maybe_unused]] UI_METHOD* method,
                               [[maybe_unused]] void* phrase, bool* is_open) {
#ifndef OPENSSL_NO_ENGINE
    // Stays for as long as its keys do, which is until the program ends.
    static ENGINE* const engine = [] {
        ENGINE_load_builtin_engines();
        ENGINE* const found = ENGINE_by_id("pkcs11");
        return found != nullptr && ENGINE_init(found) == 1 ? found : nullptr;
    }();
    *is_open = *is_open || engine != nullptr;
    if (engine != nullptr)
        return owned<EVP_PKEY>(ENGINE_load_private_key(engine, uri.c_str(), method, phrase));
#endif
    return nullptr;
}

owned<EVP_PKEY> read_from_token(const std::string& uri, void* phrase) {
    const of_store<UI_METHOD> given(UI_UTIL_wrap_read_pem_callback(give, 0));
    UI_METHOD* const method = phrase != nullptr ? given.get() : UI_OpenSSL();
    bool is_open = false;
    owned<EVP_PKEY> key = read_by_provider(uri, method, phrase, &is_open);
    if (!key) key = read_by_engine(uri, method, phrase, &is_open);
    ERR_clear_error();  // that there is no provider is no fault, and the others say only that they failed
    if (key) return key;
    throw failure(
        "There is no private key at " + shown_source(uri) +
        (is_open
             ? "; see that `p11-kit list-modules` names its token, and that the PIN is right"
             : "; OpenSSL needs a provider or an engine for PKCS#11, such as the packages pkcs11-provider or "
               "libengine-pkcs11-openssl"));
}

owned<EVP_PKEY> read_from_file(const std::string& path, void* phrase) {
    const file_ptr stream = open_file(path);
    warn_of_readers(path);
    owned<EVP_PKEY> key(PEM_read_PrivateKey(stream.get(), nullptr, give, phrase));
    if (key) return key;
    throw openssl_failure(
        path +
        " gives no private key; make one with `fotapkg keys`, or, if it has a pass phrase, give that with "
        "--passin or at a terminal");
}

}  // namespace

std::string passin_problem(const std::string& passin) {
    const bool is_known = passin == "-" || passin.starts_with(VARIABLE) || passin.starts_with(FILE_NAME);
    return is_known ? "" : "is not env:VARIABLE, file:FILE or -";
}

std::string shown_source(const std::string& source) {
    if (!source.starts_with(TOKEN_SCHEME)) return source;
    const size_t pin = source.find("pin-value");
    return pin == std::string::npos ? source : source.substr(0, pin - 1);
}

pass_phrase::pass_phrase(const std::string& passin)
    : text_(passin.empty() ? "" : read_phrase(passin)), is_given_(!passin.empty()) {}

owned<EVP_PKEY> pass_phrase::read_key(const std::string& source) {
    void* const phrase = is_given_ ? &text_ : nullptr;
    return source.starts_with(TOKEN_SCHEME) ? read_from_token(source, phrase)
                                            : read_from_file(source, phrase);
}
