#include "engines/PixelOps.h"

#include "engines/BufferPool.h"

#include <QColorSpace>

#include <unistd.h>

#include <climits>

namespace cutlark::PixelOps {

qint64 maxImageBytes() {
    static const qint64 limit = [] {
        const long pages = sysconf(_SC_PHYS_PAGES);
        const long pageSize = sysconf(_SC_PAGESIZE);
        const qint64 physical = (pages > 0 && pageSize > 0) ? qint64(pages) * pageSize : qint64(4) << 30;
        return qMax<qint64>(physical / 4, qint64(256) << 20);
    }();
    return limit;
}

bool canvasFits(qint64 w, qint64 h) {
    if (w < 1 || h < 1 || w > INT_MAX / 4 || h > INT_MAX) return false;
    return w <= maxImageBytes() / 4 / h;
}

QImage newImage(qint64 w, qint64 h, QImage::Format format) {
    if (!canvasFits(w, h) || QImage::toPixelFormat(format).bitsPerPixel() != 32) return QImage();
    // Stores come from the pool, so an image of a size used before costs no fresh pages.
    const qsizetype bytesPerLine = qsizetype(w) * 4;
    void* store = BufferPool::acquire(size_t(bytesPerLine) * size_t(h));
    if (!store) return QImage();
    QImage image(static_cast<uchar*>(store), int(w), int(h), bytesPerLine, format, BufferPool::release,
                 store);
    if (image.isNull()) {
        BufferPool::release(store);
        return QImage();
    }
    return image;
}

QImage newCanvas(qint64 w, qint64 h) {
    QImage canvas = newImage(w, h, QImage::Format_RGBA8888_Premultiplied);
    if (!canvas.isNull()) canvas.setColorSpace(QColorSpace(QColorSpace::SRgb));
    return canvas;
}

QImage rgbaPixels(const QImage& image) {
    if (image.isNull()) return QImage();
    const QColorSpace cs = image.colorSpace();
    const bool srgb = !cs.isValid() || cs == QColorSpace(QColorSpace::SRgb);
    if (srgb && (image.format() == QImage::Format_RGBA8888_Premultiplied ||
                 image.format() == QImage::Format_RGBX8888))
        return image;
    // A view inside a wider image is made a picture of its own before Qt converts it: some of its
    // conversions copy whole source rows into narrower destination rows.
    const bool tight = image.bytesPerLine() == qsizetype(image.width()) * (image.depth() / 8);
    QImage out = tight ? image : image.copy();
    if (!srgb) out = out.convertedToColorSpace(QColorSpace(QColorSpace::SRgb));
    out = out.convertToFormat(out.hasAlphaChannel() ? QImage::Format_RGBA8888_Premultiplied
                                                    : QImage::Format_RGBX8888);
    return out;
}

} // namespace cutlark::PixelOps
