#include "sealing.h"

#include <openssl/pem.h>
#include <openssl/pkcs7.h>

#include "common/state_files.h"
#include "core/config.h"
#include "facts.h"
#include "tools/common/output.h"
#include "tools/common/steps.h"
#include "tools/packages/archives.h"
#include "tools/packages/keys.h"

namespace fs = std::filesystem;

namespace {

constexpr int FLAGS = PKCS7_BINARY;

// Writes the PKCS#7 message that `make` makes of `input` into the S/MIME file `output`. It is held in memory
// as a whole, so that every length is known when the first byte is written, which is what DER asks for: a
// device reads that with less work than a message in blocks.
template <typename Make>
void write_smime(const fs::path& input, const fs::path& output, const Make& make) {
    const file_ptr in = open_file(input);
    file_ptr out = create_file(output, 0600);
    const owned<BIO> in_bio(BIO_new_fp(in.get(), BIO_NOCLOSE));
    const owned<BIO> out_bio(BIO_new_fp(out.get(), BIO_NOCLOSE));
    const owned<PKCS7> message(make(in_bio.get()));
    const bool done = message && SMIME_write_PKCS7(out_bio.get(), message.get(), nullptr, FLAGS) == 1;
    if (ferror(in.get()) != 0) throw failure("Cannot read all of " + input.string());
    if (!done && ferror(out.get()) == 0) throw openssl_failure("Cannot sign or encrypt the package details");
    finish_file(std::move(out), output);
}

// A signature made elsewhere is one of the content itself: there are no attributes that it could be of.
bool add_signature(PKCS7* message, const build_signer& signer) {
    PKCS7_SIGNER_INFO* const info = PKCS7_SIGNER_INFO_new();
    if (info == nullptr ||
        PKCS7_SIGNER_INFO_set(info, signer.certificate, X509_get0_pubkey(signer.certificate), EVP_sha256()) !=
            1 ||
        PKCS7_add_signer(message, info) != 1) {
        PKCS7_SIGNER_INFO_free(info);
        return false;
    }
    // Without a key of its own it is not signed again.
    EVP_PKEY_free(info->pkey);
    info->pkey = nullptr;
    return ASN1_STRING_set(info->enc_digest, signer.signature.data(),
                           static_cast<int>(signer.signature.size())) == 1;
}

// Without the signers' certificates: devices know them, and a package of another build is not to pass by
// bringing its own. Null when OpenSSL refuses.
PKCS7* make_signed(BIO* content, const build_signers& signers) {
    owned<PKCS7> message(PKCS7_sign(nullptr, nullptr, nullptr, nullptr, FLAGS | PKCS7_PARTIAL));
    bool good = message != nullptr;
    for (const build_signer& signer : signers.all) {
        if (!good) break;
        good = signer.key ? PKCS7_sign_add_signer(message.get(), signer.certificate, signer.key.get(),
                                                  nullptr, FLAGS | PKCS7_NOCERTS) != nullptr
                          : add_signature(message.get(), signer);
    }
    return good && PKCS7_final(message.get(), content, FLAGS) == 1 ? message.release() : nullptr;
}

std::string sources_text(const build_signers& signers) {
    std::string text;
    for (const build_signer& signer : signers.all) text += (text.empty() ? "" : " and ") + signer.source;
    return text;
}

std::string subject_of(const X509* certificate) {
    return name_text(X509_get_subject_name(certificate));
}

}  // namespace

sealing_keys read_sealing_keys(const sealing_options& options, const fs::path& details) {
    sealing_keys keys = {read_build_signers(options.signing, details),
                         read_certificates(key_file(options.signing, DEVICE_CERT_FILE))};
    for (int i = 0; i < sk_X509_num(keys.devices.get()); ++i) {
        if (EVP_PKEY_base_id(X509_get0_pubkey(sk_X509_value(keys.devices.get(), i))) == EVP_PKEY_RSA)
            continue;
        throw failure(std::string(DEVICE_CERT_FILE) +
                      " has a key that is no RSA key, for which nothing can be encrypted; make one with "
                      "`fotapkg keys`");
    }
    return keys;
}

void begin_sealing_facts(const fs::path& output, json& facts) {
    facts = {{"output", output.string()}, {"size", nullptr},    {"sha256", nullptr},    {"content", nullptr},
             {"details", nullptr},        {"signers", nullptr}, {"recipients", nullptr}};
}

void seal(const fs::path& details, const sealing_options& options, const sealing_keys& keys,
          const work_folder& work, json& facts) {
    const fs::path signed_details = work / "pkg_details.zip.signed",
                   encrypted = work / FOTA_PKG_DETAILS_MEMBER;
    // Two layers of base64.
    const auto grown = [](const fs::path& from) { return fs::file_size(from) / 3 * 4; };
    set_doing("signing", growth_of(signed_details, grown(details)));
    write_smime(details, signed_details, [&](BIO* in) { return make_signed(in, keys.signers); });
    show_step("signed", file_size_text(signed_details) + ", with " + sources_text(keys.signers));
    facts["signers"] = json::array();
    std::string problem;
    for (const build_signer& signer : keys.signers.all) {
        facts["signers"].push_back(subject_of(signer.certificate));
        if (problem.empty()) problem = piece_key_problem(X509_get0_pubkey(signer.certificate));
    }

    set_doing("encrypting", growth_of(encrypted, grown(signed_details)));
    write_smime(signed_details, encrypted,
                [&](BIO* in) { return PKCS7_encrypt(keys.devices.get(), in, EVP_aes_256_cbc(), FLAGS); });
    show_step("encrypted", file_size_text(encrypted) + ", AES-256 for " + subjects_of(keys.devices.get()));
    facts["recipients"] = json::array();
    for (int i = 0; i < sk_X509_num(keys.devices.get()); ++i)
        facts["recipients"].push_back(subject_of(sk_X509_value(keys.devices.get(), i)));

    set_doing("writing the package");
    // The message is base64 text: deflating takes a quarter of it away.
    write_zip(options.output, {{FOTA_PKG_DETAILS_MEMBER, whole_file(encrypted)}},
              options.store ? zip_method::stored : zip_method::deflated, options.limit);
    const uint64_t size = fs::file_size(options.output);
    show_step("package", options.output.string() + ", " + size_text(size));
    if (size > FOTA_DEFAULT_PKG_SIZE) {
        show_step("", "larger than " + size_text(FOTA_DEFAULT_PKG_SIZE) +
                          ", the limit of devices unless their configuration sets another");
    }
    if (!problem.empty()) show_step("", problem + "; `fotapkg bundle` wants another --key");
    add_file(options.output, facts);
}
