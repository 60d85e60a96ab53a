// Canvas operations: padding, backgrounds, canvas size and scaling.
#include "engines/CropEngine.h"

#include "engines/AreaResize.h"
#include "engines/PixelOps.h"

#include <QColorSpace>
#include <QPainter>

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <climits>
#include <cmath>
#include <vector>

namespace cutlark::CropEngine {

namespace {

using namespace PixelOps;

// A target side: rounded half away from zero, at least 1; absent when it can't be a size at all.
std::optional<qint64> targetSide(double v) {
    if (std::isnan(v)) return 1;
    const double r = roundHalfAway(v);
    if (r > double(INT_MAX)) return std::nullopt;
    return std::max<qint64>(1, qint64(r));
}

// A premultiplied byte of a component in 0…1 with alpha a.
uint32_t premultipliedByte(double c, double a) {
    const double v = std::clamp(c, 0.0, 1.0) * std::clamp(a, 0.0, 1.0) * 255.0;
    return uint32_t(std::lround(v));
}

uint32_t packedColor(double r, double g, double b, double a) {
    const uint32_t A = uint32_t(std::lround(std::clamp(a, 0.0, 1.0) * 255.0));
    return premultipliedByte(r, a) | (premultipliedByte(g, a) << 8) | (premultipliedByte(b, a) << 16) |
           (A << 24);
}

// Source over: the image's premultiplied pixel over a background pixel.
inline uint32_t over(uint32_t s, uint32_t d) {
    const uint32_t inv = 255 - alpha(s);
    return (red(s) + div255(red(d) * inv)) | ((green(s) + div255(green(d) * inv)) << 8) |
           ((blue(s) + div255(blue(d) * inv)) << 16) | ((alpha(s) + div255(alpha(d) * inv)) << 24);
}

// Blocks of an image are mostly all opaque (the background can't show) or all clear (only the
// background shows); those are copied, and only mixed blocks are composited.
constexpr int kBlock = 16;

template <class Background>
inline __attribute__((always_inline)) void overSpan(const uint32_t* s, Background bg, uint32_t* d, int w) {
    int x = 0;
    for (; x + kBlock <= w; x += kBlock) {
        uint32_t all = 0xffffffffu, any = 0;
        for (int k = 0; k < kBlock; ++k) {
            all &= s[x + k];
            any |= s[x + k];
        }
        if (alpha(all) == 255) {
            std::memcpy(d + x, s + x, kBlock * 4);
        } else if (any == 0) {
            for (int k = 0; k < kBlock; ++k)
                d[x + k] = bg(x + k);
        } else {
            for (int k = 0; k < kBlock; ++k)
                d[x + k] = over(s[x + k], bg(x + k));
        }
    }
    for (; x < w; ++x)
        d[x] = over(s[x], bg(x));
}

CUTLARK_CLONES void overColorRow(const uint32_t* s, uint32_t color, uint32_t* d, int w) {
    overSpan(
        s, [color](int) { return color; }, d, w);
}

void overColor(const QImage& src, QImage& dst, uint32_t color) {
    for (int y = 0; y < src.height(); ++y)
        overColorRow(row(src, y), color, row(dst, y), src.width());
}

// Premultiplied gradient ends, in bytes as floats; colours in between are interpolated linearly, so a
// fade to transparent carries no dark fringe.
struct Ramp {
    float r0, g0, b0, a0; // at the start
    float dr, dg, db, da; // to the end
    // For t in 0…1 only.
    uint32_t at(float t) const {
        const int r = int(r0 + t * dr + 0.5f), g = int(g0 + t * dg + 0.5f);
        const int b = int(b0 + t * db + 0.5f), a = int(a0 + t * da + 0.5f);
        return uint32_t(r) | (uint32_t(g) << 8) | (uint32_t(b) << 16) | (uint32_t(a) << 24);
    }
    uint32_t clamped(double t) const { return at(float(std::clamp(t, 0.0, 1.0))); }
};

// One row of the image over the gradient: `t` is the axis position of the row's first pixel centre
// (0 at the start, 1 at the end), `step` its change per pixel, not 0. The end colours extend beyond
// both ends, so only pixels between them are interpolated; and the colour is worked out only for
// blocks of the image that aren't opaque, since nothing else shows it.
CUTLARK_CLONES void overGradientSpan(const uint32_t* s, const Ramp& ramp, float t, float step, int from,
                                     int to, uint32_t left, uint32_t right, uint32_t* d, int w) {
    const Ramp r = ramp;
    auto colourAt = [&](int x) { return x < from ? left : (x >= to ? right : r.at(t + step * float(x))); };
    int x = 0;
    for (; x + kBlock <= w; x += kBlock) {
        uint32_t all = 0xffffffffu, any = 0;
        for (int k = 0; k < kBlock; ++k) {
            all &= s[x + k];
            any |= s[x + k];
        }
        if (alpha(all) == 255) {
            std::memcpy(d + x, s + x, kBlock * 4);
            continue;
        }
        uint32_t background[kBlock];
        if (x >= from && x + kBlock <= to) {
            for (int k = 0; k < kBlock; ++k)
                background[k] = r.at(t + step * float(x + k));
        } else {
            for (int k = 0; k < kBlock; ++k)
                background[k] = colourAt(x + k);
        }
        if (any == 0) {
            std::memcpy(d + x, background, kBlock * 4);
            continue;
        }
        for (int k = 0; k < kBlock; ++k)
            d[x + k] = over(s[x + k], background[k]);
    }
    for (; x < w; ++x)
        d[x] = over(s[x], colourAt(x));
}

void overGradientRow(const uint32_t* s, const Ramp& ramp, double t, double step, uint32_t* d, int w) {
    const double xStart = -t / step, xEnd = (1 - t) / step; // where t reaches 0 and 1
    const double lo = std::min(xStart, xEnd), hi = std::max(xStart, xEnd);
    const int from = int(std::clamp(std::ceil(lo), 0.0, double(w)));
    const int to = int(std::clamp(std::floor(hi) + 1, double(from), double(w)));
    overGradientSpan(s, ramp, float(t), float(step), from, to, ramp.clamped(t),
                     ramp.clamped(t + step * (w - 1)), d, w);
}

// Copies `src` into `dst` with its top-left corner at (dx, dy) (either may be negative: the image is
// then cut), and clears everything of `dst` it doesn't cover.
void place(const QImage& src, QImage& dst, qint64 dx, qint64 dy) {
    const qint64 W = dst.width(), H = dst.height(), w = src.width(), h = src.height();
    const qint64 x0 = std::max<qint64>(0, dx), x1 = std::min(W, dx + w); // covered columns of dst
    for (qint64 y = 0; y < H; ++y) {
        uchar* d = dst.scanLine(int(y));
        const qint64 sy = y - dy;
        if (sy < 0 || sy >= h || x1 <= x0) {
            std::memset(d, 0, size_t(W) * 4);
            continue;
        }
        std::memset(d, 0, size_t(x0) * 4);
        std::memcpy(d + x0 * 4, src.constScanLine(int(sy)) + (x0 - dx) * 4, size_t(x1 - x0) * 4);
        std::memset(d + x1 * 4, 0, size_t(W - x1) * 4);
    }
}

} // namespace

std::optional<QImage> pad(const QImage& image, const Insets& margins) {
    const qint64 top = std::max<qint64>(margins.top, 0), right = std::max<qint64>(margins.right, 0);
    const qint64 bottom = std::max<qint64>(margins.bottom, 0), left = std::max<qint64>(margins.left, 0);
    if (top == 0 && right == 0 && bottom == 0 && left == 0) return image;
    const qint64 limit = qint64(INT_MAX);
    if (left > limit || right > limit || top > limit || bottom > limit) return std::nullopt;
    const QImage src = rgbaPixels(image);
    if (src.isNull()) return std::nullopt;
    QImage out = newCanvas(src.width() + left + right, src.height() + top + bottom);
    if (out.isNull()) return std::nullopt;
    // Seen from the top left, the first pixel lands at (left, top).
    place(src, out, left, top);
    return out;
}

std::optional<QImage> fillColorBackground(const QImage& image, const RGBA& colour) {
    if (image.width() < 1 || image.height() < 1) return image;
    const QImage src = rgbaPixels(image);
    if (src.isNull()) return std::nullopt;
    // An opaque image hides any background.
    if (!src.hasAlphaChannel()) return image;
    QImage out = newCanvas(src.width(), src.height());
    if (out.isNull()) return std::nullopt;
    overColor(src, out, packedColor(colour.r, colour.g, colour.b, colour.a));
    return out;
}

std::optional<QImage> padOverColor(const QImage& image, const Insets& margins, const RGBA& colour) {
    const qint64 top = std::max<qint64>(margins.top, 0), right = std::max<qint64>(margins.right, 0);
    const qint64 bottom = std::max<qint64>(margins.bottom, 0), left = std::max<qint64>(margins.left, 0);
    if (top == 0 && right == 0 && bottom == 0 && left == 0) return fillColorBackground(image, colour);
    const qint64 limit = qint64(INT_MAX);
    if (left > limit || right > limit || top > limit || bottom > limit) return std::nullopt;
    if (image.width() < 1 || image.height() < 1) {
        const auto padded = pad(image, {top, right, bottom, left});
        return padded ? fillColorBackground(*padded, colour) : padded;
    }
    const QImage src = rgbaPixels(image);
    if (src.isNull()) return std::nullopt;
    QImage out = newCanvas(src.width() + left + right, src.height() + top + bottom);
    if (out.isNull()) return std::nullopt;
    const uint32_t color = packedColor(colour.r, colour.g, colour.b, colour.a);
    // The margins are the colour as compositing over a cleared pixel gives it.
    const uint32_t clear = 0;
    uint32_t margin = 0;
    overColorRow(&clear, color, &margin, 1);
    const qint64 W = out.width(), w = src.width();
    for (qint64 y = 0; y < out.height(); ++y) {
        uint32_t* d = row(out, int(y));
        const qint64 sy = y - top;
        if (sy < 0 || sy >= src.height()) {
            std::fill(d, d + W, margin);
            continue;
        }
        std::fill(d, d + left, margin);
        overColorRow(row(src, int(sy)), color, d + left, int(w));
        std::fill(d + left + w, d + W, margin);
    }
    return out;
}

std::optional<QImage> fillGradientBackground(const QImage& image, const Gradient& gradient) {
    const double r0 = gradient.start.r, g0 = gradient.start.g, b0 = gradient.start.b, a0 = gradient.start.a;
    const double r1 = gradient.end.r, g1 = gradient.end.g, b1 = gradient.end.b, a1 = gradient.end.a;
    const double angleDegrees = gradient.angleDegrees;
    const int W = image.width(), H = image.height();
    if (W < 1 || H < 1 || !std::isfinite(angleDegrees)) return image;
    const QImage src = rgbaPixels(image);
    if (src.isNull()) return std::nullopt;
    if (!src.hasAlphaChannel()) return image;
    QImage out = newCanvas(W, H);
    if (out.isNull()) return std::nullopt;

    // The axis runs through the centre at the angle, clockwise on screen (y grows downwards here), and
    // is just long enough that the far corners project onto its ends.
    const double theta = angleDegrees * M_PI / 180.0;
    const double c = std::cos(theta), s = std::sin(theta);
    const double L = std::abs(c) * W * 0.5 + std::abs(s) * H * 0.5;
    const double sx = W / 2.0 - c * L, sy = H / 2.0 - s * L; // start, top-left coordinates
    const double ex = W / 2.0 + c * L, ey = H / 2.0 + s * L; // end
    const double vx = ex - sx, vy = ey - sy;
    const double len2 = vx * vx + vy * vy;

    // Premultiplied ends in bytes, as floats.
    auto channel = [](double c, double a) {
        return float(std::clamp(c, 0.0, 1.0) * std::clamp(a, 0.0, 1.0) * 255.0);
    };
    const float sr = channel(r0, a0), sg = channel(g0, a0), sb = channel(b0, a0), sa = channel(1, a0);
    const Ramp ramp{sr,
                    sg,
                    sb,
                    sa,
                    channel(r1, a1) - sr,
                    channel(g1, a1) - sg,
                    channel(b1, a1) - sb,
                    channel(1, a1) - sa};
    // Position along the axis of each pixel centre; it moves by a constant along a row.
    const double stepX = len2 > 0 ? vx / len2 : 0.0;
    for (int y = 0; y < H; ++y) {
        const double t = len2 > 0 ? ((0.5 - sx) * vx + (y + 0.5 - sy) * vy) / len2 : 0.0;
        if (std::abs(stepX) * W < 1.0 / 4096) {
            // A vertical gradient (the default 90°) is one colour per row.
            overColorRow(row(src, y), ramp.clamped(t), row(out, y), W);
            continue;
        }
        overGradientRow(row(src, y), ramp, t, stepX, row(out, y), W);
    }
    return out;
}

std::optional<QImage> fillImageBackground(const QImage& image, const QImage& background) {
    const int W = image.width(), H = image.height();
    if (W < 1 || H < 1 || background.width() < 1 || background.height() < 1) return image;
    QImage out = newCanvas(W, H);
    if (out.isNull()) return std::nullopt;
    out.fill(Qt::transparent);
    // Scale to cover, centred: the overflow on the long axis is cut equally from both sides.
    const double factor = std::max(double(W) / background.width(), double(H) / background.height());
    const double dw = factor * background.width(), dh = factor * background.height();
    const qint64 sw = std::max<qint64>(1, std::llround(dw)), sh = std::max<qint64>(1, std::llround(dh));
    if (!canvasFits(sw, sh)) return std::nullopt;
    const QImage scaled =
        (sw == background.width() && sh == background.height())
            ? background
            : background.scaled(int(sw), int(sh), Qt::IgnoreAspectRatio, Qt::SmoothTransformation);
    if (scaled.isNull()) return std::nullopt;
    QPainter painter(&out);
    painter.setRenderHint(QPainter::SmoothPixmapTransform, true);
    painter.drawImage(QPointF((W - dw) * 0.5, (H - dh) * 0.5), scaled);
    painter.drawImage(QPoint(0, 0), image);
    painter.end();
    return out;
}

std::optional<QImage> canvas(const QImage& image, const QSizeF& target) {
    const auto tw = targetSide(target.width()), th = targetSide(target.height());
    if (!tw || !th) return std::nullopt;
    if (*tw == image.width() && *th == image.height()) return image;
    const QImage src = rgbaPixels(image);
    if (src.isNull()) return std::nullopt;
    QImage out = newCanvas(*tw, *th);
    if (out.isNull()) return std::nullopt;
    // Centred, offsets truncated towards zero and counted from the bottom: an odd extra row goes to
    // the top, an odd extra column to the right.
    const qint64 dx = (*tw - src.width()) / 2;
    const qint64 bottom = (*th - src.height()) / 2;
    const qint64 dy = (*th - src.height()) - bottom;
    place(src, out, dx, dy);
    return out;
}

std::optional<QImage> resize(const QImage& image, const QSizeF& target) {
    const auto tw = targetSide(target.width()), th = targetSide(target.height());
    if (!tw || !th) return std::nullopt;
    if (*tw == image.width() && *th == image.height()) return image;
    const QImage src = rgbaPixels(image);
    if (src.isNull() || !canvasFits(*tw, *th)) return std::nullopt;
    // Area averaging when shrinking (no aliasing; our own single pass, several times faster than
    // OpenCV's at factors that aren't whole numbers); bicubic when growing, clamped back into valid
    // premultiplied values since cubic weights can overshoot. Each axis is filtered for its own
    // direction: when one shrinks and the other grows, the shrinking one is averaged first.
    const bool shrinkW = *tw <= src.width(), shrinkH = *th <= src.height();
    if ((*tw < src.width() && *th > src.height()) || (*tw > src.width() && *th < src.height())) {
        QImage half = newCanvas(shrinkW ? *tw : src.width(), shrinkH ? *th : src.height());
        if (half.isNull()) return std::nullopt;
        if (!src.hasAlphaChannel()) half.reinterpretAsFormat(src.format());
        AreaResize::shrink(src.constBits(), src.width(), src.height(), size_t(src.bytesPerLine()),
                           half.bits(), half.width(), half.height(), size_t(half.bytesPerLine()));
        return resize(half, target);
    }
    const bool shrinking = shrinkW && shrinkH;
    if (shrinking) {
        // Every pixel gets written, so a recycled store does (no fresh pages to fault in).
        QImage shrunk = newCanvas(*tw, *th);
        if (shrunk.isNull()) return std::nullopt;
        if (!src.hasAlphaChannel()) shrunk.reinterpretAsFormat(src.format()); // opaque stays opaque
        AreaResize::shrink(src.constBits(), src.width(), src.height(), size_t(src.bytesPerLine()),
                           shrunk.bits(), shrunk.width(), shrunk.height(), size_t(shrunk.bytesPerLine()));
        return shrunk;
    }
    QImage out(int(*tw), int(*th), src.format()); // an opaque image stays opaque
    if (out.isNull()) return std::nullopt;
    out.setColorSpace(src.colorSpace());
    const cv::Mat from(src.height(), src.width(), CV_8UC4, const_cast<uchar*>(src.constBits()),
                       size_t(src.bytesPerLine()));
    cv::Mat to(out.height(), out.width(), CV_8UC4, out.bits(), size_t(out.bytesPerLine()));
    try {
        cv::resize(from, to, to.size(), 0, 0, cv::INTER_CUBIC);
    } catch (const cv::Exception&) {
        return std::nullopt;
    }
    if (out.hasAlphaChannel()) {
        for (int y = 0; y < out.height(); ++y) {
            uchar* p = out.scanLine(y);
            for (int x = 0; x < out.width(); ++x, p += 4) {
                p[0] = std::min(p[0], p[3]);
                p[1] = std::min(p[1], p[3]);
                p[2] = std::min(p[2], p[3]);
            }
        }
    }
    return out;
}

} // namespace cutlark::CropEngine
