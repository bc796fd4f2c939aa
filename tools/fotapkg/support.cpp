#include "support.h"

#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <system_error>

namespace fs = std::filesystem;

failure openssl_failure(const std::string& what) {
    const char* reason = ERR_reason_error_string(ERR_peek_last_error());
    ERR_clear_error();
    return failure(what + (reason != nullptr ? std::string(" (") + reason + ")" : std::string()));
}

failure system_failure(const std::string& what) {
    return failure(what + ": " + strerror(errno));
}

void show_step(const char* step, const char* format, ...) {
    printf("%-14s ", step);
    va_list args;
    va_start(args, format);
    vprintf(format, args);
    va_end(args);
    putchar('\n');
    fflush(stdout);
}

std::string printable(std::string_view text) {
    std::string out;
    for (const char c : text) {
        if (c >= ' ' && c <= '~') {
            out += c;
            continue;
        }
        char escaped[8];
        snprintf(escaped, sizeof escaped, "\\x%02x", static_cast<unsigned char>(c));
        out += escaped;
    }
    return out;
}

std::string size_text(uint64_t bytes) {
    if (bytes < 1024) return std::to_string(bytes) + " bytes";
    double value = static_cast<double>(bytes) / 1024;
    const char* unit = "KiB";
    for (const char* next : {"MiB", "GiB"}) {
        if (value < 1024) break;
        value /= 1024;
        unit = next;
    }
    char text[32];
    snprintf(text, sizeof text, "%.1f %s", value, unit);
    return text;
}

work_folder::work_folder() {
    const char* base = getenv("TMPDIR");
    std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/fotapkg-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) {
        throw system_failure("No work folder can be made as " + pattern +
                             "; set TMPDIR to a folder with room");
    }
    path_ = pattern;
}

work_folder::~work_folder() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
}

file_ptr create_file(const fs::path& path, mode_t mode) {
    unlink(path.c_str());
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
    if (fd < 0) throw system_failure("Cannot create " + path.string());
    fchmod(fd, mode);
    file_ptr stream(fdopen(fd, "w"));
    if (!stream) {
        close(fd);
        throw system_failure("Cannot write " + path.string());
    }
    return stream;
}

void finish_file(file_ptr stream, const fs::path& path) {
    const bool complete = ferror(stream.get()) == 0;
    if (fclose(stream.release()) != 0 || !complete) {
        throw failure("Cannot write all of " + path.string() + "; see that there is room on its disk");
    }
}

void write_file(const fs::path& path, std::string_view content, mode_t mode) {
    file_ptr stream = create_file(path, mode);
    fwrite(content.data(), 1, content.size(), stream.get());
    finish_file(std::move(stream), path);
}

file_ptr open_file(const fs::path& path) {
    file_ptr stream = open_for_reading(path.c_str());
    if (!stream) throw system_failure("Cannot read " + path.string());
    struct stat info = {};
    if (fstat(fileno(stream.get()), &info) != 0 || !S_ISREG(info.st_mode)) {
        throw failure(path.string() + " is not a regular file; give one that is");
    }
    return stream;
}

owned<X509> read_certificate(const fs::path& path) {
    const file_ptr stream = open_file(path);
    owned<X509> cert(PEM_read_X509(stream.get(), nullptr, nullptr, nullptr));
    if (!cert) throw openssl_failure(path.string() + " holds no certificate; make one with `fotapkg keys`");
    return cert;
}

std::string subject_of(X509* cert) {
    const owned<BIO> bio(BIO_new(BIO_s_mem()));
    X509_NAME_print_ex(bio.get(), X509_get_subject_name(cert), 0, XN_FLAG_RFC2253);
    char* data = nullptr;
    const long length = BIO_get_mem_data(bio.get(), &data);
    return printable(std::string_view(data, static_cast<size_t>(length)));
}
