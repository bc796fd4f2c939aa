// What a disk was told: each write and each flush, in order, as a block layer's write log records it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct logged_write {
    uint64_t disk_offset;  // in bytes, as all numbers here
    uint64_t size;
    uint64_t log_offset;  // of its data
    uint64_t log_end;     // of the log's file, when it was over
    bool is_flush;        // all before it is on the disk; it has no data
};

// Throws std::runtime_error with one sentence when the log is not whole, or has what a replay does not know.
[[nodiscard]] std::vector<logged_write> read_write_log(const std::string& path);

// A part of the disk, as the writes leave it, in a file.
class disk_part {
public:
    // Copies the part, as it was before the first write, from `disk` to a new file at `path`.
    disk_part(const std::string& disk, uint64_t offset, uint64_t size, std::string path);

    [[nodiscard]] bool holds(const logged_write& write) const;

    // Applies a write to this part; what does not lie in it is nothing to it. `log` is the log's file.
    void apply(const logged_write& write, int log) const;

    // Another such part, with the content that this one has now.
    [[nodiscard]] disk_part copy_to(const std::string& path) const;

    [[nodiscard]] const std::string& path() const { return path_; }

private:
    disk_part(uint64_t offset, uint64_t size, std::string path);

    uint64_t offset_, size_;
    std::string path_;
};
