#include "package/smime_message.h"

#include <openssl/err.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <initializer_list>

namespace {

constexpr size_t HEADER_LIMIT = 4096;          // bytes, of all MIME header lines
constexpr ptrdiff_t HEADER_LINE_LIMIT = 1000;  // libcrypto cuts longer ones
constexpr uint64_t CUT_BYTES = 4;        // of the content, in a message that stands for one that is cut short
constexpr uint64_t CUT_LINE_BYTES = 48;  // that libcrypto may leave out where a message is cut short

enum tag : unsigned char {
    END_OF_CONTENTS = 0x00,
    INTEGER = 0x02,
    OCTET_STRING = 0x04,
    OBJECT = 0x06,
    PIECES = 0x24,  // an octet string in pieces
    SEQUENCE = 0x30,
    SET = 0x31,
    CONTEXT_0_PLAIN = 0x80,
    CONTEXT_0 = 0xA0,
    CONTEXT_1 = 0xA1,
};
constexpr unsigned char CONSTRUCTED = 0x20;  // in a tag: the body is made of values

using object_id = unsigned char[11];
constexpr object_id ENVELOPED_DATA = {OBJECT, 9, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 1, 7, 3};
constexpr object_id SIGNED_DATA = {OBJECT, 9, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 1, 7, 2};
constexpr object_id DATA = {OBJECT, 9, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 1, 7, 1};

// The message without its content: far more than a few recipients, signers and certificates need.
struct short_message {
    unsigned char bytes[32768];
    size_t size;
};
short_message without_content;

// One value in the structure of a message: header, then body.
struct value {
    unsigned char tag = 0;
    bool is_indefinite = false;  // an end mark follows the body
    uint64_t body = 0, end = 0;  // positions; `end` when it is not indefinite
};

// Walks through the structure of a message and takes along what is not content. False at the first thing that
// is out of the ordinary.
struct walk {
    const base64_lines& lines;
    short_message& taken;
    uint64_t at = 0;
    uint64_t end = UINT64_MAX;  // of the innermost value of a known length around `at`
    bool is_cut_short = false;  // a value does not end before the message does
    value content = {};         // the octet string
    value first_piece = {};     // of it; the whole, when it is not in pieces
};

bool take(walk& w, std::initializer_list<unsigned char> bytes) {
    if (sizeof w.taken.bytes - w.taken.size < bytes.size()) return false;
    std::copy(bytes.begin(), bytes.end(), w.taken.bytes + w.taken.size);
    w.taken.size += bytes.size();
    return true;
}

// Lengths of up to four bytes, and tags of one. False when there is no such header.
bool read_value(const base64_lines& lines, uint64_t at, value* out) {
    unsigned char header[6] = {};
    const ssize_t count = read_decoded(lines, at, header, sizeof header);
    if (count < 2 || (header[0] & 0x1F) == 0x1F) return false;
    const size_t more = (header[1] & 0x80) != 0 ? header[1] & 0x7F : 0;
    if (more > 4 || static_cast<size_t>(count) < 2 + more) return false;
    uint64_t length = more > 0 ? 0 : header[1] & 0x7F;
    for (size_t i = 0; i < more; ++i) length = length << 8 | header[2 + i];
    *out = {header[0], header[1] == 0x80, at + 2 + more, at + 2 + more + length};
    return length <= INT32_MAX;
}

bool is_next(const walk& w, unsigned char tag) {
    value next;
    return read_value(w.lines, w.at, &next) && next.tag == tag;
}

bool enter(walk& w, unsigned char tag, value* out) {
    if (!read_value(w.lines, w.at, out) || out->tag != tag) return false;
    w.at = out->body;
    if (out->is_indefinite) return (tag & CONSTRUCTED) != 0;
    if (out->end > w.end) return false;
    if (out->end <= w.lines.decoded_size) return true;
    // libcrypto does not decode all of a line that is cut: it may have come no further than this header, of
    // which it has other things to say.
    w.is_cut_short = w.is_cut_short || out->body + CUT_LINE_BYTES <= w.lines.decoded_size;
    return w.is_cut_short;
}

// Two bytes: a longer way to say "no length" is none to libcrypto.
bool pass_end_mark(walk& w) {
    const uint64_t start = w.at;
    value mark;
    return enter(w, END_OF_CONTENTS, &mark) && mark.body == start + 2 && mark.end == mark.body;
}

// A value whose parts are looked at one by one, and taken along by themselves. `outer_end` keeps the end of
// what is around it.
struct opened {
    value self;
    uint64_t outer_end = 0;
};

bool open(walk& w, unsigned char tag, opened* out) {
    if (!enter(w, tag, &out->self)) return false;
    out->outer_end = w.end;
    if (!out->self.is_indefinite) w.end = out->self.end;
    return true;
}

bool close(walk& w, const opened& ended) {
    w.end = ended.outer_end;
    if (!ended.self.is_indefinite) return w.at == ended.self.end;
    return pass_end_mark(w);
}

// Whatever the lengths were, they are left open here.
bool open_and_take(walk& w, unsigned char tag, opened* out) {
    return open(w, tag, out) && take(w, {tag, 0x80});
}

bool close_and_take(walk& w, const opened& ended) {
    return close(w, ended) && take(w, {END_OF_CONTENTS, 0});
}

bool take_whole(walk& w, unsigned char tag) {
    const uint64_t start = w.at;
    value whole;
    if (!enter(w, tag, &whole) || whole.is_indefinite) return false;
    const auto size = static_cast<size_t>(whole.end - start);  // at most 2 GiB
    if (size > sizeof w.taken.bytes - w.taken.size) return false;
    if (read_decoded(w.lines, start, w.taken.bytes + w.taken.size, size) != static_cast<ssize_t>(size))
        return false;
    w.taken.size += size;
    w.at = whole.end;
    return true;
}

bool take_object(walk& w, const object_id& id) {
    const size_t start = w.taken.size;
    return take_whole(w, OBJECT) && w.taken.size - start == sizeof id &&
           memcmp(w.taken.bytes + start, id, sizeof id) == 0;
}

bool skip_content(walk& w, unsigned char plain_tag, unsigned char pieces_tag) {
    if (!is_next(w, pieces_tag)) {
        if (!enter(w, plain_tag, &w.content)) return false;
        w.first_piece = w.content;
        w.at = w.content.end;
        return true;
    }
    if (!enter(w, pieces_tag, &w.content) || !w.content.is_indefinite) return false;
    value piece;
    for (uint64_t count = 0; is_next(w, OCTET_STRING); ++count) {
        // Nobody makes many small ones; they would take long to walk through.
        if (count > 64 + w.at / 256 || !enter(w, OCTET_STRING, &piece)) return false;
        if (count == 0) w.first_piece = piece;
        w.at = piece.end;
    }
    return pass_end_mark(w);
}

bool walk_message(walk& w, smime_kind kind) {
    const bool is_encrypted = kind == smime_kind::encrypted;
    opened message, wrapper, data, info, content;
    if (!open_and_take(w, SEQUENCE, &message) ||
        !take_object(w, is_encrypted ? ENVELOPED_DATA : SIGNED_DATA) ||
        !open_and_take(w, CONTEXT_0, &wrapper) || !open_and_take(w, SEQUENCE, &data) ||
        !take_whole(w, INTEGER) || !take_whole(w, SET) ||  // recipients, or digests
        !open_and_take(w, SEQUENCE, &info) || !take_object(w, DATA)) {
        return false;
    }
    if (is_encrypted) {
        // A byte instead of the content: PKCS7_decrypt() looks at nothing without any, and libcrypto takes an
        // empty value of this tag for the end mark of what is around it.
        if (!take_whole(w, SEQUENCE) || !take(w, {CONTEXT_0_PLAIN, 1, 0}) ||
            !skip_content(w, CONTEXT_0_PLAIN, CONTEXT_0) ||
            (!w.content.is_indefinite && w.content.end == w.content.body)) {
            return false;
        }
    } else if (!open(w, CONTEXT_0, &content) || !skip_content(w, OCTET_STRING, PIECES) ||
               !close(w, content)) {
        return false;
    }
    if (!close_and_take(w, info)) return false;
    if (!is_encrypted) {
        if (is_next(w, CONTEXT_0) && !take_whole(w, CONTEXT_0)) return false;  // certificates
        if (is_next(w, CONTEXT_1) && !take_whole(w, CONTEXT_1)) return false;  // revocation lists
        if (!take_whole(w, SET)) return false;                                 // signers
    }
    return close_and_take(w, data) && close_and_take(w, wrapper) && close_and_take(w, message) &&
           w.at == w.lines.decoded_size && w.lines.ends_evenly;
}

// The MIME header, its blank line included, at the start of the file: its size, or 0 when there is none that
// ends before `text` does.
size_t read_header(int fd, char (&text)[HEADER_LIMIT]) {
    const ssize_t count = pread(fd, text, sizeof text, 0);
    if (count <= 0 || memchr(text, 0, static_cast<size_t>(count)) != nullptr) return 0;
    const char* const end = text + count;
    for (const char* line = text; line < end;) {
        const char* const line_end = std::find(line, end, '\n');
        if (line_end == end || line_end - line > HEADER_LINE_LIMIT) return 0;
        if (line_end == line || line[0] == '\r') {
            return line_end - line < 2 ? static_cast<size_t>(line_end + 1 - text) : 0;
        }
        line = line_end + 1;
    }
    return 0;
}

// What libcrypto makes of this structure below that header.
owned<PKCS7> parse_message(const char* header, size_t header_size, const short_message& structure) {
    const owned<BIO> text(BIO_new(BIO_s_mem()));
    owned<BIO> encoder(BIO_new(BIO_f_base64()));
    if (!text || !encoder) return nullptr;
    BIO_set_mem_eof_return(text.get(), 0);
    BIO_write(text.get(), header, static_cast<int>(header_size));
    BIO_push(encoder.get(), text.get());
    BIO_write(encoder.get(), structure.bytes, static_cast<int>(structure.size));
    BIO_flush(encoder.get());
    BIO_pop(encoder.get());
    BIO* detached = nullptr;
    owned<PKCS7> message(SMIME_read_PKCS7(text.get(), &detached));
    if (detached != nullptr) {
        BIO_free_all(detached);
        return nullptr;
    }
    return message;
}

// False when there is none: the content has ended, or cannot be read on. Each piece was looked at before.
bool enter_next_piece(smime_content& content) {
    value piece;
    content.is_unreadable = !read_value(content.lines, content.at, &piece);
    if (content.is_unreadable || piece.tag != OCTET_STRING) return false;
    content.at = piece.body;
    content.left = piece.end - piece.body;
    return true;
}

// Returns the bytes read, 0 at the end of the content, or -1.
int read_content(BIO* stream, char* out, int size) {
    smime_content& content = *static_cast<smime_content*>(BIO_get_data(stream));
    if (size <= 0) return 0;
    while (content.left == 0) {
        if (!content.is_in_pieces || !enter_next_piece(content)) return content.is_unreadable ? -1 : 0;
    }
    const uint64_t wanted = std::min<uint64_t>(content.left, static_cast<uint64_t>(size));
    const ssize_t count = read_decoded(content.lines, content.at, reinterpret_cast<unsigned char*>(out),
                                       static_cast<size_t>(wanted));
    content.is_unreadable = count <= 0;
    if (content.is_unreadable) return -1;
    content.at += static_cast<uint64_t>(count);
    content.left -= static_cast<uint64_t>(count);
    return static_cast<int>(count);
}

long control_content(BIO* /*stream*/, int command, long /*number*/, void* /*pointer*/) {
    return command == BIO_CTRL_FLUSH ? 1 : 0;
}

owned<BIO> make_stream(smime_content* content) {
    static BIO_METHOD* const method = [] {
        BIO_METHOD* made = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "content of a message");
        if (made != nullptr) {
            BIO_meth_set_read(made, read_content);
            BIO_meth_set_ctrl(made, control_content);
        }
        return made;
    }();
    owned<BIO> stream(method != nullptr ? BIO_new(method) : nullptr);
    if (stream) {
        BIO_set_data(stream.get(), content);
        BIO_set_init(stream.get(), 1);
    }
    return stream;
}

// Reads the message without its content. False: libcrypto has to read it whole.
bool read_without_content(int fd, smime_kind kind, smime_message* out) {
    char header[HEADER_LIMIT];
    const size_t header_size = read_header(fd, header);
    base64_lines lines;
    if (header_size == 0 || !find_base64_lines(fd, header_size, &lines)) return false;

    without_content.size = 0;
    walk w = {.lines = lines, .taken = without_content};
    const bool is_ordinary = walk_message(w, kind);
    if (w.is_cut_short) {
        // Its start, which ends within the content, is enough to be told what is wrong, in the same words.
        const size_t size = static_cast<size_t>(w.first_piece.body + CUT_BYTES);
        if (size >= std::min<uint64_t>(w.first_piece.end, sizeof without_content.bytes)) return false;
        if (read_decoded(lines, 0, without_content.bytes, size) != static_cast<ssize_t>(size)) return false;
        without_content.size = size;
        return !parse_message(header, header_size, without_content);
    }
    if (!is_ordinary) return false;

    ERR_set_mark();
    out->message = parse_message(header, header_size, without_content);
    ERR_pop_to_mark();
    if (!out->message) return false;
    out->state = {.lines = lines,
                  .at = w.content.body,
                  .left = w.content.is_indefinite ? 0 : w.content.end - w.content.body,
                  .is_in_pieces = w.content.is_indefinite};
    out->content = make_stream(&out->state);
    out->is_streamed = true;
    return out->content != nullptr;
}

}  // namespace

void read_smime_message(BIO* input, smime_kind kind, smime_message* out) {
    FILE* file = nullptr;
    if (BIO_get_fp(input, &file) == 1 && read_without_content(fileno(file), kind, out)) return;
    out->is_streamed = false;
    BIO* detached = nullptr;
    out->message.reset(SMIME_read_PKCS7(input, kind == smime_kind::with_signature ? &detached : nullptr));
    out->content.reset(detached);
}
