#pragma once

#include <cstddef>

namespace cutlark {

/// Large pixel stores, recycled. Touching freshly mapped memory costs far more than the pixel work on
/// it (on a virtual machine easily 3 ms per megabyte), and a slider drag asks for canvases of the same
/// sizes over and over; so released stores are kept, up to a bound, and handed out again. A batch's
/// pictures differ in size by a few per cent, so an idle block a little too small is grown in place
/// (its pages kept) rather than replaced by a fresh one.
/// Thread-safe. Stores below 1 MB are left to the ordinary heap, which already reuses them.
class BufferPool {
public:
    /// A block of at least `bytes` bytes, 64-byte aligned, contents undefined; null when out of memory.
    static void* acquire(size_t bytes);

    /// Gives a block from `acquire` back. Usable as a QImage cleanup function.
    static void release(void* block);

    /// Bytes held for reuse right now (for tests and measurements).
    static size_t idleBytes();

    /// Bytes of all blocks of a megabyte and more, in use or idle (for tests and measurements: these
    /// are mappings of their own, which the C library's statistics don't see).
    static size_t mappedBytes();

    /// Frees every idle block.
    static void trim();
};

} // namespace cutlark
