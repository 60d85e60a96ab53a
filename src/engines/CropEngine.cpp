#include "engines/CropEngine.h"

#include "engines/PixelOps.h"

#include <QColorSpace>
#include <QTransform>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>

namespace cutlark::CropEngine {

namespace {

bool isSrgb(const QImage& image) {
    const QColorSpace cs = image.colorSpace();
    return !cs.isValid() || cs == QColorSpace(QColorSpace::SRgb);
}

void deleteImage(void* info) {
    delete static_cast<QImage*>(info);
}

// Mirror and quarter turn of an image with 32-bit pixels, as pure pixel moves: destination (x, y)
// reads the source at a fixed linear offset in x and y, so each row is one strided walk. Odd turns
// read the source down its columns; square tiles keep both sides in cache. The colour space and the
// resolution go with the pixels. Null when the new store can't be had.
QImage moved32(const QImage& src, int q, bool mirrored) {
    const qint64 W = src.width(), H = src.height();
    const qint64 dw = (q & 1) ? H : W, dh = (q & 1) ? W : H;
    QImage out = PixelOps::newImage(dw, dh, src.format());
    if (out.isNull()) return out;
    // The mirrored source m(x, y) = src(W-1-x, y) when mirrored; destination (x, y) takes
    // q=0: m(x, y)   q=1: m(y, H-1-x)   q=2: m(W-1-x, H-1-y)   q=3: m(W-1-y, x).
    qint64 ax = 0, bx = 0, cx = 0, ay = 0, by = 0, cy = 0; // mx = ax·x + bx·y + cx, my = ay·x + by·y + cy
    switch (q) {
    case 0:
        ax = 1;
        by = 1;
        break;
    case 1:
        bx = 1;
        ay = -1;
        cy = H - 1;
        break;
    case 2:
        ax = -1;
        cx = W - 1;
        by = -1;
        cy = H - 1;
        break;
    default:
        bx = -1;
        cx = W - 1;
        ay = 1;
        break;
    }
    if (mirrored) {
        ax = -ax;
        bx = -bx;
        cx = W - 1 - cx;
    }
    const qint64 stride = src.bytesPerLine() / 4;
    const qint64 stepX = ay * stride + ax, stepY = by * stride + bx, origin = cy * stride + cx;
    const uint32_t* base = reinterpret_cast<const uint32_t*>(src.constBits());
    constexpr int kTile = 64;
    const int tile = (q & 1) ? kTile : int(dw);
    for (qint64 x0 = 0; x0 < dw; x0 += tile) {
        const qint64 x1 = std::min<qint64>(dw, x0 + tile);
        for (qint64 y = 0; y < dh; ++y) {
            uint32_t* d = PixelOps::row(out, int(y));
            const uint32_t* s = base + origin + stepY * y;
            for (qint64 x = x0; x < x1; ++x)
                d[x] = s[stepX * x];
        }
    }
    out.setColorSpace(src.colorSpace());
    out.setDotsPerMeterX((q & 1) ? src.dotsPerMeterY() : src.dotsPerMeterX());
    out.setDotsPerMeterY((q & 1) ? src.dotsPerMeterX() : src.dotsPerMeterY());
    return out;
}

} // namespace

Buffer::Buffer(QImage image, QImage store)
    : m_image(std::move(image)), m_store(std::move(store)), m_width(m_image.width()),
      m_height(m_image.height()) {}

std::optional<Buffer> Buffer::make(const QImage& image) {
    if (image.isNull() || image.width() < 1 || image.height() < 1) return std::nullopt;
    // Opaque RGBX has the very bytes of premultiplied RGBA with alpha 255, so it is shared too.
    const bool layout =
        image.format() == QImage::Format_RGBA8888_Premultiplied || image.format() == QImage::Format_RGBX8888;
    if (layout && isSrgb(image) && image.bytesPerLine() == qsizetype(image.width()) * 4)
        return Buffer(image, image);
    if (layout && isSrgb(image)) {
        // A view inside a wider image (a crop): the same bytes, rows copied tight. Qt's conversion
        // is no way round: between these two layouts it copies whole source rows and so writes past
        // the end of each narrower destination row.
        QImage store =
            PixelOps::newImage(image.width(), image.height(), QImage::Format_RGBA8888_Premultiplied);
        if (store.isNull()) return std::nullopt;
        for (int y = 0; y < image.height(); ++y)
            std::memcpy(store.scanLine(y), image.constScanLine(y), size_t(image.width()) * 4);
        store.setColorSpace(QColorSpace(QColorSpace::SRgb));
        return Buffer(image, store);
    }

    // Any other form is first made a picture of its own, so that no conversion below reads a view.
    QImage store =
        image.bytesPerLine() == qsizetype(image.width()) * (image.depth() / 8) ? image : image.copy();
    if (!isSrgb(store)) store = store.convertedToColorSpace(QColorSpace(QColorSpace::SRgb));
    store = store.convertToFormat(QImage::Format_RGBA8888_Premultiplied);
    if (store.isNull() || store.bytesPerLine() != qsizetype(store.width()) * 4) return std::nullopt;
    store.setColorSpace(QColorSpace(QColorSpace::SRgb));
    return Buffer(image, store);
}

QImage subImage(const QImage& image, const QRect& rect) {
    const QRect r = rect.intersected(image.rect());
    if (r.isEmpty()) return QImage();
    if (r == image.rect()) return image;
    if (image.depth() < 8 || image.format() == QImage::Format_Indexed8) return image.copy(r);

    auto* keep = new QImage(image);
    const uchar* bits =
        keep->constBits() + qsizetype(r.y()) * keep->bytesPerLine() + qsizetype(r.x()) * (keep->depth() / 8);
    QImage view(bits, r.width(), r.height(), keep->bytesPerLine(), keep->format(), deleteImage, keep);
    if (view.isNull()) {
        delete keep;
        return image.copy(r);
    }
    view.setColorSpace(image.colorSpace());
    view.setDotsPerMeterX(image.dotsPerMeterX());
    view.setDotsPerMeterY(image.dotsPerMeterY());
    return view;
}

std::optional<QImage> oriented(const QImage& image, qint64 quarterTurns, bool mirrored) {
    const int q = int(quarterTurns & 3);
    if (q == 0 && !mirrored) return image;
    if (image.depth() == 32 && image.bytesPerLine() % 4 == 0) {
        QImage out = moved32(image, q, mirrored);
        if (out.isNull()) return std::nullopt;
        return out;
    }
    // Mirror first, then turn: the order the settings describe.
    QImage out = mirrored ? image.mirrored(true, false) : image;
    if (out.isNull()) return std::nullopt;
    if (q != 0) out = out.transformed(QTransform().rotate(90.0 * q)); // exact turns, no resampling
    if (out.isNull()) return std::nullopt;
    out.setColorSpace(image.colorSpace());
    return out;
}

QImage cropNormalized(const QImage& image, const QRectF& rect) {
    const double W = image.width();
    const double H = image.height();
    if (W < 1 || H < 1) return image;
    auto clampD = [](double v, double lo, double hi) { return std::max(lo, std::min(v, hi)); };
    // NaN and infinities fall to the nearest edge rather than poisoning the arithmetic.
    auto safe = [](double v) {
        return std::isfinite(v) ? v : (std::isnan(v) ? 0.0 : (v > 0 ? 1e18 : -1e18));
    };
    const double x = std::max(0.0, std::min(roundHalfAway(clampD(safe(rect.x()) * W, -1e15, 1e15)), W - 1));
    const double y = std::max(0.0, std::min(roundHalfAway(clampD(safe(rect.y()) * H, -1e15, 1e15)), H - 1));
    const double w =
        std::max(1.0, std::min(roundHalfAway(clampD(safe(rect.width()) * W, -1e15, 1e15)), W - x));
    const double h =
        std::max(1.0, std::min(roundHalfAway(clampD(safe(rect.height()) * H, -1e15, 1e15)), H - y));
    if (x == 0 && y == 0 && w == W && h == H) return image;
    const QImage out = subImage(image, QRect(int(x), int(y), int(w), int(h)));
    return out.isNull() ? image : out;
}

std::optional<QImage> crop(const Buffer& buffer, const QRectF& rect) {
    if (std::trunc(rect.width()) == double(buffer.width()) &&
        std::trunc(rect.height()) == double(buffer.height()))
        return buffer.image();
    if (!std::isfinite(rect.x()) || !std::isfinite(rect.y()) || !std::isfinite(rect.width()) ||
        !std::isfinite(rect.height()))
        return std::nullopt;
    // Whole pixels that the rectangle touches, clipped to the image.
    const double x0 = std::max(0.0, std::floor(rect.left()));
    const double y0 = std::max(0.0, std::floor(rect.top()));
    const double x1 = std::min(double(buffer.width()), std::ceil(rect.right()));
    const double y1 = std::min(double(buffer.height()), std::ceil(rect.bottom()));
    if (x1 <= x0 || y1 <= y0) return std::nullopt;
    const QImage out = subImage(buffer.image(), QRect(int(x0), int(y0), int(x1 - x0), int(y1 - y0)));
    if (out.isNull()) return std::nullopt;
    return out;
}

} // namespace cutlark::CropEngine
