#pragma once

#include <QImage>

#include <cstdint>
#include <cstring>

// Small building blocks shared by the pixel engines. Pixels are 32-bit words read from RGBA bytes in
// memory order, so on this little-endian machine red is the low byte and alpha the high one.
// Hot loops are compiled twice, for AVX2 and for any x86-64, and picked at load time. Not under
// ThreadSanitizer: the picking runs before its run-time is up and crashes the program at start.
#if defined(__SANITIZE_THREAD__)
#define CUTLARK_CLONES
#else
#define CUTLARK_CLONES __attribute__((target_clones("avx2", "default")))
#endif

namespace cutlark::PixelOps {

inline uint32_t red(uint32_t v) {
    return v & 0xffu;
}
inline uint32_t green(uint32_t v) {
    return (v >> 8) & 0xffu;
}
inline uint32_t blue(uint32_t v) {
    return (v >> 16) & 0xffu;
}
inline uint32_t alpha(uint32_t v) {
    return v >> 24;
}

/// x / 255 rounded, exact for every x in 0…65025.
inline uint32_t div255(uint32_t x) {
    return (x + 128 + ((x + 128) >> 8)) >> 8;
}

/// The largest image, in bytes at 4 per pixel, that an engine will allocate: a quarter of the
/// machine's memory, at least 256 MB. Bigger canvases count as failed stages.
qint64 maxImageBytes();

/// True when a canvas of w × h fits both QImage's int sizes and `maxImageBytes`.
bool canvasFits(qint64 w, qint64 h);

/// A new premultiplied sRGB RGBA canvas, uninitialised; null when it can't be had.
QImage newCanvas(qint64 w, qint64 h);

/// A new uninitialised image of a 32-bit `format`, stride exactly w × 4, its store from the pool;
/// no colour space set. Null when it can't be had or the format isn't 32 bits deep.
QImage newImage(qint64 w, qint64 h, QImage::Format format);

/// The image in a 32-bit RGBA layout the engines read directly: itself when it is premultiplied RGBA
/// or opaque RGBX (any stride), otherwise a converted copy in sRGB. Null on failure.
QImage rgbaPixels(const QImage& image);

inline const uint32_t* row(const QImage& image, int y) {
    return reinterpret_cast<const uint32_t*>(image.constScanLine(y));
}
inline uint32_t* row(QImage& image, int y) {
    return reinterpret_cast<uint32_t*>(image.scanLine(y));
}

} // namespace cutlark::PixelOps
