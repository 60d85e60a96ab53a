#include "engines/CollageSplitter.h"

#include "engines/BufferPool.h"
#include "engines/PixelOps.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <vector>

namespace cutlark::CollageSplitter {

namespace {

using namespace PixelOps;

struct IRect {
    int x = 0, y = 0, w = 0, h = 0;
};

// Blank = 1, content = 0, one byte per pixel, stride = width.
struct Mask {
    const uint8_t* bytes;
    int width;
    const uint8_t* row(int y) const { return bytes + qsizetype(y) * width; }
};

CUTLARK_CLONES void markBlank(const uchar* pixels, qsizetype count, uint32_t floor, uint8_t* mask) {
    const auto* px = reinterpret_cast<const uint32_t*>(pixels);
    for (qsizetype i = 0; i < count; ++i) {
        const uint32_t v = px[i];
        const uint32_t darkest = std::min(std::min(red(v), green(v)), blue(v));
        mask[i] = uint8_t((alpha(v) < 9) | (darkest >= floor));
    }
}

// Content pixels of a stretch of one row.
CUTLARK_CLONES int contentIn(const uint8_t* m, int n) {
    int count = 0;
    for (int i = 0; i < n; ++i)
        count += m[i] == 0;
    return count;
}

// Adds each column's content pixels over the rows of `r` into `counts`.
CUTLARK_CLONES void addColumns(const uint8_t* m, int n, int* counts) {
    for (int i = 0; i < n; ++i)
        counts[i] += m[i] == 0;
}

// The tight box of the content pixels inside `r`.
std::optional<IRect> content(const Mask& mask, const IRect& r) {
    int minX = INT_MAX, maxX = -1, minY = -1, maxY = -1;
    for (int y = r.y; y < r.y + r.h; ++y) {
        const uint8_t* row = mask.row(y) + r.x;
        const void* first = std::memchr(row, 0, size_t(r.w));
        if (!first) continue;
        const int left = int(static_cast<const uint8_t*>(first) - row);
        int right = r.w - 1;
        while (row[right] != 0)
            --right;
        minX = std::min(minX, left);
        maxX = std::max(maxX, right);
        if (minY < 0) minY = y;
        maxY = y;
    }
    if (minY < 0) return std::nullopt;
    return IRect{r.x + minX, minY, maxX - minX + 1, maxY - minY + 1};
}

// Cuts `r` across its rows (`horizontal`) or columns at the middle of every inner blank run of at
// least `minGutter` lines; none without such a run. A line is blank when it holds at most 1.2 % of
// its length in content pixels. Each part keeps its half of a gutter.
std::optional<std::vector<IRect>> split(const Mask& mask, const IRect& r, bool horizontal, int minGutter) {
    const int n = horizontal ? r.h : r.w;
    if (n < 2 * minGutter + 2) return std::nullopt;
    const int length = horizontal ? r.w : r.h;
    const int tolerance = int(length * 0.012);

    std::vector<uint8_t> empty(static_cast<size_t>(n));
    if (horizontal) {
        for (int i = 0; i < n; ++i) {
            const uint8_t* row = mask.row(r.y + i) + r.x;
            // Counting stops as soon as the tolerance is passed.
            if (tolerance == 0) {
                empty[size_t(i)] = std::memchr(row, 0, size_t(r.w)) == nullptr;
                continue;
            }
            int count = 0;
            for (int x = 0; x < r.w && count <= tolerance; x += 256)
                count += contentIn(row + x, std::min(256, r.w - x));
            empty[size_t(i)] = count <= tolerance;
        }
    } else {
        // Columns are counted row by row, which reads memory in order.
        std::vector<int> counts(size_t(n), 0);
        for (int y = r.y; y < r.y + r.h; ++y)
            addColumns(mask.row(y) + r.x, n, counts.data());
        for (int i = 0; i < n; ++i)
            empty[size_t(i)] = counts[size_t(i)] <= tolerance;
    }

    std::vector<int> cuts;
    int i = 0;
    while (i < n) {
        if (!empty[size_t(i)]) {
            ++i;
            continue;
        }
        const int first = i;
        while (i < n && empty[size_t(i)])
            ++i;
        const int last = i - 1;
        if (last == n - 1) break;                   // an outer margin ends the walk
        if (first == 0) continue;                   // an outer margin makes no cut
        if (last - first + 1 < minGutter) continue; // too narrow for a gutter
        cuts.push_back((first + last) / 2);
    }
    if (cuts.empty()) return std::nullopt;

    std::vector<IRect> parts;
    int a = 0;
    cuts.push_back(n);
    for (int b : cuts) {
        parts.push_back(horizontal ? IRect{r.x, r.y + a, r.w, b - a} : IRect{r.x + a, r.y, b - a, r.h});
        a = b;
    }
    return parts;
}

// Guillotine decomposition: the preferred direction first, each level preferring the direction not
// just cut; leaves come out depth first.
void cut(const Mask& mask, const IRect& r, bool horizontalFirst, int minGutter, std::vector<IRect>& leaves) {
    if (auto parts = split(mask, r, horizontalFirst, minGutter)) {
        for (const IRect& part : *parts)
            cut(mask, part, !horizontalFirst, minGutter, leaves);
        return;
    }
    if (auto parts = split(mask, r, !horizontalFirst, minGutter)) {
        for (const IRect& part : *parts)
            cut(mask, part, horizontalFirst, minGutter, leaves);
        return;
    }
    leaves.push_back(r);
}

struct PoolBytes {
    void operator()(uint8_t* p) const { BufferPool::release(p); }
};

} // namespace

int blankFloor(double threshold) {
    const double t = std::isnan(threshold) ? 0.0 : threshold / 100;
    if (t >= 1) return 120;
    return int(std::max(t, 0.06) * -135 + 255);
}

QList<QRectF> pieces(const CropEngine::Buffer& buffer, double threshold) {
    const qint64 W = buffer.width(), H = buffer.height();
    if (W < 9 || H < 9) return {};
    std::unique_ptr<uint8_t, PoolBytes> bytes(
        static_cast<uint8_t*>(BufferPool::acquire(size_t(W) * size_t(H))));
    if (!bytes) return {};
    markBlank(buffer.pixels(), W * H, uint32_t(blankFloor(threshold)), bytes.get());
    const Mask mask{bytes.get(), int(W)};

    const auto whole = content(mask, IRect{0, 0, int(W), int(H)});
    if (!whole) return {};
    const double m = double(std::min(W, H));
    const int minGutter = std::max(4, int(std::round(0.008 * m)));
    std::vector<IRect> leaves;
    cut(mask, *whole, true, minGutter, leaves);

    // Sizes are measured on the whole picture, not on its content.
    const int minSide = std::max(16, int(std::round(0.04 * m)));
    const double minArea = 0.004 * double(W) * double(H);
    std::vector<IRect> kept;
    for (const IRect& leaf : leaves) {
        if (leaf.w < minSide || leaf.h < minSide || double(leaf.w) * leaf.h < minArea) continue;
        if (!content(mask, leaf)) continue;
        kept.push_back(leaf); // the leaf itself, not tightened to its content
    }
    if (kept.size() < 2 || kept.size() > 40) return {};
    std::stable_sort(kept.begin(), kept.end(),
                     [](const IRect& a, const IRect& b) { return qint64(a.w) * a.h > qint64(b.w) * b.h; });
    QList<QRectF> out;
    for (const IRect& r : kept)
        out.append(QRectF(r.x, r.y, r.w, r.h));
    return out;
}

} // namespace cutlark::CollageSplitter
