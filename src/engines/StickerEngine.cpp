#include "engines/StickerEngine.h"

#include "engines/CropEngine.h"
#include "engines/Morphology.h"
#include "engines/PixelOps.h"
#include "engines/PooledMat.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <array>
#include <cmath>

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

// A soft or jagged alpha edge made smooth and nearly hard: blur, then the steep line.
void refineAlpha(const cv::Mat& in, cv::Mat& out, double softness) {
    cv::GaussianBlur(in, out, cv::Size(0, 0), softness, softness, cv::BORDER_CONSTANT);
    const auto& table = steepLine();
    for (int y = 0; y < out.rows; ++y) {
        uchar* p = out.ptr<uchar>(y);
        for (int x = 0; x < out.cols; ++x)
            p[x] = table[p[x]];
    }
}

// The shadow's blur is wide and its result smooth, so it is worked out on a plane reduced by a
// whole factor and brought back with the drop folded into the same resampling.
void blurredDroppedShadow(const cv::Mat& outline, cv::Mat& shadow, double sigma, double drop) {
    const int k = std::max(1, int(sigma / 3));
    const int sw = (outline.cols + k - 1) / k, sh = (outline.rows + k - 1) / k;
    PooledMat reduced(sh, sw, CV_8U), blurred(sh, sw, CV_8U);
    cv::Mat& small = blurred.mat();
    cv::resize(outline, reduced.mat(), cv::Size(sw, sh), 0, 0, k > 1 ? cv::INTER_AREA : cv::INTER_LINEAR);
    cv::GaussianBlur(reduced.mat(), small, cv::Size(0, 0), sigma / k, sigma / k, cv::BORDER_CONSTANT);
    // Inverse map: the full-size pixel centre (x, y) samples the reduced plane at the point the
    // shadow came from, drop pixels higher up.
    const double sx = double(sw) / outline.cols, sy = double(sh) / outline.rows;
    const cv::Matx23d toSmall(sx, 0, 0.5 * sx - 0.5, 0, sy, (0.5 - drop) * sy - 0.5);
    cv::warpAffine(small, shadow, toSmall, outline.size(), cv::INTER_LINEAR | cv::WARP_INVERSE_MAP,
                   cv::BORDER_CONSTANT, cv::Scalar(0));
}

// Subject over white outline over half-black shadow, into premultiplied RGBA.
void composite(const QImage& subject, int margin, const cv::Mat& outline, const cv::Mat& shadow,
               QImage& out) {
    const int W = out.width(), H = out.height();
    for (int y = 0; y < H; ++y) {
        const uchar* o = outline.ptr<uchar>(y);
        const uchar* s = shadow.ptr<uchar>(y);
        uint32_t* d = row(out, y);
        const int sy = y - margin;
        const uint32_t* subjectRow = (sy >= 0 && sy < subject.height()) ? row(subject, sy) : nullptr;
        for (int x = 0; x < W; ++x) {
            const uint32_t outlineA = o[x];
            const uint32_t shadowA = (uint32_t(s[x]) + 1) >> 1; // black at half the outline's alpha
            // The white outline over the shadow: colour is the outline's own (white, premultiplied).
            const uint32_t layerA = outlineA + div255(shadowA * (255 - outlineA));
            const uint32_t layerC = outlineA;
            const int sx = x - margin;
            const uint32_t p = (subjectRow && sx >= 0 && sx < subject.width()) ? subjectRow[sx] : 0u;
            const uint32_t inv = 255 - alpha(p);
            const uint32_t c = div255(layerC * inv);
            d[x] = (red(p) + c) | ((green(p) + c) << 8) | ((blue(p) + c) << 16) |
                   ((alpha(p) + div255(layerA * inv)) << 24);
        }
    }
}

} // namespace

Metrics metrics(double strokeWidth) {
    const double w = (strokeWidth > 0 && std::isfinite(strokeWidth)) ? strokeWidth : 0.0;
    Metrics m{};
    m.strokeWidth = w;
    m.softness = std::max(w * 0.35, 1.0);
    m.shadowBlur = w * 0.9 + 6;
    m.shadowDrop = w * 0.4 + 6;
    m.workingMargin = int(std::min(std::ceil(w) + 2, 1e9));
    m.renderMargin = int(std::min(std::ceil(m.shadowBlur * 2.5 + w + m.shadowDrop) + 2, 1e9));
    return m;
}

std::optional<QImage> make(const QImage& image, double strokeWidth) {
    const Metrics m = metrics(strokeWidth);
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
        PooledMat silhouette(rows, cols, CV_8U, cv::Scalar(0)), base(rows, cols, CV_8U);
        for (int y = 0; y < subject.height(); ++y) {
            const uint32_t* s = row(subject, y);
            uchar* a = silhouette.mat().ptr<uchar>(y + margin) + margin;
            for (int x = 0; x < subject.width(); ++x)
                a[x] = uchar(alpha(s[x]));
        }
        refineAlpha(silhouette.mat(), base.mat(), 1.0);

        // The outline: the silhouette grown by w, kept within the working margin, edge refined again.
        PooledMat grownOutline(m.strokeWidth > 0 ? rows : 1, m.strokeWidth > 0 ? cols : 1, CV_8U);
        cv::Mat outline = base.mat();
        if (m.strokeWidth > 0) {
            const int wm = m.workingMargin;
            const cv::Rect grown(margin - wm, margin - wm, subject.width() + 2 * wm,
                                 subject.height() + 2 * wm);
            PooledMat dilated(grown.height, grown.width, CV_8U);
            Morphology::dilateDisk(base.mat()(grown), dilated.mat(), m.strokeWidth);
            outline = grownOutline.mat();
            outline.setTo(cv::Scalar(0));
            cv::Mat inside = outline(grown);
            refineAlpha(dilated.mat(), inside, m.softness);
        }

        PooledMat shadow(rows, cols, CV_8U);
        blurredDroppedShadow(outline, shadow.mat(), m.shadowBlur, m.shadowDrop);
        composite(subject, margin, outline, shadow.mat(), out);
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
