// The pool of large pixel stores: a block handed out is never handed out again while in use, blocks
// of any size mix, and a block a little too small is grown rather than replaced.

#include "engines/BufferPool.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <thread>
#include <vector>

using namespace cutlark;

namespace {

constexpr size_t MB = size_t(1) << 20;

struct Live {
    uint8_t* p;
    size_t size;
    uint8_t tag;
};

// Marks the first, middle and last bytes of a block (touching all of it would take most of the
// test's time and proves no more).
void mark(const Live& b) {
    std::memset(b.p, b.tag, 4096);
    std::memset(b.p + b.size / 2, b.tag, 64);
    std::memset(b.p + b.size - 4096, b.tag, 4096);
}

bool intact(const Live& b) {
    for (size_t at : {size_t(0), size_t(4095), b.size / 2, b.size / 2 + 63, b.size - 4096, b.size - 1})
        if (b.p[at] != b.tag) return false;
    return true;
}

// Sizes as a batch asks for them: masks of a byte per pixel and pictures of four, a few per cent
// apart from one picture to the next, and now and then a small one.
size_t nextSize(uint32_t& seed) {
    seed = seed * 1664525u + 1013904223u;
    const size_t base = (seed >> 28) % 2 ? 48 * MB : 12 * MB;
    seed = seed * 1664525u + 1013904223u;
    const size_t jitter = base / 100 * ((seed >> 24) % 9);
    seed = seed * 1664525u + 1013904223u;
    return (seed >> 29) == 0 ? 2 * MB + (seed >> 10) % MB : base + jitter;
}

// Acquires and releases in a mixed order, checking after every step that no two live blocks
// overlap and that every live block still holds what its owner wrote.
void churn(uint32_t seed, int steps, uint8_t firstTag) {
    std::vector<Live> live;
    uint8_t tag = firstTag;
    for (int step = 0; step < steps; ++step) {
        seed = seed * 1664525u + 1013904223u;
        if (live.size() < 2 || (live.size() < 6 && (seed >> 30) != 0)) {
            const size_t size = nextSize(seed);
            auto* p = static_cast<uint8_t*>(BufferPool::acquire(size));
            ASSERT_NE(p, nullptr);
            ASSERT_EQ(reinterpret_cast<uintptr_t>(p) % 64, 0u);
            for (const Live& other : live)
                ASSERT_TRUE(p + size <= other.p || other.p + other.size <= p)
                    << "a block in use handed out again";
            live.push_back({p, size, tag});
            mark(live.back());
            tag = uint8_t(tag + 2);
        } else {
            const size_t i = (seed >> 8) % live.size();
            BufferPool::release(live[i].p);
            live.erase(live.begin() + std::ptrdiff_t(i));
        }
        for (const Live& b : live)
            ASSERT_TRUE(intact(b)) << "step " << step;
    }
    for (const Live& b : live)
        BufferPool::release(b.p);
}

} // namespace

TEST(BufferPool, MixedSizesNeverShareALiveBlock) {
    BufferPool::trim();
    churn(1, 400, 1);
    // Two workers at once, each with its own blocks (odd tags and even tags).
    std::thread other([] { churn(7, 300, 2); });
    churn(3, 300, 1);
    other.join();
    BufferPool::trim();
    EXPECT_EQ(BufferPool::mappedBytes(), 0u) << "every block came back";
}

TEST(BufferPool, ABlockALittleTooSmallIsGrownNotReplaced) {
    BufferPool::trim();
    void* a = BufferPool::acquire(40 * MB);
    ASSERT_NE(a, nullptr);
    std::memset(a, 1, 40 * MB);
    BufferPool::release(a);
    const size_t before = BufferPool::mappedBytes();
    EXPECT_GE(before, 40 * MB);
    // 10 % bigger: the idle block is grown; the pool holds 44 MB (in whole 2 MB pages), not 40 idle
    // plus 44 fresh.
    auto* b = static_cast<uint8_t*>(BufferPool::acquire(44 * MB));
    ASSERT_NE(b, nullptr);
    EXPECT_LE(BufferPool::mappedBytes(), 46 * MB);
    EXPECT_EQ(BufferPool::idleBytes(), 0u);
    // Grown in place of a fresh block: the pages written before are still there (fresh ones read 0).
    EXPECT_EQ(b[0], 1);
    EXPECT_EQ(b[40 * MB - 1], 1);
    // Moved from one 2 MB boundary to another (its header before it), so its huge pages stay whole.
    EXPECT_EQ((reinterpret_cast<uintptr_t>(a) - 64) % (2 * MB), 0u);
    EXPECT_EQ((reinterpret_cast<uintptr_t>(b) - 64) % (2 * MB), 0u);
    std::memset(b, 2, 44 * MB); // all of it is usable
    BufferPool::release(b);
    // A smaller request that fits within a third takes it as it is.
    const size_t grown = BufferPool::mappedBytes();
    void* c = BufferPool::acquire(35 * MB);
    EXPECT_EQ(c, b);
    EXPECT_EQ(BufferPool::mappedBytes(), grown);
    BufferPool::release(c);
    BufferPool::trim();
    EXPECT_EQ(BufferPool::mappedBytes(), 0u);
    // A mask a quarter of the size never takes a picture's store: that stays idle for the next picture.
    void* picture = BufferPool::acquire(48 * MB);
    BufferPool::release(picture);
    const size_t idlePicture = BufferPool::idleBytes();
    void* mask = BufferPool::acquire(12 * MB);
    EXPECT_NE(mask, picture);
    EXPECT_EQ(BufferPool::idleBytes(), idlePicture);
    BufferPool::release(mask);
    BufferPool::trim();
    // Small stores come from the heap and go back to it.
    void* small = BufferPool::acquire(1000);
    ASSERT_NE(small, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(small) % 64, 0u);
    EXPECT_EQ(BufferPool::mappedBytes(), 0u);
    BufferPool::release(small);
    EXPECT_EQ(BufferPool::acquire(0), nullptr);
}
