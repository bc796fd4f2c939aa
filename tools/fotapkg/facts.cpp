#include "facts.h"

#include <openssl/evp.h>

#include <string_view>

#include "tools/packages/keys.h"
#include "tools/packages/openssl_objects.h"
#include "tools/packages/size_limit.h"

void add_file(const std::filesystem::path& path, json& facts) {
    const file_range file = whole_file(path);
    facts["size"] = file.size;
    facts["sha256"] = digest_of(file, EVP_sha256());
}

json limit_facts(std::optional<uint64_t> size, uint64_t limit, bool is_bundle) {
    if (!size) return nullptr;
    return {{"bytes", limit}, {"verdict", judge_size(*size, limit, is_bundle).verdict}};
}

void tell_keys(const std::filesystem::path& folder, json& facts) {
    facts = {{"folder", folder.string()}, {"files", json::array()}};
    for (const char* name :
         {DEVICE_KEY_FILE, DEVICE_CERT_FILE, BUILD_KEY_FILE, BUILD_CERT_FILE, BUILD_PUBKEY_FILE}) {
        const std::filesystem::path path = folder / name;
        if (!std::filesystem::is_regular_file(path)) continue;
        json fingerprint;
        if (std::string_view(name).ends_with("cert.pem"))
            fingerprint = fingerprint_of(sk_X509_value(read_certificates(path).get(), 0));
        facts["files"].push_back(
            {{"name", name}, {"size", whole_file(path).size}, {"certificate_sha256", fingerprint}});
    }
}
