// The subject cutout's mask made into a platform-like one, and applied to the source.
#include "engines/VisionEngine.h"

#include "engines/Decontamination.h"
#include "engines/Morphology.h"
#include "engines/PixelOps.h"
#include "engines/PooledMat.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <vector>

namespace cutlark::VisionEngine {

using namespace PixelOps;

bool isEmptyMask(const QImage& mask) {
    if (mask.isNull()) return true;
    qint64 above = 0;
    for (int y = 0; y < mask.height(); ++y) {
        const uchar* p = mask.constScanLine(y);
        for (int x = 0; x < mask.width(); ++x)
            above += p[x] > 127;
    }
    return double(above) < 0.005 * double(mask.width()) * double(mask.height());
}

QImage shapeMask(const QImage& raw, const MaskShaping& shaping) {
    if (raw.isNull()) return QImage();
    const QImage grey =
        raw.format() == QImage::Format_Grayscale8 ? raw : raw.convertToFormat(QImage::Format_Grayscale8);
    const int w = grey.width(), h = grey.height();
    QImage out(w, h, QImage::Format_Grayscale8);
    if (out.isNull()) return QImage();
    try {
        const cv::Mat in(h, w, CV_8U, const_cast<uchar*>(grey.constBits()), size_t(grey.bytesPerLine()));
        cv::Mat dst(h, w, CV_8U, out.bits(), size_t(out.bytesPerLine()));
        // Islands: label what is above the floor; keep the labels that reach above one half.
        cv::Mat region = in > shaping.floor;
        cv::Mat labels;
        const int count = cv::connectedComponents(region, labels, 8, CV_32S);
        std::vector<uchar> strong(size_t(std::max(count, 1)), 0);
        for (int y = 0; y < h; ++y) {
            const uchar* p = in.ptr<uchar>(y);
            const int* l = labels.ptr<int>(y);
            for (int x = 0; x < w; ++x)
                if (p[x] > 127) strong[size_t(l[x])] = 1;
        }
        // The contrast curve, on what survived.
        const double span = std::max(1, shaping.high - shaping.low);
        uchar curve[256];
        for (int v = 0; v < 256; ++v)
            curve[v] = uchar(std::clamp(std::lround((v - shaping.low) * 255.0 / span), 0L, 255L));
        for (int y = 0; y < h; ++y) {
            const uchar* p = in.ptr<uchar>(y);
            const int* l = labels.ptr<int>(y);
            uchar* d = dst.ptr<uchar>(y);
            for (int x = 0; x < w; ++x)
                d[x] = l[x] > 0 && strong[size_t(l[x])] ? curve[p[x]] : 0;
        }
        // Outside the band along the half-way contour, wholly in or out.
        if (shaping.band > 0) {
            cv::Mat solid = dst > 127;
            cv::Mat empty = dst <= 127;
            cv::Mat toEmpty, toSolid;
            cv::distanceTransform(solid, toEmpty, cv::DIST_L2, 3);
            cv::distanceTransform(empty, toSolid, cv::DIST_L2, 3);
            const float band = float(shaping.band);
            for (int y = 0; y < h; ++y) {
                uchar* d = dst.ptr<uchar>(y);
                const float* in1 = toEmpty.ptr<float>(y);
                const float* out1 = toSolid.ptr<float>(y);
                for (int x = 0; x < w; ++x) {
                    if (d[x] > 127 && in1[x] > band)
                        d[x] = 255;
                    else if (d[x] <= 127 && out1[x] > band)
                        d[x] = 0;
                }
            }
        }
    } catch (const cv::Exception&) {
        return QImage();
    }
    return out;
}

EdgeRadius edgeRadius(int width, int height) {
    const double r = std::clamp(std::max(width, height) / 800.0, 1.5, 6.0);
    return {r, r * 0.6};
}

std::optional<QImage> composite(const QImage& source, const QImage& maskImage, bool decontaminate) {
    const QImage src = rgbaPixels(source);
    if (src.isNull() || maskImage.isNull()) return std::nullopt;
    const QImage grey = maskImage.format() == QImage::Format_Grayscale8
                            ? maskImage
                            : maskImage.convertToFormat(QImage::Format_Grayscale8);
    const int W = src.width(), H = src.height();
    QImage out = newCanvas(W, H);
    if (out.isNull()) return std::nullopt;
    try {
        const cv::Mat small(grey.height(), grey.width(), CV_8U, const_cast<uchar*>(grey.constBits()),
                            size_t(grey.bytesPerLine()));
        PooledMat full(H, W, CV_8U), pulled(H, W, CV_8U), soft(H, W, CV_8U);
        cv::resize(small, full.mat(), cv::Size(W, H), 0, 0, cv::INTER_LINEAR);
        const EdgeRadius edge = edgeRadius(W, H);
        // Edges are read as clamped, so a subject touching the border keeps its coverage there.
        Morphology::erodeDisk(full.mat(), pulled.mat(), edge.radius);
        cv::GaussianBlur(pulled.mat(), soft.mat(), cv::Size(0, 0), edge.blur, edge.blur,
                         cv::BORDER_REPLICATE);
        for (int y = 0; y < H; ++y) {
            const uchar* m = soft.mat().ptr<uchar>(y);
            const uchar* s = src.constScanLine(y);
            uchar* d = out.scanLine(y);
            for (int x = 0; x < 4 * W; ++x)
                d[x] = uchar(div255(uint32_t(s[x]) * m[x >> 2]));
        }
        if (decontaminate)
            Decontamination::pullForeground(src, soft.mat(), out, Decontamination::cellSideFor(W, H));
    } catch (const cv::Exception&) {
        return std::nullopt;
    }
    return out;
}

} // namespace cutlark::VisionEngine
