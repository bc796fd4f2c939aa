#include "package/crypto_memory.h"

#include <openssl/crypto.h>
#include <sys/mman.h>

#include <cstdint>
#include <cstdlib>
#include <mutex>

// While libcrypto reads a message it makes room step by step: it takes a block a third larger, copies, wipes
// and frees the old one. From malloc() that costs twice the memory, in holes that stay with the process, and
// most of the time goes into page faults. Here a block that was freed is stretched to become the next one, so
// that each page is paid for once.

namespace {

struct block {
    void* start;
    size_t size;  // 0: no memory
    bool in_use;
};

constexpr size_t LARGE = 256UL * 1024;
constexpr uintptr_t PAGE = 4096;  // or a multiple: mappings begin at multiples of it on every system

std::mutex blocks_mutex;
block blocks[16];  // more than libcrypto ever uses at once; what does not fit comes from malloc()

block* find_in_use(const void* memory) {
    if (reinterpret_cast<uintptr_t>(memory) % PAGE != 0) return nullptr;
    for (block& known : blocks) {
        if (known.in_use && known.start == memory) return &known;
    }
    return nullptr;
}

block* find_largest_unused() {
    block* largest = nullptr;
    for (block& known : blocks) {
        if (!known.in_use && (largest == nullptr || known.size > largest->size)) largest = &known;
    }
    return largest;
}

void give_back_unused() {
    for (block& known : blocks) {
        if (known.in_use || known.size == 0) continue;
        munmap(known.start, known.size);
        known = {};
    }
}

// Makes a block at least `size` bytes long; its contents stay. False without memory, and nothing has changed.
bool stretch(block& stretched, size_t size) {
    if (stretched.size >= size) return true;
    size = (size + PAGE - 1) / PAGE * PAGE;
    void* start = stretched.size == 0
                      ? mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)
                      : mremap(stretched.start, stretched.size, size, MREMAP_MAYMOVE);
    if (start == MAP_FAILED) return false;
    madvise(start, size, MADV_HUGEPAGE);  // where the system has them: fewer page faults still
    stretched.start = start;
    stretched.size = size;
    return true;
}

void* take(size_t size, const char* /*file*/, int /*line*/) {
    if (size == 0) return nullptr;
    if (size < LARGE) return malloc(size);
    const std::lock_guard guard(blocks_mutex);
    block* taken = find_largest_unused();
    if (taken == nullptr) return malloc(size);
    if (!stretch(*taken, size)) {
        give_back_unused();
        if (!stretch(*taken, size)) return nullptr;
    }
    taken->in_use = true;
    return taken->start;
}

void give(void* memory, const char* /*file*/, int /*line*/) {
    if (memory == nullptr) return;
    {
        const std::lock_guard guard(blocks_mutex);
        if (block* given = find_in_use(memory)) {
            given->in_use = false;
            return;
        }
    }
    free(memory);
}

void* resize(void* memory, size_t size, const char* file, int line) {
    if (memory == nullptr) return take(size, file, line);
    if (size == 0) {
        give(memory, file, line);
        return nullptr;
    }
    const std::lock_guard guard(blocks_mutex);
    block* resized = find_in_use(memory);
    if (resized == nullptr) return realloc(memory, size);
    return stretch(*resized, size) ? resized->start : nullptr;
}

}  // namespace

bool use_crypto_memory() {
    return CRYPTO_set_mem_functions(take, resize, give) == 1;
}

void release_crypto_memory() {
    const std::lock_guard guard(blocks_mutex);
    give_back_unused();
}
