#include "engines/BufferPool.h"

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

std::mutex g_mutex;
std::vector<Idle> g_idle; // oldest first
size_t g_idleBytes = 0;

size_t idleLimit() {
    static const size_t limit = [] {
        const long pages = sysconf(_SC_PHYS_PAGES);
        const long pageSize = sysconf(_SC_PAGESIZE);
        const size_t physical = (pages > 0 && pageSize > 0) ? size_t(pages) * size_t(pageSize) : size_t(4) << 30;
        return std::clamp(physical / 16, size_t(256) << 20, size_t(1) << 30);
    }();
    return limit;
}

void* payload(Header* h) { return reinterpret_cast<uint8_t*>(h) + sizeof(Header); }
Header* headerOf(void* p) { return reinterpret_cast<Header*>(static_cast<uint8_t*>(p) - sizeof(Header)); }

} // namespace

void* BufferPool::acquire(size_t bytes) {
    if (bytes == 0 || bytes > SIZE_MAX - 2 * kAlign) return nullptr;
    if (bytes >= kSmallest) {
        std::lock_guard lock(g_mutex);
        // The smallest idle block that fits without wasting more than a third of it.
        auto best = g_idle.end();
        for (auto it = g_idle.begin(); it != g_idle.end(); ++it) {
            if (it->capacity >= bytes && it->capacity - bytes <= it->capacity / 3 &&
                (best == g_idle.end() || it->capacity < best->capacity))
                best = it;
        }
        if (best != g_idle.end()) {
            Header* h = best->block;
            g_idleBytes -= best->capacity;
            g_idle.erase(best);
            return payload(h);
        }
    }
    const size_t total = (sizeof(Header) + bytes + kAlign - 1) / kAlign * kAlign;
    auto* h = static_cast<Header*>(std::aligned_alloc(kAlign, total));
    if (!h) return nullptr;
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
        std::lock_guard lock(g_mutex);
        g_idle.push_back({h, h->capacity});
        g_idleBytes += h->capacity;
        while (g_idleBytes > idleLimit() && !g_idle.empty()) {
            freed.push_back(g_idle.front().block);
            g_idleBytes -= g_idle.front().capacity;
            g_idle.erase(g_idle.begin());
        }
    }
    for (Header* f : freed) std::free(f);
}

size_t BufferPool::idleBytes() {
    std::lock_guard lock(g_mutex);
    return g_idleBytes;
}

void BufferPool::trim() {
    std::vector<Idle> all;
    {
        std::lock_guard lock(g_mutex);
        all.swap(g_idle);
        g_idleBytes = 0;
    }
    for (const Idle& i : all) std::free(i.block);
}

} // namespace cutlark
