#include "package.h"

#include <openssl/pem.h>
#include <openssl/pkcs7.h>

#include <algorithm>
#include <cstdio>
#include <string_view>

#include "common/state_files.h"
#include "core/config.h"
#include "tools/common/files.h"
#include "tools/common/output.h"
#include "tools/packages/archives.h"
#include "tools/packages/keys.h"
#include "tools/packages/openssl_objects.h"
#include "tools/packages/staged_details.h"

namespace fs = std::filesystem;

namespace {

constexpr size_t LINE_BYTES = 254;  // the device reads no more of a line
constexpr size_t NAME_BYTES = 255;  // the checksum list's limit
constexpr mode_t SCRIPT_MODE = 0755;

// Names in the staging folder with a meaning of their own, to the daemon or to the installer: content that
// brings one along would look like a flag or a result.
// clang-format off
constexpr const char* RESERVED[] = {
    FOTA_STAGING_CHECKSUM_LIST, FOTA_STAGING_SRC_VER, FOTA_STAGING_TARGET_VER, FOTA_STAGING_PKG_DESCRIPTION,
    FOTA_STAGING_FULL_FOTA, FOTA_STAGING_FULL_FOTA_SCRIPT, FOTA_STAGING_PRE_INSTALL_SCRIPT,
    FOTA_STAGING_POST_INSTALL_SCRIPT, FOTA_STAGING_POST_INSTALL_FAILED_SCRIPT, FOTA_STAGING_EST_UPD_TIME,
    FOTA_STAGING_UPDATE_DLPKG_VERIFIED, FOTA_STAGING_UPDATE_PRE_INSTALL, FOTA_STAGING_UPDATE_PRE_FULL_FOTA_INSTALL,
    FOTA_STAGING_LPM, FOTA_STAGING_SHUTDOWN, FOTA_STAGING_UPDATE_SUCCESS, FOTA_STAGING_UPDATE_FAILURE,
    FOTA_STAGING_UPDATE_FAILURE_REASON, FOTA_STAGING_PRI_LINUX_SUCCESS, FOTA_STAGING_PRI_LINUX_FAILURE,
    FOTA_STAGING_PRI_MODEM_SUCCESS, FOTA_STAGING_PRI_MODEM_FAILURE, FOTA_STAGING_SUA_COOKIE,
    FOTA_STAGING_SUA_PKG_DESC, FOTA_STAGING_SUA_PKG_NAME, FOTA_STAGING_SUA_PKG_VER, FOTA_STAGING_SUA_PKG_SIZE,
    FOTA_STAGING_SUA_PKG_TS, FOTA_DEVICE_INFO_DIR};
// clang-format on

void check_content_name(const std::string& name) {
    if (name.size() > NAME_BYTES) {
        throw failure(name + " in the content is longer than " + std::to_string(NAME_BYTES) +
                      " bytes; shorten it");
    }
    // The checksum list is split at blanks; unzip cuts what looks like a version behind a semicolon.
    const auto unfit = [](char c) { return c <= ' ' || c > '~' || c == ';' || c == '\\'; };
    if (std::any_of(name.begin(), name.end(), unfit)) {
        throw failure(name +
                      " in the content has a blank, ';', '\\' or a character that is not ASCII; rename it");
    }
    const std::string first = name.substr(0, name.find('/'));
    for (const char* reserved : RESERVED) {
        if (first != staged_name(reserved)) continue;
        throw failure(name + " in the content is a name that the update daemon uses itself; rename it");
    }
}

std::vector<zip_entry> collect_content(const fs::path& folder) {
    if (!fs::is_directory(folder))
        throw failure(folder.string() + " is not a folder; give --content one with files");
    std::vector<zip_entry> entries;
    for (const fs::directory_entry& item : fs::recursive_directory_iterator(folder)) {
        const fs::file_status status = item.symlink_status();
        if (fs::is_directory(status)) continue;
        const std::string name = item.path().lexically_relative(folder).string();
        if (!fs::is_regular_file(status)) {
            throw failure(
                name + " in the content is neither file nor folder; take it out or copy what it stands for");
        }
        check_content_name(name);
        entries.push_back({name, whole_file(item.path())});
        if ((status.permissions() & fs::perms::owner_exec) != fs::perms::none)
            entries.back().mode = SCRIPT_MODE;
    }
    return entries;
}

// The device runs it through a shell, which takes an image for a script, and an empty file for one that
// succeeds.
void check_full_image_script(const package_options& options) {
    const fs::path& script = *options.full_image;
    char start[2] = {};
    if (fread(start, 1, sizeof start, open_file(script).get()) != sizeof start || start[0] != '#' ||
        start[1] != '!') {
        throw failure(
            script.string() +
            " does not begin with #!; give --full-image the upgrade script, and --content the images");
    }
    std::error_code ignored;
    if (options.pre_install && fs::equivalent(script, *options.pre_install, ignored)) {
        throw failure(
            "--pre-install and --full-image are the same script, which would run twice; leave one out");
    }
}

// Every entry of the details archive, in its order; texts and lists are made in `work`.
std::vector<zip_entry> collect_details(const package_options& options, const work_folder& work) {
    std::vector<zip_entry> entries = collect_content(options.content);
    uint64_t bytes = 0;
    for (const zip_entry& entry : entries) bytes += entry.data.size;
    show_step("content", size_text(bytes) + " in " + std::to_string(entries.size()) + " files");
    if (entries.empty())
        show_step("", options.content.string() + " is empty: nothing but scripts is delivered");

    const auto add_text = [&](const char* staged_path, const std::string& text) {
        const std::string name = staged_name(staged_path);
        write_file(work / name, text, 0600);
        entries.push_back({name, whole_file(work / name)});
    };
    const auto add_script = [&](const char* staged_path, const std::optional<fs::path>& source) {
        if (source) entries.push_back({staged_name(staged_path), whole_file(*source), SCRIPT_MODE});
    };
    std::string source_lines;
    for (const std::string& version : options.sources) source_lines += version + "\n";
    add_text(FOTA_STAGING_SRC_VER, source_lines);
    add_text(FOTA_STAGING_TARGET_VER, options.target);
    add_text(FOTA_STAGING_PKG_DESCRIPTION, options.description);
    if (options.estimate_secs) add_text(FOTA_STAGING_EST_UPD_TIME, std::to_string(*options.estimate_secs));
    if (options.full_image) add_text(FOTA_STAGING_FULL_FOTA, "");
    add_script(FOTA_STAGING_FULL_FOTA_SCRIPT, options.full_image);
    add_script(FOTA_STAGING_PRE_INSTALL_SCRIPT, options.pre_install);
    add_script(FOTA_STAGING_POST_INSTALL_SCRIPT, options.post_install);
    add_script(FOTA_STAGING_POST_INSTALL_FAILED_SCRIPT, options.post_install_failed);

    const auto by_name = [](const zip_entry& a, const zip_entry& b) { return a.name < b.name; };
    std::sort(entries.begin(), entries.end(), by_name);
    std::string list;
    for (const zip_entry& entry : entries)
        list += digest_of(entry.data, EVP_md5()) + "  " + entry.name + "\n";
    show_step("checksum list", std::to_string(entries.size()) + " files");
    add_text(FOTA_STAGING_CHECKSUM_LIST, list);
    std::sort(entries.begin(), entries.end(), by_name);
    return entries;
}

// Writes the PKCS#7 message that `make` makes of `input` into the S/MIME file `output`. It is held in memory
// as a whole, so that every length is known when the first byte is written, which is what DER asks for: a
// device reads that with less work than a message in blocks.
template <typename Make>
void write_smime(const fs::path& input, const fs::path& output, const Make& make) {
    constexpr int FLAGS = PKCS7_BINARY;
    const file_ptr in = open_file(input);
    file_ptr out = create_file(output, 0600);
    const owned<BIO> in_bio(BIO_new_fp(in.get(), BIO_NOCLOSE));
    const owned<BIO> out_bio(BIO_new_fp(out.get(), BIO_NOCLOSE));
    const owned<PKCS7> message(make(in_bio.get(), FLAGS));
    const bool done = message && SMIME_write_PKCS7(out_bio.get(), message.get(), nullptr, FLAGS) == 1;
    if (ferror(in.get()) != 0) throw failure("Cannot read all of " + input.string());
    if (!done && ferror(out.get()) == 0) throw openssl_failure("Cannot sign or encrypt the package details");
    finish_file(std::move(out), output);
}

}  // namespace

std::string line_problem(const std::string& text) {
    if (text.empty()) return "must not be empty";
    if (text.size() > LINE_BYTES) return "is longer than " + std::to_string(LINE_BYTES) + " bytes";
    const auto control = [](char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7f'; };
    return std::any_of(text.begin(), text.end(), control) ? "holds a line end or another control character"
                                                          : "";
}

std::string version_problem(const std::string& version) {
    const auto unfit = [](char c) { return c <= ' ' || c > '~'; };
    return std::any_of(version.begin(), version.end(), unfit)
               ? "a version holds ASCII letters, digits and signs only"
               : line_problem(version);
}

void make_package(const package_options& options) {
    check_output(options.output);
    if (options.full_image) check_full_image_script(options);
    const owned<STACK_OF(X509)> signers = read_certificates(key_file(options.keys, BUILD_CERT_FILE)),
                                devices = read_certificates(key_file(options.keys, DEVICE_CERT_FILE));
    for (int i = 0; i < sk_X509_num(devices.get()); ++i) {
        if (EVP_PKEY_base_id(X509_get0_pubkey(sk_X509_value(devices.get(), i))) == EVP_PKEY_RSA) continue;
        throw failure(std::string(DEVICE_CERT_FILE) +
                      " has a key that is no RSA key, for which nothing can be encrypted; make one with "
                      "`fotapkg keys`");
    }
    X509* const signer = sk_X509_value(signers.get(), 0);
    const owned<EVP_PKEY> key = read_build_key(options.keys, BUILD_CERT_FILE, X509_get0_pubkey(signer));
    const work_folder work;
    const fs::path details = work / "pkg_details.zip", signed_details = work / "pkg_details.zip.signed",
                   encrypted = work / FOTA_PKG_DETAILS_MEMBER;

    write_zip(details, collect_details(options, work), zip_method::deflated);
    show_step("details", file_size_text(details));

    // Without the signer's certificate: devices know it, and a package of another build is not to pass by
    // bringing its own.
    write_smime(details, signed_details, [&](BIO* in, int flags) {
        return PKCS7_sign(signer, key.get(), nullptr, in, flags | PKCS7_NOCERTS);
    });
    show_step("signed", file_size_text(signed_details) + ", with " + BUILD_KEY_FILE);

    write_smime(signed_details, encrypted, [&](BIO* in, int flags) {
        return PKCS7_encrypt(devices.get(), in, EVP_aes_256_cbc(), flags);
    });
    show_step("encrypted", file_size_text(encrypted) + ", AES-256 for " + subjects_of(devices.get()));

    // The message is base64 text: deflating takes a quarter of it away.
    write_zip(options.output, {{FOTA_PKG_DETAILS_MEMBER, whole_file(encrypted)}},
              options.store ? zip_method::stored : zip_method::deflated, options.limit);
    show_step("package", options.output.string() + ", " + file_size_text(options.output));
    if (fs::file_size(options.output) > FOTA_DEFAULT_PKG_SIZE) {
        show_step("", "larger than " + size_text(FOTA_DEFAULT_PKG_SIZE) +
                          ", the limit of devices unless their configuration sets another");
    }
}
