#pragma once

#include <cstddef>

namespace cutlark {

/// Large pixel stores, recycled. Touching freshly mapped memory costs far more than the pixel work on
/// it (on a virtual machine easily 3 ms per megabyte), and a slider drag asks for canvases of the same
/// sizes over and over; so released stores are kept, up to a bound, and handed out again.
/// Thread-safe. Stores below 1 MB are left to the ordinary heap, which already reuses them.
class BufferPool {
public:
    /// A block of at least `bytes` bytes, 64-byte aligned, contents undefined; null when out of memory.
    static void* acquire(size_t bytes);

    /// Gives a block from `acquire` back. Usable as a QImage cleanup function.
    static void release(void* block);

    /// Bytes held for reuse right now (for tests and measurements).
    static size_t idleBytes();

    /// Frees every idle block.
    static void trim();
};

} // namespace cutlark
