#include "engines/BufferPool.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <vector>

namespace cutlark {

namespace {

constexpr size_t kAlign = 64;
constexpr size_t kSmallest = size_t(1) << 20;

// Each block starts with a header holding its capacity and how it was made; the caller sees the
// bytes after it. Blocks of a megabyte and more are mappings of their own, so that one too small
// for a request can be grown in place of a fresh one: `mremap` moves the pages it already has
// (touched, no clearing) and only the growth is fresh.
struct Header {
    size_t capacity;
    size_t mapped; ///< bytes of the mapping; 0 for a block from the heap
    size_t pad[kAlign / sizeof(size_t) - 2];
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

std::atomic<size_t> g_mapped{0};

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

size_t pageSize() {
    static const size_t size = [] {
        const long p = sysconf(_SC_PAGESIZE);
        return p > 0 ? size_t(p) : size_t(4096);
    }();
    return size;
}

constexpr size_t kHuge = size_t(2) << 20;

// Fresh memory is first touched 2 MB at a time instead of 4 KB: far fewer page faults, which on a
// virtual machine cost more than the pixel work (48 MB: ~120 ms in small pages, ~5 ms in huge ones).
// So blocks of 4 MB and more are whole 2 MB pages, start on a 2 MB boundary and are advised as a
// whole (advice on part of a mapping would split it, and `mremap` can't grow a block that spans
// several mappings).
bool hugeBlock(size_t length) {
    return length >= 2 * kHuge;
}

size_t mappingFor(size_t bytes) {
    const size_t unit = hugeBlock(sizeof(Header) + bytes) ? kHuge : pageSize();
    return (sizeof(Header) + bytes + unit - 1) / unit * unit;
}

// `length` bytes of address space starting on a 2 MB boundary when the block is huge (`access` as
// mmap's), or null.
void* reserve(size_t length, int access) {
    const int flags = MAP_PRIVATE | MAP_ANONYMOUS | (access == PROT_NONE ? MAP_NORESERVE : 0);
    if (!hugeBlock(length)) {
        void* m = mmap(nullptr, length, access, flags, -1, 0);
        return m == MAP_FAILED ? nullptr : m;
    }
    void* m = mmap(nullptr, length + kHuge, access, flags, -1, 0);
    if (m == MAP_FAILED) return nullptr;
    const auto raw = reinterpret_cast<uintptr_t>(m);
    const uintptr_t start = (raw + kHuge - 1) & ~uintptr_t(kHuge - 1);
    if (start > raw) munmap(m, start - raw);
    if (start + length < raw + length + kHuge)
        munmap(reinterpret_cast<void*>(start + length), raw + length + kHuge - (start + length));
    return reinterpret_cast<void*>(start);
}

Header* mapBlock(size_t bytes) {
    const size_t length = mappingFor(bytes);
    void* m = reserve(length, PROT_READ | PROT_WRITE);
    if (!m) return nullptr;
    g_mapped += length;
    if (hugeBlock(length)) madvise(m, length, MADV_HUGEPAGE);
    auto* h = static_cast<Header*>(m);
    h->capacity = length - sizeof(Header);
    h->mapped = length;
    return h;
}

// `h` (idle, taken out of the pool) made large enough for `bytes`, its pages kept; null when the
// system refuses, and then `h` is untouched. The pages move to another 2 MB boundary, so the kernel
// moves huge pages whole (moved to any other place they would be split into small ones for good).
Header* growBlock(Header* h, size_t bytes) {
    const size_t length = mappingFor(bytes);
    const size_t before = h->mapped; // h is gone once the mapping moves
    void* target = reserve(length, PROT_NONE);
    if (!target) return nullptr;
    void* m = mremap(h, before, length, MREMAP_MAYMOVE | MREMAP_FIXED, target);
    if (m == MAP_FAILED) {
        munmap(target, length);
        return nullptr;
    }
    g_mapped += length - before;
    if (hugeBlock(length)) madvise(m, length, MADV_HUGEPAGE);
    auto* grown = static_cast<Header*>(m);
    grown->capacity = length - sizeof(Header);
    grown->mapped = length;
    return grown;
}

void freeBlock(Header* h) {
    if (h->mapped) {
        g_mapped -= h->mapped;
        munmap(h, h->mapped);
    } else
        std::free(h);
}

void* payload(Header* h) {
    return reinterpret_cast<uint8_t*>(h) + sizeof(Header);
}
Header* headerOf(void* p) {
    return reinterpret_cast<Header*>(static_cast<uint8_t*>(p) - sizeof(Header));
}

} // namespace

void* BufferPool::acquire(size_t bytes) {
    if (bytes == 0 || bytes > SIZE_MAX / 2) return nullptr;
    if (bytes < kSmallest) {
        const size_t total = (sizeof(Header) + bytes + kAlign - 1) / kAlign * kAlign;
        auto* h = static_cast<Header*>(std::aligned_alloc(kAlign, total));
        if (!h) return nullptr;
        h->capacity = bytes;
        h->mapped = 0;
        return payload(h);
    }
    Header* grow = nullptr;
    {
        Pool& pl = pool();
        std::lock_guard lock(pl.mutex);
        // The smallest idle block that fits without wasting more than a third of it, so that a mask
        // doesn't take the store a whole picture will ask for next.
        auto best = pl.idle.end();
        // Else the largest one that is at least two thirds of the request: grown, it costs only the
        // difference in fresh pages (pictures of a batch differ by a few per cent in size).
        auto nearest = pl.idle.end();
        for (auto it = pl.idle.begin(); it != pl.idle.end(); ++it) {
            if (it->capacity >= bytes) {
                if (it->capacity - bytes <= it->capacity / 3 &&
                    (best == pl.idle.end() || it->capacity < best->capacity))
                    best = it;
            } else if (it->capacity >= bytes / 3 * 2 &&
                       (nearest == pl.idle.end() || it->capacity > nearest->capacity)) {
                nearest = it;
            }
        }
        const auto take = best != pl.idle.end() ? best : nearest;
        if (take != pl.idle.end()) {
            Header* h = take->block;
            pl.idleBytes -= take->capacity;
            pl.idle.erase(take);
            if (take == best) return payload(h);
            grow = h;
        }
    }
    if (grow) {
        if (Header* grown = growBlock(grow, bytes)) return payload(grown);
        freeBlock(grow);
    }
    Header* h = mapBlock(bytes);
    return h ? payload(h) : nullptr;
}

void BufferPool::release(void* block) {
    if (!block) return;
    Header* h = headerOf(block);
    if (!h->mapped || h->capacity > idleLimit()) {
        freeBlock(h);
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
        freeBlock(f);
}

size_t BufferPool::idleBytes() {
    Pool& pl = pool();
    std::lock_guard lock(pl.mutex);
    return pl.idleBytes;
}

size_t BufferPool::mappedBytes() {
    return g_mapped.load();
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
        freeBlock(i.block);
}

} // namespace cutlark
