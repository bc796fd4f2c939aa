#include <archive.h>
#include <archive_entry.h>
#include <fcntl.h>
#include <locale.h>
#include <sys/stat.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <functional>
#include <memory>

#include "tools/common/output.h"
#include "tools/common/steps.h"
#include "tools/packages/archives.h"

namespace fs = std::filesystem;

namespace {

// The first moment that a zip archive can name.
constexpr time_t FIXED_TIME = 315532800;

constexpr size_t CHUNK_SIZE = size_t{64} * 1024;

struct archive_deleter {
    void operator()(archive* a) const { archive_free(a); }
    void operator()(archive_entry* entry) const { archive_entry_free(entry); }
};
using archive_ptr = std::unique_ptr<archive, archive_deleter>;
using entry_ptr = std::unique_ptr<archive_entry, archive_deleter>;

std::string with_reason(const char* what, archive* a) {
    const char* reason = archive_error_string(a);
    return reason != nullptr ? what + std::string(": ") + reason : what;
}

// Errors stay with the stream, where finish_file finds them: libarchive leaks memory when its writer fails.
la_ssize_t write_to_stream(archive* /*a*/, void* stream, const void* data, size_t size) {
    fwrite(data, 1, size, static_cast<FILE*>(stream));
    return static_cast<la_ssize_t>(size);
}

void add_entry(archive* a, FILE* out, const zip_entry& item, const std::function<void(size_t)>& on_data) {
    const entry_ptr entry(archive_entry_new());
    archive_entry_set_pathname(entry.get(), item.name.c_str());
    archive_entry_set_filetype(entry.get(), AE_IFREG);
    archive_entry_set_perm(entry.get(), item.mode);
    archive_entry_set_size(entry.get(), static_cast<la_int64_t>(item.data.size));
    archive_entry_set_mtime(entry.get(), FIXED_TIME, 0);
    if (archive_write_header(a, entry.get()) != ARCHIVE_OK)
        throw failure(with_reason("Cannot write a zip archive", a));
    read_range(item.data, [&](const char* data, size_t size) {
        if (ferror(out) == 0 && archive_write_data(a, data, size) < 0)
            throw failure(with_reason("Cannot write a zip archive", a));
        on_data(size);
    });
}

// Writes the data of `entry`, which was read last, to `destination`. Whether it can be run stays.
void extract_data(archive* a, archive_entry* entry, const fs::path& destination) {
    file_ptr stream = create_file(destination, 0600 | (archive_entry_perm(entry) & S_IXUSR));
    std::vector<char> chunk(CHUNK_SIZE);
    la_ssize_t count = 0;
    while ((count = archive_read_data(a, chunk.data(), chunk.size())) > 0) {
        if (fwrite(chunk.data(), 1, static_cast<size_t>(count), stream.get()) != static_cast<size_t>(count))
            break;
    }
    if (count < 0) throw bad_input(with_reason("a member is damaged", a));
    finish_file(std::move(stream), destination);
}

// libarchive refuses names outside ASCII unless the locale can express them.
class utf8_names {
public:
    utf8_names() : mine_(newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr)) {
        if (mine_ != nullptr) before_ = uselocale(mine_);
    }
    ~utf8_names() {
        if (mine_ == nullptr) return;
        uselocale(before_);
        freelocale(mine_);
    }
    utf8_names(const utf8_names&) = delete;
    utf8_names& operator=(const utf8_names&) = delete;

private:
    locale_t mine_, before_ = nullptr;
};

void check_name(const std::string& name) {
    if (!stays_inside(name)) throw bad_input("the member " + name + " would lie outside the staging folder");
    const fs::path path = name;
    const bool fits = std::all_of(path.begin(), path.end(),
                                  [](const fs::path& part) { return part.native().size() <= NAME_MAX; });
    if (!fits || name.size() >= PATH_MAX / 2)
        throw bad_input("the name of the member " + name.substr(0, 40) + "... is too long");
    const auto changed = [](char c) {
        return static_cast<unsigned char>(c) < ' ' || c == '\x7f' || c == ';';
    };
    if (std::any_of(name.begin(), name.end(), changed))
        throw bad_input("the member " + name + " would be unpacked under another name");
}

// Calls `visit` for each entry, with its name.
void read_zip(const fs::path& zip,
              const std::function<void(archive*, archive_entry*, const std::string&)>& visit) {
    const utf8_names locale;
    const file_ptr stream = open_file(zip);
    const archive_ptr a(archive_read_new());
    // By the directory at the archive's end, as the device's unzip does.
    archive_read_support_format_zip_seekable(a.get());
    if (archive_read_open_fd(a.get(), fileno(stream.get()), CHUNK_SIZE) != ARCHIVE_OK) {
        throw bad_input(with_reason("it is not a zip archive", a.get()));
    }
    archive_entry* entry = nullptr;
    int result = ARCHIVE_OK;
    while ((result = archive_read_next_header(a.get(), &entry)) == ARCHIVE_OK) {
        const char* name = archive_entry_pathname(entry);
        if (name == nullptr || archive_entry_is_encrypted(entry) != 0) {
            throw bad_input("a member has an unreadable name or a password");
        }
        visit(a.get(), entry, name);
    }
    if (result != ARCHIVE_EOF) throw bad_input(with_reason("it is damaged", a.get()));
}

}  // namespace

void write_zip(const fs::path& zip, const std::vector<zip_entry>& entries, zip_method method,
               uint64_t largest) {
    make_complete(zip, [&](const fs::path& part) {
        file_ptr stream = create_file(part, 0644);
        const archive_ptr a(archive_write_new());
        archive_write_set_format_zip(a.get());
        if (method == zip_method::stored) archive_write_zip_set_compression_store(a.get());
        archive_write_set_bytes_in_last_block(a.get(), 1);  // no padding
        archive_write_open(a.get(), stream.get(), nullptr, write_to_stream, nullptr);
        uint64_t total = 0, done = 0;
        for (const zip_entry& entry : entries) total += entry.data.size;
        const auto count = [&](size_t bytes) { set_done(done += bytes, total); };
        for (const zip_entry& entry : entries) {
            if (ferror(stream.get()) == 0) add_entry(a.get(), stream.get(), entry, count);
        }
        if (archive_write_close(a.get()) != ARCHIVE_OK)
            throw failure(with_reason("Cannot write a zip archive", a.get()));
        finish_file(std::move(stream), part);
        const uint64_t size = fs::file_size(part);
        if (size <= largest) return;
        throw failure(zip.string() + " would have " + size_text(size) + ", more than the " +
                      size_text(largest) +
                      " that devices take; leave something out, or raise their limit and then --limit");
    });
}

std::vector<zip_member> list_members(const fs::path& zip) {
    std::vector<zip_member> members;
    read_zip(zip, [&](archive*, archive_entry* entry, const std::string& name) {
        members.push_back({name, static_cast<uint64_t>(archive_entry_size(entry)),
                           archive_entry_filetype(entry) == AE_IFREG});
    });
    return members;
}

namespace {

bool has_member(const fs::path& zip, const std::string& member) {
    try {
        const std::vector<zip_member> members = list_members(zip);
        return std::any_of(members.begin(), members.end(),
                           [&](const zip_member& m) { return m.is_file && m.name == member; });
    } catch (const bad_input&) {
        return false;
    }
}

void extract_member(const fs::path& zip, const std::string& member, const fs::path& destination) {
    bool found = false;
    read_zip(zip, [&](archive* a, archive_entry* entry, const std::string& name) {
        if (name != member || archive_entry_filetype(entry) != AE_IFREG) return;
        extract_data(a, entry, destination);
        found = true;
    });
    if (!found) throw bad_input("it has no member " + member + " at its root");
}

unpacked_zip extract_all(const fs::path& zip, const fs::path& folder) {
    unpacked_zip unpacked;
    read_zip(zip, [&](archive* a, archive_entry* entry, const std::string& name) {
        check_name(name);
        const fs::path destination = folder / name;
        const bool is_folder = archive_entry_filetype(entry) == AE_IFDIR;
        std::error_code error;
        fs::create_directories(is_folder ? destination : destination.parent_path(), error);
        if (error || (!is_folder && fs::is_directory(destination)))
            throw bad_input("the member " + name + " cannot be made beside the others");
        if (is_folder) return;
        if (archive_entry_filetype(entry) == AE_IFLNK) {
            // As unzip does: until the end, so that nothing lies behind the link.
            (void)create_file(destination, 0600);
            unpacked.links.push_back(name);
            return;
        }
        extract_data(a, entry, destination);
        std::erase(unpacked.links, name);
        ++unpacked.files;
    });
    for (const std::string& link : unpacked.links) fs::remove(folder / link);
    return unpacked;
}

}  // namespace

const archive_reader LIBRARY_READER = {has_member, extract_member, extract_all, test_by_unpacking};
