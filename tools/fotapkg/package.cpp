#include "package.h"

#include <openssl/pem.h>
#include <openssl/pkcs7.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <string_view>

#include "common/state_files.h"
#include "keys.h"
#include "support.h"
#include "zip.h"

namespace fs = std::filesystem;

namespace {

constexpr size_t LINE_BYTES = 254;  // the device reads no more of a line
constexpr size_t NAME_BYTES = 255;  // the checksum list's limit
constexpr mode_t SCRIPT_MODE = 0755;
constexpr mode_t FILE_MODE = 0644;

// The name in the package of a file that has its place in the staging folder.
std::string staged_name(std::string_view path) {
    return std::string(path.substr(sizeof FOTA_STAGING_DIR));
}

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
    FOTA_STAGING_SUA_PKG_TS, "/opt/qast/data/fota/staging/device_info"};
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
        const bool runs = (status.permissions() & fs::perms::owner_exec) != fs::perms::none;
        entries.push_back({name, item.path(), runs ? SCRIPT_MODE : FILE_MODE});
    }
    return entries;
}

std::string md5_of_file(const fs::path& path) {
    const file_ptr stream = open_file(path);
    const owned<EVP_MD_CTX> context(EVP_MD_CTX_new());
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned digest_size = 0;
    bool good = context && EVP_DigestInit_ex(context.get(), EVP_md5(), nullptr) == 1;
    std::vector<char> chunk(size_t{64} * 1024);
    for (size_t count = 0; good && (count = fread(chunk.data(), 1, chunk.size(), stream.get())) > 0;) {
        good = EVP_DigestUpdate(context.get(), chunk.data(), count) == 1;
    }
    if (!good || ferror(stream.get()) != 0 || EVP_DigestFinal_ex(context.get(), digest, &digest_size) != 1) {
        throw openssl_failure("Cannot compute the MD5 digest of " + path.string());
    }
    std::string hex;
    for (unsigned i = 0; i < digest_size; ++i) {
        char byte[3];
        snprintf(byte, sizeof byte, "%02x", digest[i]);
        hex += byte;
    }
    return hex;
}

// Every entry of the details archive, in its order; texts and lists are made in `work`.
std::vector<zip_entry> collect_details(const package_options& options, const work_folder& work) {
    std::vector<zip_entry> entries = collect_content(options.content);
    uint64_t bytes = 0;
    for (const zip_entry& entry : entries) bytes += fs::file_size(entry.source);
    show_step("content", "%s in %zu files", size_text(bytes).c_str(), entries.size());

    const auto add_text = [&](const char* staged_path, const std::string& text) {
        const std::string name = staged_name(staged_path);
        write_file(work / name, text, 0600);
        entries.push_back({name, work / name, FILE_MODE});
    };
    const auto add_script = [&](const char* staged_path, const std::optional<fs::path>& source) {
        if (source) entries.push_back({staged_name(staged_path), *source, SCRIPT_MODE});
    };
    std::string source_lines;
    for (const std::string& version : options.sources) source_lines += version + "\n";
    add_text(FOTA_STAGING_SRC_VER, source_lines);
    add_text(FOTA_STAGING_TARGET_VER, options.target);
    add_text(FOTA_STAGING_PKG_DESCRIPTION, options.description);
    if (options.estimate_secs) add_text(FOTA_STAGING_EST_UPD_TIME, std::to_string(*options.estimate_secs));
    add_script(FOTA_STAGING_PRE_INSTALL_SCRIPT, options.pre_install);
    add_script(FOTA_STAGING_POST_INSTALL_SCRIPT, options.post_install);
    add_script(FOTA_STAGING_POST_INSTALL_FAILED_SCRIPT, options.post_install_failed);

    const auto by_name = [](const zip_entry& a, const zip_entry& b) { return a.name < b.name; };
    std::sort(entries.begin(), entries.end(), by_name);
    std::string list;
    for (const zip_entry& entry : entries) list += md5_of_file(entry.source) + "  " + entry.name + "\n";
    show_step("checksum list", "%zu files", entries.size());
    add_text(FOTA_STAGING_CHECKSUM_LIST, list);
    std::sort(entries.begin(), entries.end(), by_name);
    return entries;
}

struct signing_keys {
    owned<EVP_PKEY> build_key;
    owned<X509> build_cert, device_cert;
};

signing_keys read_keys(const fs::path& folder) {
    signing_keys keys;
    keys.build_cert = read_certificate(key_file(folder, BUILD_CERT_FILE));
    keys.device_cert = read_certificate(key_file(folder, DEVICE_CERT_FILE));
    const fs::path key_path = key_file(folder, BUILD_KEY_FILE);
    const file_ptr stream = open_file(key_path);
    keys.build_key.reset(PEM_read_PrivateKey(stream.get(), nullptr, nullptr, nullptr));
    if (!keys.build_key)
        throw openssl_failure(key_path.string() + " holds no private key; make one with `fotapkg keys`");
    if (X509_check_private_key(keys.build_cert.get(), keys.build_key.get()) != 1) {
        throw failure(key_path.string() + " does not belong to " + BUILD_CERT_FILE +
                      "; take both from one set of keys");
    }
    return keys;
}

// Streams `input` through the PKCS#7 message that `make` begins into the S/MIME file `output`; packages may
// be larger than memory.
template <typename Make>
void write_smime(const fs::path& input, const fs::path& output, const Make& make) {
    constexpr int FLAGS = PKCS7_BINARY | PKCS7_STREAM;
    const file_ptr in = open_file(input);
    file_ptr out = create_file(output, 0600);
    const owned<BIO> in_bio(BIO_new_fp(in.get(), BIO_NOCLOSE));
    const owned<BIO> out_bio(BIO_new_fp(out.get(), BIO_NOCLOSE));
    const owned<PKCS7> message(make(in_bio.get(), FLAGS));
    const bool done = message && SMIME_write_PKCS7(out_bio.get(), message.get(), in_bio.get(), FLAGS) == 1;
    if (ferror(in.get()) != 0) throw failure("Cannot read all of " + input.string());
    if (!done && ferror(out.get()) == 0) throw openssl_failure("Cannot sign or encrypt the package details");
    finish_file(std::move(out), output);
}

std::string file_size_text(const fs::path& path) {
    return size_text(fs::file_size(path));
}

std::string line_problem(const std::string& text) {
    if (text.empty()) return "must not be empty";
    if (text.size() > LINE_BYTES) return "is longer than " + std::to_string(LINE_BYTES) + " bytes";
    const auto control = [](char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7f'; };
    return std::any_of(text.begin(), text.end(), control) ? "holds a line end or another control character"
                                                          : "";
}

}  // namespace

std::string version_problem(const std::string& version) {
    const auto unfit = [](char c) { return c <= ' ' || c > '~'; };
    if (std::any_of(version.begin(), version.end(), unfit))
        return "a version holds ASCII letters, digits and signs only";
    const std::string problem = line_problem(version);
    return problem.empty() ? "" : "a version " + problem;
}

std::string description_problem(const std::string& description) {
    const std::string problem = line_problem(description);
    return problem.empty() ? "" : "a description " + problem;
}

void make_package(const package_options& options) {
    const fs::path output_folder = fs::absolute(options.output).parent_path();
    if (!fs::is_directory(output_folder))
        throw failure("There is no folder " + output_folder.string() + "; make it");
    const signing_keys keys = read_keys(options.keys);
    const work_folder work;
    const fs::path details = work / "pkg_details.zip", signed_details = work / "pkg_details.zip.signed",
                   encrypted = work / FOTA_PKG_DETAILS_MEMBER;

    write_zip(details, collect_details(options, work), zip_method::deflated);
    show_step("details", "%s", file_size_text(details).c_str());

    // Without the signer's certificate: devices know it, and a package of another build is not to pass by
    // bringing its own.
    write_smime(details, signed_details, [&](BIO* in, int flags) {
        return PKCS7_sign(keys.build_cert.get(), keys.build_key.get(), nullptr, in, flags | PKCS7_NOCERTS);
    });
    show_step("signed", "%s, by %s", file_size_text(signed_details).c_str(),
              subject_of(keys.build_cert.get()).c_str());

    const std::unique_ptr<STACK_OF(X509), void (*)(STACK_OF(X509)*)> recipients(
        sk_X509_new_null(), [](STACK_OF(X509) * stack) { sk_X509_free(stack); });
    if (!recipients || sk_X509_push(recipients.get(), keys.device_cert.get()) == 0) throw std::bad_alloc();
    write_smime(signed_details, encrypted, [&](BIO* in, int flags) {
        return PKCS7_encrypt(recipients.get(), in, EVP_aes_256_cbc(), flags);
    });
    show_step("encrypted", "%s, AES-256 for %s", file_size_text(encrypted).c_str(),
              subject_of(keys.device_cert.get()).c_str());

    fs::path part = options.output;
    part += ".part";
    try {
        write_zip(part, {{FOTA_PKG_DETAILS_MEMBER, encrypted, FILE_MODE}}, zip_method::stored);
        fs::rename(part, options.output);
    } catch (...) {
        std::error_code ignored;
        fs::remove(part, ignored);
        throw;
    }
    show_step("package", "%s, %s", printable(options.output.string()).c_str(),
              file_size_text(options.output).c_str());
}
