#include "engines/BufferPool.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <vector>

namespace cutlark {

namespace {

constexpr size_t kAlign = 64;
constexpr size_t kSmallest = size_t(1) << 20;

// Each block starts with a header holding its capacity; the caller sees the bytes after it.
struct Header {
    size_t capacity;
    size_t pad[kAlign / sizeof(size_t) - 1];
};
static_assert(sizeof(Header) == kAlign);

struct Idle {
    Header* block;
    size_t capacity;
};

// The pool lives until the process ends and is never destroyed, so a store released during static
// destruction still finds it (and leak checkers still see the idle blocks through it).
struct Pool {
    std::mutex mutex;
    std::vector<Idle> idle; // oldest first
    size_t idleBytes = 0;
};
Pool& pool() {
    static Pool* p = new Pool;
    return *p;
}

size_t idleLimit() {
    static const size_t limit = [] {
        const long pages = sysconf(_SC_PHYS_PAGES);
        const long pageSize = sysconf(_SC_PAGESIZE);
        const size_t physical =
            (pages > 0 && pageSize > 0) ? size_t(pages) * size_t(pageSize) : size_t(4) << 30;
        return std::clamp(physical / 16, size_t(256) << 20, size_t(1) << 30);
    }();
    return limit;
}

// Fresh memory is first touched 2 MB at a time instead of 4 KB: far fewer page faults, which on a
// virtual machine cost more than the pixel work (48 MB: ~120 ms in small pages, ~5 ms in huge ones).
void adviseHugePages(void* begin, size_t bytes) {
    constexpr uintptr_t huge = uintptr_t(2) << 20;
    if (bytes < 2 * huge) return;
    const uintptr_t first = (reinterpret_cast<uintptr_t>(begin) + huge - 1) & ~(huge - 1);
    const uintptr_t last = (reinterpret_cast<uintptr_t>(begin) + bytes) & ~(huge - 1);
    if (last > first) madvise(reinterpret_cast<void*>(first), last - first, MADV_HUGEPAGE);
}

void* payload(Header* h) {
    return reinterpret_cast<uint8_t*>(h) + sizeof(Header);
}
Header* headerOf(void* p) {
    return reinterpret_cast<Header*>(static_cast<uint8_t*>(p) - sizeof(Header));
}

} // namespace

void* BufferPool::acquire(size_t bytes) {
    if (bytes == 0 || bytes > SIZE_MAX - 2 * kAlign) return nullptr;
    if (bytes >= kSmallest) {
        Pool& pl = pool();
        std::lock_guard lock(pl.mutex);
        // The smallest idle block that fits without wasting more than a third of it.
        auto best = pl.idle.end();
        for (auto it = pl.idle.begin(); it != pl.idle.end(); ++it) {
            if (it->capacity >= bytes && it->capacity - bytes <= it->capacity / 3 &&
                (best == pl.idle.end() || it->capacity < best->capacity))
                best = it;
        }
        if (best != pl.idle.end()) {
            Header* h = best->block;
            pl.idleBytes -= best->capacity;
            pl.idle.erase(best);
            return payload(h);
        }
    }
    const size_t total = (sizeof(Header) + bytes + kAlign - 1) / kAlign * kAlign;
    auto* h = static_cast<Header*>(std::aligned_alloc(kAlign, total));
    if (!h) return nullptr;
    adviseHugePages(h, total);
    h->capacity = bytes;
    return payload(h);
}

void BufferPool::release(void* block) {
    if (!block) return;
    Header* h = headerOf(block);
    if (h->capacity < kSmallest || h->capacity > idleLimit()) {
        std::free(h);
        return;
    }
    std::vector<Header*> freed;
    {
        Pool& pl = pool();
        std::lock_guard lock(pl.mutex);
        pl.idle.push_back({h, h->capacity});
        pl.idleBytes += h->capacity;
        while (pl.idleBytes > idleLimit() && !pl.idle.empty()) {
            freed.push_back(pl.idle.front().block);
            pl.idleBytes -= pl.idle.front().capacity;
            pl.idle.erase(pl.idle.begin());
        }
    }
    for (Header* f : freed)
        std::free(f);
}

size_t BufferPool::idleBytes() {
    Pool& pl = pool();
    std::lock_guard lock(pl.mutex);
    return pl.idleBytes;
}

void BufferPool::trim() {
    std::vector<Idle> all;
    {
        Pool& pl = pool();
        std::lock_guard lock(pl.mutex);
        all.swap(pl.idle);
        pl.idleBytes = 0;
    }
    for (const Idle& i : all)
        std::free(i.block);
}

} // namespace cutlark
