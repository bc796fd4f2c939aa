#include "package_checks.h"

#include <openssl/pem.h>
#include <openssl/pkcs7.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <set>
#include <string>

#include "bundle.h"
#include "common/state_files.h"
#include "common/text.h"
#include "core/request.h"
#include "daemon_log.h"
#include "keys.h"
#include "package/checksum_list.h"
#include "package/crypto.h"
#include "package/staging_tools.h"
#include "support.h"
#include "zip.h"

namespace fs = std::filesystem;

namespace {

using notes = std::vector<output_line>;

// Runs one check after the other and keeps what they come to.
struct check_run {
    const check_options& options;
    check_report& report;

    // `check` fills the notes and returns what it found, or throws bad_input; `code` is the daemon's for
    // that. False when it failed.
    template <typename Check>
    [[nodiscard]] bool operator()(const char* name, fota_rc code, const Check& check) {
        (void)take_daemon_log();
        check_result result;
        result.name = name;
        try {
            result.text = check(result.notes);
        } catch (const bad_input& e) {
            result.code = code;
            result.text = e.what();
            result.notes.clear();
            for (const std::string& line : take_daemon_log()) result.notes.push_back({"", line});
        }
        report.results.push_back(result);
        if (options.on_result) options.on_result(result);
        return result.ok();
    }
};

std::string file_name(const char* path) {
    return fs::path(path).filename();
}

// Who signed a message whose signature is good, and whether devices know the signer.
std::string describe_signers(const fs::path& message_file, const fs::path& cert_file) {
    const owned<STACK_OF(X509)> known = read_certificates(cert_file);
    const owned<BIO> input(BIO_new_file(message_file.c_str(), "re"));
    BIO* detached = nullptr;
    const owned<PKCS7> message(SMIME_read_PKCS7(input.get(), &detached));
    const owned<BIO> content(detached);
    std::unique_ptr<STACK_OF(X509), decltype([](STACK_OF(X509) * certs) { sk_X509_free(certs); })> signers(
        PKCS7_get0_signers(message.get(), known.get(), PKCS7_NOINTERN));
    if (signers) return "by " + subjects_of(signers.get()) + ", known from " + BUILD_CERT_FILE;
    signers.reset(PKCS7_get0_signers(message.get(), known.get(), 0));
    return "by " + subjects_of(signers.get()) + ", NOT in " + BUILD_CERT_FILE +
           ": devices that know no other signers refuse it";
}

std::string lines_of(const fs::path& path) {
    std::ifstream stream(path);
    std::string text;
    for (std::string line; std::getline(stream, line);) text += (text.empty() ? "" : ", ") + line;
    return text;
}

// A device does not look at files that its list does not name.
void add_unlisted(notes& found, const fs::path& folder, const std::set<std::string>& listed) {
    for (const fs::directory_entry& item : fs::recursive_directory_iterator(folder)) {
        const std::string name = item.path().lexically_relative(folder);
        if (!item.is_directory() && listed.count(name) == 0)
            found.push_back({"", "not in the list: " + name});
    }
}

bool check_file(check_run& check, const fs::path& file) {
    std::error_code error;
    const fs::file_status status = fs::status(file, error);
    const bool is_missing = error || check.report.is_bundle;
    return check("file", is_missing ? FOTA_RC_PKG_NOT_FOUND : FOTA_RC_PKG_NOT_REGULAR, [&](notes&) {
        if (error) throw bad_input(error.message());
        if (!fs::is_regular_file(status)) throw bad_input("it is not a regular file");
        return file_size_text(file);
    });
}

bool check_package(check_run& check, const fs::path& package, const work_folder& work) {
    const fs::path device_key = key_file(check.options.keys, DEVICE_KEY_FILE),
                   build_cert = key_file(check.options.keys, BUILD_CERT_FILE);
    const fs::path encrypted = work / FOTA_PKG_DETAILS_MEMBER, signed_details = work / "signed",
                   details = work / "pkg_details.zip", staging = work / "staging";
    const auto staged = [&](const char* path) { return staging / file_name(path); };
    const auto member = [&](notes&) {
        extract_member(package, FOTA_PKG_DETAILS_MEMBER, encrypted);
        return FOTA_PKG_DETAILS_MEMBER + (", " + file_size_text(encrypted));
    };
    const auto decryption = [&](notes&) {
        if (decrypt_file(device_key.c_str(), encrypted.c_str(), signed_details.c_str()) != 0)
            throw bad_input("it is damaged, or not encrypted for " + device_key.string());
        return file_size_text(signed_details);
    };
    const auto signature = [&](notes&) {
        if (verify_signature(build_cert.c_str(), signed_details.c_str(), details.c_str()) != 0)
            throw bad_input("it is damaged, or not signed by a signer in " + build_cert.string());
        return describe_signers(signed_details, build_cert);
    };
    const auto unpacking = [&](notes&) {
        fs::create_directory(staging);
        return std::to_string(extract_all(details, staging)) + " files";
    };
    const auto checksums = [&](notes& found) {
        const fs::path list = staged(FOTA_STAGING_CHECKSUM_LIST);
        if (verify_checksum(staging.c_str(), list.c_str()) != 0)
            throw bad_input("a file is missing or differs from the list, or there is no list");
        std::set<std::string> listed;
        std::ifstream stream(list);
        for (std::string line; std::getline(stream, line);) {
            char digest[34], name[256];
            if (sscanf(line.c_str(), "%33s %255s", digest, name) == 2) listed.insert(name);
        }
        const size_t count = listed.size();
        listed.insert(list.filename());
        add_unlisted(found, staging, listed);
        found.push_back({"versions", "from " + lines_of(staged(FOTA_STAGING_SRC_VER)) + " to " +
                                         lines_of(staged(FOTA_STAGING_TARGET_VER))});
        if (fs::exists(staged(FOTA_STAGING_FULL_FOTA))) {
            const bool has_script = fs::exists(staged(FOTA_STAGING_FULL_FOTA_SCRIPT));
            found.push_back({"full image", has_script
                                               ? "installed by its upgrade script"
                                               : "WITHOUT an upgrade script: devices cannot install it"});
        }
        return std::to_string(count) + " files match";
    };
    return check("member", FOTA_RC_FAILURE, member) && check("decryption", FOTA_RC_PKG_INVALID, decryption) &&
           check("signature", FOTA_RC_PKG_INVALID, signature) &&
           check("unpacking", FOTA_RC_FAILURE, unpacking) &&
           check("checksum list", FOTA_RC_FAILURE, checksums);
}

// Checks one piece as the device does and appends it to `package`.
void join_piece(const fs::path& folder, const std::string& listed_name, const fs::path& public_key,
                const fs::path& package) {
    const fs::path signature = folder / listed_name;
    // The device's path to it has room for no more.
    const bool fits = sizeof FOTA_SIDELOAD_TMP_DIR + listed_name.size() < FOTA_TEXT_SIZE;
    const size_t suffix = strlen(SIGNATURE_SUFFIX);
    if (!fits || listed_name.find('/') != std::string::npos || listed_name.size() <= suffix ||
        !fs::is_regular_file(signature)) {
        throw bad_input(listed_name + " is in the list, but not in the bundle");
    }
    const std::string name = listed_name.substr(0, listed_name.size() - suffix);
    const fs::path piece = folder / name;
    if (!fs::is_regular_file(piece)) {
        throw bad_input(name + " is not in the bundle, or named twice in the list");
    }
    if (fota_verify_digest_signature(public_key.c_str(), piece.c_str(), signature.c_str()) != 0) {
        throw bad_input(name + " is damaged, or not signed by the owner of " + public_key.string());
    }
    const uint64_t size = fs::file_size(piece);
    if (size == 0 || size > MAX_PIECE_BYTES) throw bad_input(name + " is empty, or of 2 GiB and more");
    if (append_file_and_delete_source(package.c_str(), piece.c_str()) != FOTA_RC_SUCCESS)
        throw failure("Cannot join the pieces to " + package.string() + "; see that there is room for them");
}

// Checks the pieces and joins them into `package`.
bool check_pieces(check_run& check, const fs::path& bundle, const work_folder& work,
                  const fs::path& package) {
    const fs::path public_key = key_file(check.options.keys, BUILD_PUBKEY_FILE), folder = work / "pieces";
    const auto unpacking = [&](notes&) {
        fs::create_directory(folder);
        return std::to_string(extract_all(bundle, folder)) + " files";
    };
    const auto pieces = [&](notes& found) {
        const std::string list_name = file_name(FOTA_SIDELOAD_PKG_LIST);
        const file_ptr list = open_for_reading((folder / list_name).c_str());
        if (!list) throw bad_input("there is no list of them, " + list_name);
        std::set<std::string> listed;
        char line[FOTA_TEXT_SIZE];
        while (fgets(line, sizeof line, list.get()) != nullptr) {
            text_trim(line);
            if (line[0] == '\0') continue;
            join_piece(folder, line, public_key, package);
            listed.insert(line);
        }
        if (listed.empty()) throw bad_input("their list is empty");
        const size_t count = listed.size();
        listed.insert(list_name);
        add_unlisted(found, folder, listed);
        return std::to_string(count) + ", signed by the owner of " + BUILD_PUBKEY_FILE;
    };
    return check("unpacking", FOTA_RC_FAILURE, unpacking) && check("pieces", FOTA_RC_PKG_INVALID, pieces);
}

// What the client whose request ends in `code` hears: not every step has an answer of its own.
fota_rc answer_of_package(fota_rc code, bool is_side_load) {
    if (is_side_load) return FOTA_RC_PKG_VALIDATION_FAILED;
    if (code == FOTA_RC_PKG_INVALID) return FOTA_RC_FAILURE;
    return code;
}

}  // namespace

check_report check_package_file(const fs::path& file, const check_options& options) {
    const work_folder work;
    check_report report;
    report.is_bundle = options.is_bundle || has_member(file, file_name(FOTA_SIDELOAD_PKG_LIST));
    check_run check = {options, report};
    const fs::path package = report.is_bundle ? work / "upgrade.zip" : file;
    if (!check_file(check, file) || (report.is_bundle && !check_pieces(check, file, work, package))) {
        report.answer = report.results.back().code;
    } else if (!check_package(check, package, work)) {
        report.answer = answer_of_package(report.results.back().code, report.is_bundle);
    }
    return report;
}
