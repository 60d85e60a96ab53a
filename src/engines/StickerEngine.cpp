#include "engines/StickerEngine.h"

#include "engines/CropEngine.h"
#include "engines/Morphology.h"
#include "engines/PixelOps.h"
#include "engines/PooledMat.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <vector>

namespace cutlark::StickerEngine {

namespace {

using namespace PixelOps;

// The steep alpha line of the edge refinement, as a table over 8-bit alpha: 10 × a − 4.5, clamped.
// It puts the edge back where the blurred alpha is one half.
const std::array<uchar, 256>& steepLine() {
    static const std::array<uchar, 256> table = [] {
        std::array<uchar, 256> t{};
        for (int v = 0; v < 256; ++v) {
            const double a = std::clamp(10.0 * v / 255.0 - 4.5, 0.0, 1.0);
            t[size_t(v)] = uchar(std::lround(a * 255.0));
        }
        return t;
    }();
    return table;
}

CUTLARK_CLONES void alphaOf(const uint32_t* pixels, uchar* out, int n) {
    for (int x = 0; x < n; ++x)
        out[x] = uchar(pixels[x] >> 24);
}

CUTLARK_CLONES void steepRow(const uchar* table, uchar* p, int n) {
    for (int x = 0; x < n; ++x)
        p[x] = table[p[x]];
}

CUTLARK_CLONES void addRow(const uchar* in, uint32_t* sums, int n) {
    for (int x = 0; x < n; ++x)
        sums[x] += in[x];
}

// The mean of each k × k block of `in` (8 bits, one channel), rounded; blocks reaching past the
// plane count the missing pixels as 0. As INTER_AREA at a whole factor, in one streaming pass.
void blockMeans(const cv::Mat& in, cv::Mat& out, int k) {
    const int w = (in.cols + k - 1) / k, h = (in.rows + k - 1) / k;
    out.create(h, w, CV_8U);
    std::vector<uint32_t> sums(static_cast<size_t>(in.cols));
    const uint32_t area = uint32_t(k) * uint32_t(k);
    for (int y = 0; y < h; ++y) {
        std::fill(sums.begin(), sums.end(), 0u);
        for (int i = 0; i < k && y * k + i < in.rows; ++i)
            addRow(in.ptr<uchar>(y * k + i), sums.data(), in.cols);
        uchar* o = out.ptr<uchar>(y);
        for (int x = 0; x < w; ++x) {
            uint32_t total = 0;
            for (int j = x * k; j < std::min((x + 1) * k, in.cols); ++j)
                total += sums[size_t(j)];
            o[x] = uchar((total + area / 2) / area);
        }
    }
}

// A soft or jagged alpha edge made smooth and nearly hard: blur, then the steep line.
void refineAlpha(const cv::Mat& in, cv::Mat& out, double softness) {
    cv::GaussianBlur(in, out, cv::Size(0, 0), softness, softness, cv::BORDER_CONSTANT);
    const auto& table = steepLine();
    for (int y = 0; y < out.rows; ++y)
        steepRow(table.data(), out.ptr<uchar>(y), out.cols);
}

// The factor the outline's blur is worked out at. The blur is wide and linear, so it can run on a
// plane reduced by whole blocks and be brought back with cubic interpolation, giving the same edge
// to within a level or two at a fraction of the cost. The growth itself (a maximum, which no
// averaging commutes with) always runs at full size. Narrow borders stay at full size throughout.
int blurReduction(double softness) {
    return std::clamp(int(softness / 4), 1, 8);
}

// The outline grown from `base` inside `grown`: dilated by w, blurred by the softness, then the
// steep line; written into `outline`'s `grown` part.
void growOutline(const cv::Mat& base, const cv::Rect& grown, double w, double softness, cv::Mat& outline) {
    const int k = blurReduction(softness);
    cv::Mat inside = outline(grown);
    if (k == 1) {
        PooledMat dilated(grown.height, grown.width, CV_8U);
        Morphology::dilateDisk(base(grown), dilated.mat(), w);
        refineAlpha(dilated.mat(), inside, softness);
        return;
    }
    // The dilation, padded with nothing to whole blocks of k.
    const int sw = (grown.width + k - 1) / k, sh = (grown.height + k - 1) / k;
    PooledMat dilated(sh * k, sw * k, CV_8U, cv::Scalar(0));
    cv::Mat region = dilated.mat()(cv::Rect(0, 0, grown.width, grown.height));
    Morphology::dilateDisk(base(grown), region, w);
    // Block averages already blur by a box of k (variance k²/12); the Gaussian makes up the rest.
    // The field stays in 16 bits so that bringing it back adds no rounding of its own.
    PooledMat reduced(sh, sw, CV_8U), wide(sh, sw, CV_16U), blurred(sh, sw, CV_16U),
        back(sh * k, sw * k, CV_16U);
    blockMeans(dilated.mat(), reduced.mat(), k);
    reduced.mat().convertTo(wide.mat(), CV_16U, 256.0);
    const double sigma = std::sqrt(std::max(softness * softness - k * k / 12.0, 0.25)) / k;
    cv::GaussianBlur(wide.mat(), blurred.mat(), cv::Size(0, 0), sigma, sigma, cv::BORDER_CONSTANT);
    cv::resize(blurred.mat(), back.mat(), back.mat().size(), 0, 0, cv::INTER_CUBIC);
    // The steep line on the 16-bit field (255 × 256 is opaque): 10 × a − 4.5, clamped, as a table
    // over its top 12 bits.
    static const std::array<uchar, 4096> steep16 = [] {
        std::array<uchar, 4096> t{};
        for (int v = 0; v < 4096; ++v) {
            const double a = std::clamp(10.0 * (v + 0.5) * 16.0 / (255.0 * 256.0) - 4.5, 0.0, 1.0);
            t[size_t(v)] = uchar(std::lround(a * 255.0));
        }
        return t;
    }();
    for (int y = 0; y < grown.height; ++y) {
        const ushort* b = back.mat().ptr<ushort>(y);
        uchar* o = inside.ptr<uchar>(y);
        for (int x = 0; x < grown.width; ++x)
            o[x] = steep16[b[x] >> 4];
    }
}

// The shadow's blur is wide and its result smooth, so it is worked out on a plane reduced by a
// whole factor; the composite samples it back, dropped, with bilinear interpolation.
struct ReducedShadow {
    ReducedShadow(const cv::Mat& outline, double sigma, double dropped)
        : k(std::max(1, int(sigma / 3))),
          plane((outline.rows + k - 1) / k, (outline.cols + k - 1) / k, CV_8U), sx(1.0 / k), sy(1.0 / k),
          drop(dropped) {
        PooledMat reduced(plane.mat().rows, plane.mat().cols, CV_8U);
        blockMeans(outline, reduced.mat(), k);
        cv::GaussianBlur(reduced.mat(), plane.mat(), cv::Size(0, 0), sigma / k, sigma / k,
                         cv::BORDER_CONSTANT);
    }
    int k;
    PooledMat plane;
    double sx, sy; // reduced pixels per full pixel
    double drop;   // in full pixels, straight down
};

// Subject over white outline over half-black shadow, into premultiplied RGBA, for one run of
// pixels: `p` the subject's pixels (null over the margins, where there is no subject), `o` the
// outline's alpha, `shadow` the shadow's row at full width.
CUTLARK_CLONES void compositeSpan(const uint32_t* p, const uchar* o, const uchar* shadow, int n,
                                  uint32_t* d) {
    for (int x = 0; x < n; ++x) {
        const uint32_t px = p ? p[x] : 0u;
        const uint32_t a = px >> 24;
        const uint32_t outlineA = o[x];
        const uint32_t shadowA = (uint32_t(shadow[x]) + 1) >> 1; // black at half the outline's alpha
        // The white outline over the shadow: colour is the outline's own (white, premultiplied).
        const uint32_t layerA = outlineA + div255(shadowA * (255 - outlineA));
        const uint32_t inv = 255 - a;
        const uint32_t c = div255(outlineA * inv);
        // Where the subject is opaque nothing under it shows: inv is 0 and its pixel comes out as it is.
        d[x] = (red(px) + c) | ((green(px) + c) << 8) | ((blue(px) + c) << 16) |
               ((a + div255(layerA * inv)) << 24);
    }
}

// The shadow's row for full row y: its reduced plane sampled at the point the shadow falls from,
// bilinearly, in 32nds as warping would.
void shadowRow(const ReducedShadow& shadow, int y, const std::vector<int>& sx0, const std::vector<int>& fx,
               std::vector<ushort>& vertical, uchar* out, int W) {
    const cv::Mat& small = shadow.plane.mat();
    const double v = (y + 0.5 - shadow.drop) * shadow.sy - 0.5;
    int above = int(std::floor(v));
    int fy = int(std::lround((v - above) * 32));
    if (fy == 32) ++above, fy = 0;
    const uchar* a = (above >= 0 && above < small.rows) ? small.ptr<uchar>(above) : nullptr;
    const uchar* b = (fy && above + 1 >= 0 && above + 1 < small.rows) ? small.ptr<uchar>(above + 1) : nullptr;
    if (!a && !b) {
        std::memset(out, 0, size_t(W));
        return;
    }
    // Down first, once per reduced column; then across, per full pixel. Outside the plane is 0.
    const int n = small.cols;
    for (int i = 0; i < n; ++i)
        vertical[size_t(i) + 1] = ushort((a ? a[i] : 0) * (32 - fy) + (b ? b[i] : 0) * fy);
    vertical[0] = 0;
    vertical[size_t(n) + 1] = 0;
    vertical[size_t(n) + 2] = 0;
    for (int x = 0; x < W; ++x) {
        const int i = sx0[size_t(x)] + 1, f = fx[size_t(x)];
        out[x] = uchar((vertical[size_t(i)] * (32 - f) + vertical[size_t(i) + 1] * f + 512) >> 10);
    }
}

void composite(const QImage& subject, int margin, const cv::Mat& outline, const ReducedShadow& shadow,
               QImage& out) {
    const int W = out.width(), H = out.height();
    const int n = shadow.plane.mat().cols;
    // Per column, the reduced column left of the sampling point (from −1) and the weight of the one
    // right of it, in 32nds; the sampling point of full pixel centre x is (x + ½)·sx − ½.
    std::vector<int> sx0(static_cast<size_t>(W)), fx(static_cast<size_t>(W));
    for (int x = 0; x < W; ++x) {
        const double u = (x + 0.5) * shadow.sx - 0.5;
        int left = int(std::floor(u));
        int f = int(std::lround((u - left) * 32));
        if (f == 32) ++left, f = 0;
        sx0[size_t(x)] = std::clamp(left, -1, n);
        fx[size_t(x)] = left >= n ? 0 : f;
    }
    std::vector<ushort> vertical(static_cast<size_t>(n + 3)); // a 0 before the plane and two after it
    std::vector<uchar> shadowLine(static_cast<size_t>(W));
    const QImage& src = subject;
    const int sw = src.width();
    for (int y = 0; y < H; ++y) {
        shadowRow(shadow, y, sx0, fx, vertical, shadowLine.data(), W);
        const uchar* o = outline.ptr<uchar>(y);
        uint32_t* d = row(out, y);
        const int sy = y - margin;
        if (sy < 0 || sy >= src.height()) {
            compositeSpan(nullptr, o, shadowLine.data(), W, d);
            continue;
        }
        compositeSpan(nullptr, o, shadowLine.data(), margin, d);
        compositeSpan(row(src, sy), o + margin, shadowLine.data() + margin, sw, d + margin);
        compositeSpan(nullptr, o + margin + sw, shadowLine.data() + margin + sw, W - margin - sw,
                      d + margin + sw);
    }
}

} // namespace

Metrics metrics(double strokeWidth, double scale) {
    const double w = (strokeWidth > 0 && std::isfinite(strokeWidth)) ? strokeWidth : 0.0;
    Metrics m{};
    m.strokeWidth = w;
    m.softness = std::max(w * 0.35, 1.0);
    m.shadowBlur = w * 0.9 + 6 * scale;
    m.shadowDrop = w * 0.4 + 6 * scale;
    m.workingMargin = int(std::min(std::ceil(w) + 2, 1e9));
    m.renderMargin = int(std::min(std::ceil(m.shadowBlur * 2.5 + w + m.shadowDrop) + 2, 1e9));
    return m;
}

std::optional<QImage> make(const QImage& image, double strokeWidth, double scale) {
    const Metrics m = metrics(strokeWidth, scale);
    // The transparent margin goes first, so it makes no difference to the result.
    QImage subject = image;
    if (auto buffer = CropEngine::Buffer::make(image))
        if (auto bounds = CropEngine::alphaContentRect(*buffer, 0))
            if (auto cropped = CropEngine::crop(*buffer, *bounds)) subject = *cropped;
    if (subject.width() < 1 || subject.height() < 1) return image;
    subject = rgbaPixels(subject);
    if (subject.isNull()) return image;

    const int margin = m.renderMargin;
    const qint64 W = qint64(subject.width()) + 2 * qint64(margin),
                 H = qint64(subject.height()) + 2 * qint64(margin);
    // Several planes of a byte per pixel come on top of the result.
    if (!canvasFits(W, H * 2)) return image;
    QImage out = newCanvas(W, H);
    if (out.isNull()) return image;

    try {
        // The silhouette: white, with the subject's alpha, its edge refined.
        const int rows = int(H), cols = int(W);
        PooledMat silhouette(rows, cols, CV_8U), base(rows, cols, CV_8U);
        const QImage& src = subject; // read through a const image: a writable one would be copied first
        for (int y = 0; y < rows; ++y) {
            uchar* a = silhouette.mat().ptr<uchar>(y);
            const int sy = y - margin;
            if (sy < 0 || sy >= src.height()) {
                std::memset(a, 0, size_t(cols));
                continue;
            }
            std::memset(a, 0, size_t(margin));
            alphaOf(row(src, sy), a + margin, src.width());
            std::memset(a + margin + src.width(), 0, size_t(cols - margin - src.width()));
        }
        refineAlpha(silhouette.mat(), base.mat(), 1.0);

        // The outline: the silhouette grown by w, kept within the working margin, edge refined again.
        PooledMat grownOutline(m.strokeWidth > 0 ? rows : 1, m.strokeWidth > 0 ? cols : 1, CV_8U);
        cv::Mat outline = base.mat();
        if (m.strokeWidth > 0) {
            const int wm = m.workingMargin;
            const cv::Rect grown(margin - wm, margin - wm, subject.width() + 2 * wm,
                                 subject.height() + 2 * wm);
            outline = grownOutline.mat();
            outline.setTo(cv::Scalar(0));
            growOutline(base.mat(), grown, m.strokeWidth, m.softness, outline);
        }

        const ReducedShadow shadow(outline, m.shadowBlur, m.shadowDrop);
        composite(subject, margin, outline, shadow, out);
    } catch (const cv::Exception&) {
        return image;
    }

    // The faintest shadow tail falls away here.
    if (auto buffer = CropEngine::Buffer::make(out))
        if (auto bounds = CropEngine::alphaContentRect(*buffer, 1))
            if (auto cropped = CropEngine::crop(*buffer, *bounds)) return *cropped;
    return out;
}

} // namespace cutlark::StickerEngine
