#include "web/password.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

#include <cstdint>
#include <sstream>
#include <stdexcept>

namespace {

constexpr size_t HASH_SIZE = 32;
constexpr uint64_t MOST_MEMORY = 64UL * 1024 * 1024;

struct scrypt_line {
    uint64_t n = 16384, r = 8, p = 1;  // 16 MiB, for a moment
    std::string salt, hash;            // in hexadecimal
};

bool read_line(const std::string& text, scrypt_line& line) {
    std::istringstream words(text);
    std::string method;
    return words >> method >> line.n >> line.r >> line.p >> line.salt >> line.hash && method == "scrypt" &&
           line.n > 1 && line.n <= 1U << 20 && (line.n & (line.n - 1)) == 0 && line.r > 0 && line.r <= 32 &&
           line.p > 0 && line.p <= 4 && 128 * line.n * line.r <= MOST_MEMORY / 2 &&
           line.hash.size() == 2 * HASH_SIZE;
}

std::string hash_of(const scrypt_line& line, const std::string& password) {
    std::string hash(HASH_SIZE, '\0');
    if (EVP_PBE_scrypt(password.data(), password.size(),
                       reinterpret_cast<const unsigned char*>(line.salt.data()), line.salt.size(), line.n,
                       line.r, line.p, MOST_MEMORY, reinterpret_cast<unsigned char*>(hash.data()),
                       hash.size()) != 1) {
        throw std::runtime_error("scrypt has not enough memory");
    }
    return in_hex(hash);
}

}  // namespace

std::string in_hex(const std::string& bytes) {
    constexpr char DIGITS[] = "0123456789abcdef";
    std::string text;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        text += {DIGITS[byte >> 4], DIGITS[byte & 15]};
    }
    return text;
}

std::string random_text(size_t bytes) {
    std::string random(bytes, '\0');
    if (RAND_bytes(reinterpret_cast<unsigned char*>(random.data()), static_cast<int>(bytes)) != 1)
        throw std::runtime_error("no random numbers");
    return in_hex(random);
}

std::string digest(const std::string& text) {
    std::string hash(HASH_SIZE, '\0');
    if (EVP_Digest(text.data(), text.size(), reinterpret_cast<unsigned char*>(hash.data()), nullptr,
                   EVP_sha256(), nullptr) != 1)
        throw std::runtime_error("no SHA-256");
    return hash;
}

std::string keyed_digest(const std::string& key, const std::string& text) {
    std::string hash(HASH_SIZE, '\0');
    if (HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
             reinterpret_cast<const unsigned char*>(text.data()), text.size(),
             reinterpret_cast<unsigned char*>(hash.data()), nullptr) == nullptr)
        throw std::runtime_error("no HMAC");
    return hash;
}

bool is_same_secret(const std::string& one, const std::string& other) {
    return one.size() == other.size() && CRYPTO_memcmp(one.data(), other.data(), one.size()) == 0;
}

std::string make_password_line(const std::string& password) {
    if (password.size() < SHORTEST_PASSWORD || password.size() > LONGEST_PASSWORD) {
        throw std::runtime_error("a password has " + std::to_string(SHORTEST_PASSWORD) + " to " +
                                 std::to_string(LONGEST_PASSWORD) + " bytes");
    }
    scrypt_line line;
    line.salt = random_text(16);
    std::ostringstream text;
    text << "scrypt " << line.n << ' ' << line.r << ' ' << line.p << ' ' << line.salt << ' '
         << hash_of(line, password) << '\n';
    return text.str();
}

bool is_password_line(const std::string& line) {
    scrypt_line ignored;
    return read_line(line, ignored);
}

bool is_password(const std::string& line, const std::string& password) {
    scrypt_line known;
    return read_line(line, known) && password.size() <= LONGEST_PASSWORD &&
           is_same_secret(known.hash, hash_of(known, password));
}
