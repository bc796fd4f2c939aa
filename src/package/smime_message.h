// S/MIME messages (RFC 5751, PKCS #7), read without their content in memory.
//
// In both kinds what one needs to begin with lies before the content, and the rest behind it. Of a message of
// ordinary form the daemon takes out all but the content, so that libcrypto has a message with the content
// beside it, and can read that as a stream. Ordinary is what builders make: base64 lines of one length up to
// 76; DER, or the streamed BER that openssl writes; content of the type "data". Any other message, and one
// that is no message, libcrypto reads whole, and its word counts. Whatever is accepted here, libcrypto
// accepts too, and with the same content.
#pragma once

#include <openssl/bio.h>
#include <openssl/pkcs7.h>

#include <cstdint>

#include "package/base64_lines.h"
#include "package/openssl_objects.h"

enum class smime_kind { encrypted, with_signature };

// Where the content of a message lies, and how far it was read.
struct smime_content {
    base64_lines lines;
    uint64_t at = 0;             // of what they decode to: the next byte
    uint64_t left = 0;           // bytes of the piece that `at` lies in
    bool is_in_pieces = false;   // each with a header of its own
    bool is_unreadable = false;  // the rest of it
};

struct smime_message {
    owned<PKCS7> message;      // null: there is none; the reasons lie in OpenSSL's queue
    bool is_streamed = false;  // `message` comes without its content
    smime_content state;       // of the stream
    owned<BIO> content;        // the content of a message that comes without; may be null
};

// Reads a message from `input`, a BIO on a file that begins with it. What it gives is used where it lies, and
// while `input` is open. Main thread only: one static buffer.
void read_smime_message(BIO* input, smime_kind kind, smime_message* out);
