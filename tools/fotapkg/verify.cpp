#include "verify.h"

#include <openssl/pem.h>
#include <openssl/pkcs7.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <set>
#include <string>

#include "common/state_files.h"
#include "core/result_codes.h"
#include "daemon_log.h"
#include "keys.h"
#include "package/checksum_list.h"
#include "package/crypto.h"
#include "support.h"
#include "zip.h"

namespace fs = std::filesystem;

namespace {

struct cert_stack_deleter {
    void operator()(STACK_OF(X509) * stack) const { sk_X509_pop_free(stack, X509_free); }
};
struct signer_stack_deleter {  // the signers' certificates belong to others
    void operator()(STACK_OF(X509) * stack) const { sk_X509_free(stack); }
};
using cert_stack = std::unique_ptr<STACK_OF(X509), cert_stack_deleter>;
using signer_stack = std::unique_ptr<STACK_OF(X509), signer_stack_deleter>;

// What the first failed check comes to on a device.
struct rejection {
    const char* check;
    fota_rc code;
    const char* code_name;
    std::string reason;
};
#define REJECT(check, code, reason) \
    throw rejection {               \
        check, code, #code, reason  \
    }

// Who signed a message whose signature is good, and whether devices know the signer.
std::string describe_signers(const fs::path& message_file, const fs::path& cert_file) {
    const file_ptr stream = open_file(cert_file);
    const cert_stack known(sk_X509_new_null());
    while (X509* cert = PEM_read_X509(stream.get(), nullptr, nullptr, nullptr))
        sk_X509_push(known.get(), cert);

    const owned<BIO> input(BIO_new_file(message_file.c_str(), "re"));
    BIO* detached = nullptr;
    const owned<PKCS7> message(SMIME_read_PKCS7(input.get(), &detached));
    const owned<BIO> content(detached);
    signer_stack signers(PKCS7_get0_signers(message.get(), known.get(), PKCS7_NOINTERN));
    const bool all_known = signers != nullptr;
    if (!all_known) signers.reset(PKCS7_get0_signers(message.get(), known.get(), 0));
    std::string text = "by";
    for (int i = 0; i < sk_X509_num(signers.get()); ++i) {
        text += i == 0 ? " " : " and ";
        text += subject_of(sk_X509_value(signers.get(), i));
    }
    if (all_known) return text + ", known from " + BUILD_CERT_FILE;
    return text + ", NOT in " + BUILD_CERT_FILE + ": devices that know no other signers refuse it";
}

std::string lines_of(const fs::path& path) {
    std::ifstream stream(path);
    std::string text;
    for (std::string line; std::getline(stream, line);) {
        if (!text.empty()) text += ", ";
        text += printable(line);
    }
    return text;
}

// Shows how far the list reaches: a device does not look at files that are not in it.
void show_list_result(const fs::path& staging, const fs::path& list) {
    std::set<std::string> listed;
    std::ifstream stream(list);
    for (std::string line; std::getline(stream, line);) {
        char digest[34], name[256];
        if (sscanf(line.c_str(), "%33s %255s", digest, name) == 2) listed.insert(name);
    }
    show_step("checksum list", "ok: %zu files match", listed.size());
    for (const fs::directory_entry& item : fs::recursive_directory_iterator(staging)) {
        const std::string name = item.path().lexically_relative(staging).string();
        if (item.is_directory() || item.path() == list || listed.count(name) != 0) continue;
        show_step("", "not in the list, so never checked: %s", printable(name).c_str());
    }
}

void run_checks(const fs::path& package, const fs::path& device_key, const fs::path& build_cert,
                const work_folder& work) {
    struct stat info = {};
    if (stat(package.c_str(), &info) != 0) REJECT("file", FOTA_RC_PKG_NOT_FOUND, strerror(errno));
    if (!S_ISREG(info.st_mode)) REJECT("file", FOTA_RC_PKG_NOT_REGULAR, "it is not a regular file");
    show_step("file", "ok: %s", size_text(static_cast<uint64_t>(info.st_size)).c_str());

    const fs::path encrypted = work / FOTA_PKG_DETAILS_MEMBER, signed_details = work / "signed",
                   details = work / "pkg_details.zip", staging = work / "staging";
    try {
        extract_member(package, FOTA_PKG_DETAILS_MEMBER, encrypted);
    } catch (const bad_archive& e) {
        REJECT("member", FOTA_RC_FAILURE, e.what());
    }
    show_step("member", "ok: %s, %s", FOTA_PKG_DETAILS_MEMBER, size_text(fs::file_size(encrypted)).c_str());

    if (decrypt_file(device_key.c_str(), encrypted.c_str(), signed_details.c_str()) != 0) {
        REJECT("decryption", FOTA_RC_PKG_INVALID,
               "it is damaged, or not encrypted for " + device_key.string());
    }
    show_step("decryption", "ok: %s", size_text(fs::file_size(signed_details)).c_str());

    if (verify_signature(build_cert.c_str(), signed_details.c_str(), details.c_str()) != 0) {
        REJECT("signature", FOTA_RC_PKG_INVALID,
               "it is damaged, or not signed by a signer in " + build_cert.string());
    }
    show_step("signature", "ok: %s", describe_signers(signed_details, build_cert).c_str());

    size_t files = 0;
    fs::create_directory(staging);
    try {
        files = extract_all(details, staging);
    } catch (const bad_archive& e) {
        REJECT("unpacking", FOTA_RC_FAILURE, e.what());
    } catch (const fs::filesystem_error& e) {  // a name that is both file and folder
        REJECT("unpacking", FOTA_RC_FAILURE, e.what());
    }
    show_step("unpacking", "ok: %zu files", files);

    const fs::path list = staging / fs::path(FOTA_STAGING_CHECKSUM_LIST).filename();
    (void)take_daemon_log();
    if (verify_checksum(staging.c_str(), list.c_str()) != 0) {
        REJECT("checksum list", FOTA_RC_FAILURE,
               "a file is missing or differs from the list, or there is no list");
    }
    show_list_result(staging, list);
    show_step("versions", "from %s to %s",
              lines_of(staging / fs::path(FOTA_STAGING_SRC_VER).filename()).c_str(),
              lines_of(staging / fs::path(FOTA_STAGING_TARGET_VER).filename()).c_str());
}

}  // namespace

bool verify_package(const fs::path& package, const fs::path& keys) {
    const fs::path device_key = key_file(keys, DEVICE_KEY_FILE), build_cert = key_file(keys, BUILD_CERT_FILE);
    const work_folder work;
    try {
        run_checks(package, device_key, build_cert, work);
    } catch (const rejection& r) {
        show_step(r.check, "FAILED: %s", printable(r.reason).c_str());
        for (const std::string& line : take_daemon_log()) show_step("", "%s", line.c_str());
        show_step("package", "refused with 0x%X (%s)", r.code, r.code_name);
        return false;
    }
    show_step("package", "good");
    return true;
}
