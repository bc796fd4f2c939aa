#include "replay/write_log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace {

constexpr uint64_t MAGIC = 0x6a736677736872;
constexpr uint64_t FLUSH = 1, FORCED = 2, DISCARD = 4;  // flags of an entry
constexpr size_t BLOCK_SIZE = 1 << 20;

struct log_head {
    uint64_t magic, version, entries;
    uint32_t sector_size;
};

struct log_entry {
    uint64_t sector, sectors, flags, data_size;
};

struct descriptor {
    int fd;
    descriptor(const std::string& path, int flags) : fd(open(path.c_str(), flags | O_CLOEXEC, 0600)) {
        if (fd < 0) throw std::runtime_error("cannot open " + path + ": " + std::strerror(errno));
    }
    ~descriptor() { close(fd); }
    descriptor(const descriptor&) = delete;
    descriptor& operator=(const descriptor&) = delete;
};

void read_at(int fd, uint64_t offset, void* to, size_t size) {
    if (pread(fd, to, size, static_cast<off_t>(offset)) != static_cast<ssize_t>(size)) {
        throw std::runtime_error("the disk or its log ends too soon");
    }
}

void write_at(int fd, uint64_t offset, const void* from, size_t size) {
    if (pwrite(fd, from, size, static_cast<off_t>(offset)) != static_cast<ssize_t>(size)) {
        throw std::runtime_error(std::string("cannot write a part of the disk: ") + std::strerror(errno));
    }
}

// Zeros stay holes.
void copy_bytes(int from, uint64_t from_offset, int to, uint64_t to_offset, uint64_t size) {
    std::vector<char> block(BLOCK_SIZE);
    for (uint64_t done = 0; done < size;) {
        const size_t part = std::min<uint64_t>(block.size(), size - done);
        read_at(from, from_offset + done, block.data(), part);
        const bool is_zero = block[0] == 0 && std::memcmp(block.data(), block.data() + 1, part - 1) == 0;
        if (!is_zero) write_at(to, to_offset + done, block.data(), part);
        done += part;
    }
}

}  // namespace

std::vector<logged_write> read_write_log(const std::string& path) {
    const descriptor log(path, O_RDONLY);
    log_head head = {};
    read_at(log.fd, 0, &head, sizeof head);
    if (head.magic != MAGIC || head.sector_size == 0) throw std::runtime_error(path + " is no write log");
    std::vector<logged_write> writes;
    uint64_t offset = head.sector_size;
    for (uint64_t i = 0; i < head.entries; ++i) {
        log_entry entry = {};
        read_at(log.fd, offset, &entry, sizeof entry);
        offset += head.sector_size;
        if ((entry.flags & (FORCED | DISCARD)) != 0)
            throw std::runtime_error("unknown kind of write in the log");
        const uint64_t size = entry.sectors * head.sector_size;
        writes.push_back(
            {entry.sector * head.sector_size, size, offset, offset + size, (entry.flags & FLUSH) != 0});
        offset += size;
    }
    return writes;
}

disk_part::disk_part(uint64_t offset, uint64_t size, std::string path)
    : offset_(offset), size_(size), path_(std::move(path)) {
    const descriptor file(path_, O_RDWR | O_CREAT | O_TRUNC);
    if (ftruncate(file.fd, static_cast<off_t>(size_)) != 0) throw std::runtime_error("cannot make " + path_);
}

disk_part::disk_part(const std::string& disk, uint64_t offset, uint64_t size, std::string path)
    : disk_part(offset, size, std::move(path)) {
    copy_bytes(descriptor(disk, O_RDONLY).fd, offset, descriptor(path_, O_WRONLY).fd, 0, size);
}

bool disk_part::holds(const logged_write& write) const {
    return write.size > 0 && write.disk_offset < offset_ + size_ && write.disk_offset + write.size > offset_;
}

void disk_part::apply(const logged_write& write, int log) const {
    if (!holds(write)) return;
    const uint64_t begin = std::max(write.disk_offset, offset_);
    const uint64_t end = std::min(write.disk_offset + write.size, offset_ + size_);
    std::vector<char> data(end - begin);
    read_at(log, write.log_offset + (begin - write.disk_offset), data.data(), data.size());
    write_at(descriptor(path_, O_WRONLY).fd, begin - offset_, data.data(), data.size());
}

disk_part disk_part::copy_to(const std::string& path) const {
    disk_part copy(offset_, size_, path);
    const descriptor from(path_, O_RDONLY), to(path, O_WRONLY);
    for (off_t at = 0; (at = lseek(from.fd, at, SEEK_DATA)) >= 0;) {
        const off_t end = lseek(from.fd, at, SEEK_HOLE);
        copy_bytes(from.fd, static_cast<uint64_t>(at), to.fd, static_cast<uint64_t>(at),
                   static_cast<uint64_t>(end - at));
        at = end;
    }
    return copy;
}
