// White keying: a hard key that clears the white background to transparent.
#include "engines/BufferPool.h"
#include "engines/CropEngine.h"
#include "engines/PixelOps.h"

#include <cmath>
#include <cstdlib>
#include <memory>
#include <vector>

namespace cutlark::CropEngine {

namespace {

using namespace PixelOps;

// The key floor: slope 135 from 255 at 0 %, and exactly 120 from 100 % on. NaN counts as 0.
uint32_t keyFloor(double threshold) {
    const double p = (threshold > 0) ? threshold : 0.0;
    if (p >= 100) return 120;
    return uint32_t(p / 100 * -135 + 255);
}

// Keyable: near-transparent whatever its colour, or stored R, G and B all at least the floor.
struct Keyable {
    uint32_t floor;
    bool operator()(uint32_t v) const {
        const uint32_t darkest = std::min(std::min(red(v), green(v)), blue(v));
        return (alpha(v) < 9) | (darkest >= floor);
    }
};

struct PoolDeleter {
    void operator()(uint8_t* p) const { BufferPool::release(p); }
};

// --- internal mode: every keyable pixel, one pass ---

CUTLARK_CLONES qsizetype firstKeyable(const QImage& image, uint32_t floor, int& rowOut) {
    const Keyable keyable{floor};
    const int w = image.width();
    for (int y = 0; y < image.height(); ++y) {
        const uint32_t* r = row(image, y);
        int x = 0;
        // Blocks without an exit inside vectorise; the exact pixel is found afterwards.
        for (; x + 16 <= w; x += 16) {
            uint32_t any = 0;
            for (int k = 0; k < 16; ++k)
                any |= uint32_t(keyable(r[x + k]));
            if (any) break;
        }
        for (; x < w; ++x)
            if (keyable(r[x])) {
                rowOut = y;
                return x;
            }
    }
    return -1;
}

CUTLARK_CLONES void clearKeyableRows(const QImage& src, QImage& dst, int fromRow, uint32_t floor) {
    const Keyable keyable{floor};
    const int w = src.width();
    for (int y = fromRow; y < src.height(); ++y) {
        const uint32_t* s = row(src, y);
        uint32_t* d = row(dst, y);
        for (int x = 0; x < w; ++x)
            d[x] = keyable(s[x]) ? 0u : s[x];
    }
}

std::optional<QImage> keyInternal(const QImage& src, uint32_t floor) {
    int firstRow = 0;
    if (firstKeyable(src, floor, firstRow) < 0) return std::nullopt; // nothing to clear
    QImage out = newCanvas(src.width(), src.height());
    if (out.isNull()) return std::nullopt;
    // Rows above the first keyable one are copied as they are.
    for (int y = 0; y < firstRow; ++y)
        std::memcpy(out.scanLine(y), src.constScanLine(y), size_t(src.width()) * 4);
    clearKeyableRows(src, out, firstRow, floor);
    return out;
}

// --- flood mode: only what the border reaches ---

// Cell states of the flood map: not keyable, keyable and not yet reached, cleared.
enum : uint8_t { kSolid = 0, kOpen = 1, kCleared = 2 };

// One pass that copies the picture into the result and notes which pixels are keyable.
CUTLARK_CLONES void copyAndMark(const QImage& src, QImage& dst, uint8_t* map, uint32_t floor) {
    const Keyable keyable{floor};
    const int w = src.width();
    for (int y = 0; y < src.height(); ++y) {
        const uint32_t* s = row(src, y);
        uint32_t* d = row(dst, y);
        uint8_t* m = map + qsizetype(y) * w;
        for (int x = 0; x < w; ++x) {
            d[x] = s[x];
            m[x] = uint8_t(keyable(s[x]));
        }
    }
}

// The first index in [x, end) whose cell isn't `value`, reading eight cells at a time.
inline int skipCells(const uint8_t* m, int x, int end, uint8_t value) {
    const uint64_t pattern = 0x0101010101010101ull * value;
    while (x + 8 <= end) {
        uint64_t word;
        std::memcpy(&word, m + x, 8);
        if (word != pattern) break;
        x += 8;
    }
    while (x < end && m[x] == value)
        ++x;
    return x;
}

// The last index in [from, x] whose cell is `value` going left without a break, i.e. the start of
// the run of `value` that ends at x.
inline int runStart(const uint8_t* m, int from, int x, uint8_t value) {
    const uint64_t pattern = 0x0101010101010101ull * value;
    while (x - 8 >= from) {
        uint64_t word;
        std::memcpy(&word, m + x - 8, 8);
        if (word != pattern) break;
        x -= 8;
    }
    while (x - 1 >= from && m[x - 1] == value)
        --x;
    return x;
}

// Scanline flood over the map from the seeds: each popped seed grows into its whole horizontal run
// of open cells, which is cleared at once; the rows above and below are searched for open runs
// within it, one seed per run. Iterative, with an explicit stack; 4-neighbour, so a diagonal contact
// doesn't carry the fill.
void flood(uint8_t* map, QImage& out, int w, int h, std::vector<uint32_t>& stack) {
    auto pushRuns = [&](int y, int x0, int x1) {
        const uint8_t* m = map + qsizetype(y) * w;
        int x = x0;
        while (x <= x1) {
            const void* open = std::memchr(m + x, kOpen, size_t(x1 - x + 1));
            if (!open) break;
            x = int(static_cast<const uint8_t*>(open) - m);
            stack.push_back(uint32_t(y) * uint32_t(w) + uint32_t(x)); // the run's first cell seeds it
            x = skipCells(m, x, x1 + 1, kOpen);
        }
    };
    while (!stack.empty()) {
        const uint32_t index = stack.back();
        stack.pop_back();
        const int y = int(index / uint32_t(w));
        const int x = int(index % uint32_t(w));
        uint8_t* m = map + qsizetype(y) * w;
        if (m[x] != kOpen) continue;
        const int x0 = runStart(m, 0, x, kOpen);
        const int x1 = skipCells(m, x, w, kOpen) - 1;
        std::memset(m + x0, kCleared, size_t(x1 - x0 + 1));
        std::memset(row(out, y) + x0, 0, size_t(x1 - x0 + 1) * 4);
        if (y > 0) pushRuns(y - 1, x0, x1);
        if (y < h - 1) pushRuns(y + 1, x0, x1);
    }
}

std::optional<QImage> keyFlood(const QImage& src, uint32_t floor) {
    const int w = src.width(), h = src.height();
    const Keyable keyable{floor};
    // Nothing happens unless the border holds a keyable pixel: check that before any allocation.
    bool borderKeyable = false;
    for (int x = 0; x < w && !borderKeyable; ++x)
        borderKeyable = keyable(row(src, 0)[x]) || keyable(row(src, h - 1)[x]);
    for (int y = 0; y < h && !borderKeyable; ++y)
        borderKeyable = keyable(row(src, y)[0]) || keyable(row(src, y)[w - 1]);
    if (!borderKeyable) return std::nullopt;

    if (qint64(w) * h > qint64(UINT32_MAX)) return std::nullopt; // seeds are 32-bit indices
    std::unique_ptr<uint8_t, PoolDeleter> map(
        static_cast<uint8_t*>(BufferPool::acquire(size_t(w) * size_t(h))));
    if (!map) return std::nullopt;
    QImage out = newCanvas(w, h);
    if (out.isNull()) return std::nullopt;
    copyAndMark(src, out, map.get(), floor);

    std::vector<uint32_t> stack;
    stack.reserve(size_t(w) + size_t(h));
    // Seeds: the top and bottom rows, then the left and right columns.
    for (int x = 0; x < w; ++x) {
        stack.push_back(uint32_t(x));
        stack.push_back(uint32_t(h - 1) * uint32_t(w) + uint32_t(x));
    }
    for (int y = 0; y < h; ++y) {
        stack.push_back(uint32_t(y) * uint32_t(w));
        stack.push_back(uint32_t(y) * uint32_t(w) + uint32_t(w - 1));
    }
    flood(map.get(), out, w, h, stack);
    return out;
}

} // namespace

std::optional<QImage> keyOutWhite(const QImage& image, double threshold, bool includeInternal) {
    if (image.isNull() || image.width() < 1 || image.height() < 1) return image;
    const QImage src = rgbaPixels(image);
    if (src.isNull()) return image;
    const uint32_t floor = keyFloor(threshold);
    std::optional<QImage> keyed = includeInternal ? keyInternal(src, floor) : keyFlood(src, floor);
    // Nothing cleared, or no memory for the result: the image itself.
    return keyed ? *keyed : image;
}

} // namespace cutlark::CropEngine
