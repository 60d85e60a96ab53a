// Content bounds: where the artwork lies, and whether the background is white.
#include "engines/CropEngine.h"
#include "engines/PixelOps.h"

#include <algorithm>

namespace cutlark::CropEngine {

namespace {

using namespace PixelOps;

// Neither near-transparent nor near-white, on the stored (premultiplied) bytes.
struct ContentTest {
    uint32_t alphaFloor;
    uint32_t whiteFloor;
    bool operator()(uint32_t v) const {
        const uint32_t darkest = std::min(std::min(red(v), green(v)), blue(v));
        return (alpha(v) > alphaFloor) & (darkest < whiteFloor);
    }
};

struct AlphaTest {
    uint32_t minAlpha;
    bool operator()(uint32_t v) const { return alpha(v) > minAlpha; }
};

// Rows are tested in blocks without an exit inside, which the compiler turns into vector code: big
// blocks while they fit, then small ones; the exact pixel is then found within its block.
constexpr int kBig = 64;
constexpr int kSmall = 8;

template <int N, class Test>
inline __attribute__((always_inline)) bool blockHas(const uint32_t* p, Test test) {
    uint32_t any = 0;
    for (int k = 0; k < N; ++k)
        any |= uint32_t(test(p[k]));
    return any != 0;
}

// First qualifying x in [from, to), or −1.
template <class Test>
inline __attribute__((always_inline)) int firstIn(const uint32_t* row, int from, int to, Test test) {
    int x = from;
    while (x + kBig <= to && !blockHas<kBig>(row + x, test))
        x += kBig;
    while (x + kSmall <= to && !blockHas<kSmall>(row + x, test))
        x += kSmall;
    for (; x < to; ++x)
        if (test(row[x])) return x;
    return -1;
}

// Last qualifying x in [from, to), or −1.
template <class Test>
inline __attribute__((always_inline)) int lastIn(const uint32_t* row, int from, int to, Test test) {
    int end = to;
    while (end - kBig >= from && !blockHas<kBig>(row + end - kBig, test))
        end -= kBig;
    while (end - kSmall >= from && !blockHas<kSmall>(row + end - kSmall, test))
        end -= kSmall;
    for (int x = end - 1; x >= from; --x)
        if (test(row[x])) return x;
    return -1;
}

// The tight box of qualifying pixels. Each row is searched from the left only up to the box found so
// far and from the right only down to it; the inside of the box is looked at only to learn whether
// the row holds anything at all. The result is that of testing every pixel.
template <class Test>
inline __attribute__((always_inline)) std::optional<QRectF> bounds(const uchar* pixels, int w, int h,
                                                                   Test test) {
    int minX = w, maxX = -1, minY = -1, maxY = -1;
    for (int y = 0; y < h; ++y) {
        const uint32_t* row = reinterpret_cast<const uint32_t*>(pixels) + qsizetype(y) * w;
        bool has = false;
        const int left = firstIn(row, 0, std::min(minX, w), test);
        if (left >= 0) {
            minX = left;
            has = true;
        }
        const int right = lastIn(row, std::max(maxX + 1, left >= 0 ? left : 0), w, test);
        if (right >= 0) {
            maxX = right;
            has = true;
        }
        if (!has && minX <= maxX) has = firstIn(row, minX, maxX + 1, test) >= 0;
        if (has) {
            if (minY < 0) minY = y;
            maxY = y;
        }
    }
    if (minY < 0) return std::nullopt;
    return QRectF(minX, minY, maxX - minX + 1, maxY - minY + 1);
}

CUTLARK_CLONES std::optional<QRectF> contentBounds(const uchar* pixels, int w, int h, uint32_t alphaFloor,
                                                   uint32_t whiteFloor) {
    return bounds(pixels, w, h, ContentTest{alphaFloor, whiteFloor});
}

CUTLARK_CLONES std::optional<QRectF> alphaBounds(const uchar* pixels, int w, int h, uint32_t minAlpha) {
    return bounds(pixels, w, h, AlphaTest{minAlpha});
}

// White for the background test: near-transparent whatever the colour, or all three at least 220.
CUTLARK_CLONES qint64 countWhite(const uint32_t* p, qint64 n) {
    uint32_t white = 0; // a band row holds far fewer than 2³² pixels
    for (qint64 i = 0; i < n; ++i) {
        const uint32_t v = p[i];
        const uint32_t darkest = std::min(std::min(red(v), green(v)), blue(v));
        white += uint32_t((alpha(v) < 9) | (darkest >= 220));
    }
    return white;
}

// Whether a band passes: empty, or at least `fraction` of it white. Counting stops as soon as the
// answer can't change any more.
bool bandPasses(const uchar* pixels, qint64 w, qint64 rowFrom, qint64 rowTo, qint64 colFrom, qint64 colTo,
                double fraction) {
    if (rowTo <= rowFrom || colTo <= colFrom) return true;
    const qint64 cols = colTo - colFrom;
    const double total = double(rowTo - rowFrom) * double(cols);
    qint64 white = 0, seen = 0;
    for (qint64 y = rowFrom; y < rowTo; ++y) {
        white += countWhite(reinterpret_cast<const uint32_t*>(pixels) + y * w + colFrom, cols);
        seen += cols;
        if (double(white) / total >= fraction) return true;                        // enough already
        if (double(white + qint64(total) - seen) / total < fraction) return false; // can't be enough
    }
    return double(white) / total >= fraction;
}

} // namespace

std::optional<QRectF> contentRect(const Buffer& buffer, double threshold) {
    // Nothing to discard at 0 (or NaN): the whole image, without a look at a pixel.
    if (!(threshold > 0)) return QRectF(0, 0, double(buffer.width()), double(buffer.height()));
    const double t = threshold >= 100 ? 1.0 : threshold / 100;
    const auto alphaFloor = uint32_t(t * 254);        // 0 … 254
    const auto whiteFloor = uint32_t(t * -115 + 255); // 255 … 140
    return contentBounds(buffer.pixels(), int(buffer.width()), int(buffer.height()), alphaFloor, whiteFloor);
}

std::optional<QRectF> alphaContentRect(const Buffer& buffer, quint8 minAlpha) {
    if (buffer.height() == 0) return std::nullopt;
    return alphaBounds(buffer.pixels(), int(buffer.width()), int(buffer.height()), minAlpha);
}

bool backgroundIsMostlyWhite(const Buffer& buffer, double perEdgeFraction) {
    const qint64 w = buffer.width(), h = buffer.height();
    if (w < 1 || h < 1) return true;
    const qint64 m = std::min(w, h);
    const qint64 b = m < 50 ? 1 : m / 50;
    const uchar* px = buffer.pixels();
    // Top, bottom, then the sides without the corner blocks; stop once three passed or two failed.
    const qint64 bands[4][4] = {{0, b, 0, w}, {h - b, h, 0, w}, {b, h - b, 0, b}, {b, h - b, w - b, w}};
    int passing = 0, failing = 0;
    for (const auto& band : bands) {
        if (bandPasses(px, w, band[0], band[1], band[2], band[3], perEdgeFraction))
            ++passing;
        else
            ++failing;
        if (passing >= 3 || failing >= 2) break;
    }
    return passing >= 3;
}

} // namespace cutlark::CropEngine
