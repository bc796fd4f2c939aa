#include "package/crypto_memory.h"

#include <openssl/crypto.h>
#include <sys/mman.h>

#include <cstdint>
#include <cstdlib>
#include <mutex>

// While libcrypto reads a message it makes room step by step: it takes a block a third larger, copies, wipes
// and frees the old one. From malloc() that costs twice the memory, in holes that stay with the process, and
// most of the time goes into page faults. Here the block that was freed last is stretched to become the next
// one, so that only new pages are paid for, and when no large block is in use all of them are gone.

namespace {

struct block {
    void* start = nullptr;
    size_t size = 0;  // whole pages
};

constexpr size_t LARGE = 256UL * 1024;
constexpr uintptr_t PAGE = 4096;  // or a multiple: mappings begin at multiples of it on every system

std::mutex blocks_mutex;  // guards the two below
block blocks[16];         // in use; more than enough, and what does not fit comes from malloc()
block spare;

block* find_block(const void* start) {
    for (block& known : blocks) {
        if (known.start == start) return &known;
    }
    return nullptr;
}

block* find_large(const void* memory) {
    const bool may_be_large = memory != nullptr && reinterpret_cast<uintptr_t>(memory) % PAGE == 0;
    return may_be_large ? find_block(memory) : nullptr;
}

void give_back(block& unused) {
    if (unused.start != nullptr) munmap(unused.start, unused.size);
    unused = {};
}

// Makes a block, empty or not, at least `size` bytes long; its contents stay. False without memory, and
// nothing has changed.
bool stretch(block& stretched, size_t size) {
    if (stretched.size >= size) return true;
    size = (size + PAGE - 1) / PAGE * PAGE;
    void* start = stretched.start == nullptr
                      ? mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)
                      : mremap(stretched.start, stretched.size, size, MREMAP_MAYMOVE);
    if (start == MAP_FAILED) return false;
    madvise(start, size, MADV_HUGEPAGE);  // where the system has them: fewer page faults still
    stretched = {start, size};
    return true;
}

void* take(size_t size, const char* /*file*/, int /*line*/) {
    if (size == 0) return nullptr;
    if (size < LARGE) return malloc(size);
    const std::lock_guard guard(blocks_mutex);
    block* free_entry = find_block(nullptr);
    if (free_entry == nullptr) return malloc(size);
    if (!stretch(spare, size)) {
        give_back(spare);
        if (!stretch(spare, size)) return nullptr;
    }
    *free_entry = spare;
    spare = {};
    return free_entry->start;
}

void release(void* memory, const char* /*file*/, int /*line*/) {
    {
        const std::lock_guard guard(blocks_mutex);
        if (block* freed = find_large(memory)) {
            block& smaller = freed->size < spare.size ? *freed : spare;
            give_back(smaller);
            if (freed->start != nullptr) spare = *freed;
            *freed = {};
            bool in_use = false;
            for (const block& known : blocks) in_use = in_use || known.start != nullptr;
            if (!in_use) give_back(spare);
            return;
        }
    }
    free(memory);
}

void* resize(void* memory, size_t size, const char* file, int line) {
    if (memory == nullptr) return take(size, file, line);
    if (size == 0) {
        release(memory, file, line);
        return nullptr;
    }
    const std::lock_guard guard(blocks_mutex);
    block* resized = find_large(memory);
    if (resized == nullptr) return realloc(memory, size);
    return stretch(*resized, size) ? resized->start : nullptr;
}

}  // namespace

bool use_crypto_memory() {
    return CRYPTO_set_mem_functions(take, resize, release) == 1;
}
