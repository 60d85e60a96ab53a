#pragma once

#include <QByteArray>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>

namespace cutlark {

/// Bytes gathered in memory from malloc, for a C library's write callback: a refused allocation
/// is a `false` the callback hands back as the library's own error, never an exception thrown
/// through the library's frames.
class GrowingBuffer {
public:
    GrowingBuffer() = default;
    GrowingBuffer(const GrowingBuffer&) = delete;
    GrowingBuffer& operator=(const GrowingBuffer&) = delete;
    ~GrowingBuffer() { std::free(m_data); }

    /// Appends `size` bytes; false (and nothing appended) when memory can't be had.
    bool append(const void* data, size_t size) noexcept {
        if (size > m_capacity - m_size) {
            size_t capacity = m_capacity ? m_capacity : 64 * 1024;
            while (capacity - m_size < size) {
                if (capacity > SIZE_MAX / 2) return false;
                capacity *= 2;
            }
            void* grown = std::realloc(m_data, capacity);
            if (!grown) return false;
            m_data = static_cast<char*>(grown);
            m_capacity = capacity;
        }
        if (size) std::memcpy(m_data + m_size, data, size);
        m_size += size;
        return true;
    }

    /// The bytes gathered, as a QByteArray of their own (empty when they can't be copied).
    QByteArray bytes() const {
        if (m_size > size_t(std::numeric_limits<qsizetype>::max() / 2)) return QByteArray();
        try {
            return QByteArray(m_data, qsizetype(m_size));
        } catch (const std::bad_alloc&) {
            return QByteArray();
        }
    }
    size_t size() const { return m_size; }

private:
    char* m_data = nullptr;
    size_t m_size = 0;
    size_t m_capacity = 0;
};

} // namespace cutlark
