#include "package/checksum_list.h"

#include <openssl/evp.h>

#include <cstdio>
#include <cstring>
#include <memory>

#include "common/file_helpers.h"
#include "common/text.h"
#include "core/log.h"

namespace {

constexpr size_t LINE_SIZE = 1024;
constexpr size_t READ_SIZE = 16384;
constexpr size_t MD5_BYTES = 16;
constexpr size_t MD5_HEX = 2 * MD5_BYTES;

struct md_ctx_closer {
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};

// The MD5 of the rest of `stream` in hexadecimal. False when it cannot be computed.
bool md5_hex(FILE* stream, char (&hex)[MD5_HEX + 1]) {
    const std::unique_ptr<EVP_MD_CTX, md_ctx_closer> context(EVP_MD_CTX_new());
    if (!context || EVP_DigestInit_ex(context.get(), EVP_md5(), nullptr) != 1) return false;
    char buffer[READ_SIZE];
    size_t count = 0;
    while ((count = fread(buffer, 1, sizeof buffer, stream)) > 0) {
        if (EVP_DigestUpdate(context.get(), buffer, count) != 1) return false;
    }
    unsigned char digest[MD5_BYTES];
    if (ferror(stream) != 0 || EVP_DigestFinal_ex(context.get(), digest, nullptr) != 1) return false;
    for (size_t i = 0; i < MD5_BYTES; ++i) text_format(hex + 2 * i, 3, "%02x", digest[i]);
    return true;
}

}  // namespace

bool next_checksum_entry(FILE* list, checksum_entry* entry) {
    char line[LINE_SIZE];
    while (fgets(line, sizeof line, list) != nullptr) {
        text_cut_line_end(line);
        if (sscanf(line, "%33s %255s", entry->digest, entry->name) == 2) return true;
    }
    return false;
}

int verify_checksum(const char* base_dir, const char* list_path) {
    const file_ptr list = open_regular_for_reading(list_path);
    if (!list) {
        LOG_ERROR("DlPkg Cannot open cksum_file\n");
        return -1;
    }
    checksum_entry entry;
    while (next_checksum_entry(list.get(), &entry)) {
        char path[512];
        text_format(path, sizeof path, "%s/%s", base_dir, entry.name);
        LOG_NOTICE("DlPkg -- file_name:%s, digest:%s\n\n", path, entry.digest);
        if (verify_file_md5(path, entry.digest) != 0) {
            LOG_ERROR("DlPkg MD5: Failed for file_name:%s\n", path);
            return -1;
        }
        LOG_NOTICE("MD5 Success\n");
    }
    // Files that are named behind the place where the list cannot be read have not been checked.
    return ferror(list.get()) == 0 ? 0 : -1;
}

int verify_file_md5(const char* path, const char* expected_digest) {
    const file_ptr stream = open_regular_for_reading(path);
    if (!stream) {
        LOG_ERROR("Cannot open file specified:%s\n", path);
        return -1;
    }
    if (expected_digest == nullptr) {
        LOG_ERROR("No digest specified\n");
        return -1;
    }
    char current[MD5_HEX + 1] = {};
    if (md5_hex(stream.get(), current) && strncmp(current, expected_digest, MD5_HEX) == 0) return 0;
    LOG_ERROR("MD5 failed for file: %s\n", path);
    LOG_NOTICE("Current  digest:%s\n", current);
    LOG_NOTICE("Expected digest:%s\n", expected_digest);
    return -1;
}
