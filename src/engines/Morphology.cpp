#include "engines/Morphology.h"

#include "engines/PixelOps.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

namespace cutlark::Morphology {

namespace {

// Half the width of the disc's row at vertical offset dy: the largest dx with dx² + dy² ≤ r²; −1
// for a row the disc doesn't reach (the kernel's square is wider than the disc when r isn't whole).
int halfWidth(double radius, int dy) {
    if (double(dy) * dy > radius * radius + 1e-9) return -1;
    int a = 0;
    while (double(a + 1) * (a + 1) + double(dy) * dy <= radius * radius + 1e-9)
        ++a;
    return a;
}

CUTLARK_CLONES void maxInto(uchar* acc, const uchar* a, const uchar* b, int n) {
    for (int i = 0; i < n; ++i)
        acc[i] = std::max(acc[i], std::max(a[i], b[i]));
}

CUTLARK_CLONES void pairMax(uchar* out, const uchar* in, int shift, int n) {
    for (int i = 0; i < n; ++i)
        out[i] = std::max(in[i], in[i + shift]);
}

// The running maxima of one row over windows of 1, 2, 4, … pixels: level j at index i holds the
// largest value of the padded row over [i, i + 2^j). Any window is then the larger of two lookups.
class RowTable {
public:
    RowTable(int width, int pad, int levels)
        : m_stride(width + 2 * pad + (1 << levels)), m_pad(pad), m_levels(levels) {
        m_data.assign(size_t(m_stride) * size_t(levels + 1), 0);
    }
    void fill(const uchar* row, int width) {
        uchar* level0 = m_data.data();
        std::memset(level0, 0, size_t(m_stride));
        if (row) std::memcpy(level0 + m_pad, row, size_t(width));
        for (int j = 1; j <= m_levels; ++j)
            pairMax(level(j), level(j - 1), 1 << (j - 1), m_stride - (1 << j));
    }
    // The level's values from window start `from` (a row position, may be below 0 down to −pad).
    const uchar* at(int j, int from) const { return m_data.data() + size_t(j) * m_stride + m_pad + from; }

private:
    uchar* level(int j) { return m_data.data() + size_t(j) * m_stride; }
    int m_stride, m_pad, m_levels;
    std::vector<uchar> m_data;
};

} // namespace

cv::Mat diskKernel(double radius) {
    const int r = radius > 0 ? int(std::ceil(radius)) : 0;
    cv::Mat kernel(2 * r + 1, 2 * r + 1, CV_8U, cv::Scalar(0));
    for (int dy = -r; dy <= r; ++dy)
        for (int dx = -r; dx <= r; ++dx)
            if (dx * dx + dy * dy <= radius * radius + 1e-9) kernel.at<uchar>(dy + r, dx + r) = 1;
    kernel.at<uchar>(r, r) = 1;
    return kernel;
}

void dilateDisk(const cv::Mat& in, cv::Mat& out, double radius) {
    // The disc taken row by row: the maximum over the disc is the maximum, over its rows, of a
    // horizontal window's maximum, and each window is two lookups in its source row's table of
    // running maxima. So a pixel costs two lookups per row of the disc, not one per pixel of it.
    CV_Assert(in.type() == CV_8U);
    const int r = radius > 0 ? int(std::ceil(radius)) : 0;
    const int W = in.cols, H = in.rows;
    out.create(H, W, CV_8U);
    if (r == 0 || W == 0 || H == 0) {
        in.copyTo(out);
        return;
    }
    std::vector<int> half(size_t(2 * r + 1));
    int widest = 0;
    for (int dy = -r; dy <= r; ++dy)
        widest = std::max(widest, half[size_t(dy + r)] = halfWidth(radius, dy));
    int levels = 0;
    while ((2 << levels) <= 2 * widest + 1)
        ++levels;
    // A ring of the tables of the 2r + 1 source rows around the output row; rows outside are 0.
    std::vector<RowTable> ring;
    ring.reserve(size_t(2 * r + 1));
    for (int i = 0; i < 2 * r + 1; ++i)
        ring.emplace_back(W, widest, levels);
    const auto tableOf = [&](int s) -> RowTable& {
        return ring[size_t(((s % (2 * r + 1)) + (2 * r + 1)) % (2 * r + 1))];
    };
    for (int s = -r; s < r; ++s)
        tableOf(s).fill(s >= 0 && s < H ? in.ptr<uchar>(s) : nullptr, W);
    std::vector<uchar> acc(static_cast<size_t>(W));
    for (int y = 0; y < H; ++y) {
        const int incoming = y + r;
        tableOf(incoming).fill(incoming < H ? in.ptr<uchar>(incoming) : nullptr, W);
        std::fill(acc.begin(), acc.end(), 0);
        for (int dy = -r; dy <= r; ++dy) {
            const int s = y + dy;
            if (s < 0 || s >= H) continue;
            const int a = half[size_t(dy + r)];
            if (a < 0) continue;
            int j = 0;
            while ((2 << j) <= 2 * a + 1)
                ++j;
            const RowTable& t = tableOf(s);
            // The window [x − a, x + a] as two windows of 2^j: one from its left end, one ending at its
            // right.
            maxInto(acc.data(), t.at(j, -a), t.at(j, a + 1 - (1 << j)), W);
        }
        std::memcpy(out.ptr<uchar>(y), acc.data(), size_t(W));
    }
}

void erodeDisk(const cv::Mat& in, cv::Mat& out, double radius) {
    cv::erode(in, out, diskKernel(radius), cv::Point(-1, -1), 1, cv::BORDER_REPLICATE);
}

} // namespace cutlark::Morphology
