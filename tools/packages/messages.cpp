#include "tools/packages/messages.h"

#include <openssl/err.h>
#include <openssl/objects.h>
#include <openssl/pkcs7.h>

#include <cstdio>

#include "package/smime_message.h"
#include "tools/packages/archives.h"

namespace fs = std::filesystem;

namespace {

// A file and the message in it.
struct message_file {
    file_ptr stream;
    owned<BIO> file;
    smime_message read = {};
};

void read_message(const fs::path& path, smime_kind kind, message_file& out) {
    out.stream = open_file(path);
    out.file.reset(BIO_new_fp(out.stream.get(), BIO_NOCLOSE));
    read_smime_message(out.file.get(), kind, &out.read);
    ERR_clear_error();
    if (!out.read.message) throw bad_input("it is no S/MIME message");
}

std::string object_text(const X509_ALGOR* algorithm) {
    char text[80] = {};
    OBJ_obj2txt(text, sizeof text, algorithm->algorithm, 0);
    return text;
}

std::string serial_text(const ASN1_INTEGER* serial) {
    constexpr int LONGEST = 64;  // three times what certificates may have
    const int length = std::min(ASN1_STRING_length(serial), LONGEST);
    return hex_text(ASN1_STRING_get0_data(serial), static_cast<size_t>(length));
}

// OpenSSL only compares, but asks for a stack that it could change.
X509* find_certificate(const STACK_OF(X509) * certs, PKCS7_ISSUER_AND_SERIAL* wanted) {
    return certs == nullptr ? nullptr
                            : X509_find_by_issuer_and_serial(const_cast<STACK_OF(X509)*>(certs),
                                                             wanted->issuer, wanted->serial);
}

void write_content(const smime_message& read, const fs::path& path) {
    file_ptr stream = create_file(path, 0600);
    if (read.content) {
        char chunk[4096];
        int count = 0;
        while ((count = BIO_read(read.content.get(), chunk, sizeof chunk)) > 0)
            fwrite(chunk, 1, static_cast<size_t>(count), stream.get());
        if (read.state.is_unreadable) throw bad_input("its content cannot be read to the end");
    } else {
        PKCS7* const inner = read.message->d.sign->contents;
        if (!PKCS7_type_is_data(inner) || inner->d.data == nullptr)
            throw bad_input("the message holds no content");
        fwrite(ASN1_STRING_get0_data(inner->d.data), 1,
               static_cast<size_t>(ASN1_STRING_length(inner->d.data)), stream.get());
    }
    finish_file(std::move(stream), path);
}

}  // namespace

encryption_facts read_encryption(const fs::path& path, const STACK_OF(X509) * devices) {
    message_file input;
    read_message(path, smime_kind::encrypted, input);
    const PKCS7* const message = input.read.message.get();
    if (!PKCS7_type_is_enveloped(message)) throw bad_input("it is no encrypted message");
    const PKCS7_ENVELOPE* const envelope = message->d.enveloped;
    encryption_facts facts = {object_text(envelope->enc_data->algorithm), {}};
    for (int i = 0; i < sk_PKCS7_RECIP_INFO_num(envelope->recipientinfo); ++i) {
        PKCS7_ISSUER_AND_SERIAL* const who =
            sk_PKCS7_RECIP_INFO_value(envelope->recipientinfo, i)->issuer_and_serial;
        message_recipient recipient = {name_text(who->issuer), serial_text(who->serial), {}};
        if (devices != nullptr) recipient.is_device = find_certificate(devices, who) != nullptr;
        facts.recipients.push_back(recipient);
    }
    return facts;
}

std::vector<message_signer> read_signers(const fs::path& path, const STACK_OF(X509) * build_signers,
                                         const std::optional<fs::path>& content) {
    message_file input;
    read_message(path, smime_kind::with_signature, input);
    const PKCS7* const message = input.read.message.get();
    if (!PKCS7_type_is_signed(message)) throw bad_input("it is no signed message");
    const PKCS7_SIGNED* const data = message->d.sign;
    std::vector<message_signer> signers;
    for (int i = 0; i < sk_PKCS7_SIGNER_INFO_num(data->signer_info); ++i) {
        const PKCS7_SIGNER_INFO* const info = sk_PKCS7_SIGNER_INFO_value(data->signer_info, i);
        PKCS7_ISSUER_AND_SERIAL* const who = info->issuer_and_serial;
        message_signer signer;
        signer.issuer = name_text(who->issuer);
        signer.serial = serial_text(who->serial);
        signer.digest = object_text(info->digest_alg);
        X509* cert = find_certificate(build_signers, who);
        if (cert != nullptr) {
            signer.source = signer_source::build_signers;
        } else if ((cert = find_certificate(data->cert, who)) != nullptr) {
            signer.source = signer_source::message;
        }
        if (cert != nullptr) {
            signer.subject = name_text(X509_get_subject_name(cert));
            signer.sha256 = fingerprint_of(cert);
        }
        signers.push_back(signer);
    }
    if (content) write_content(input.read, *content);
    return signers;
}
