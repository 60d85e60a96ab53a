// The scanning engines on arbitrary pixels and thresholds: content bounds, the white background test,
// both keying modes and collage detection.
#include "engines/CollageSplitter.h"
#include "engines/CropEngine.h"

#include <cmath>
#include <cstdint>
#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 12) return 0;
    const int w = 1 + data[0] % 64, h = 1 + data[1] % 64;
    double threshold;
    std::memcpy(&threshold, data + 2, sizeof threshold); // any double: NaN, infinities, negatives
    const bool internal = data[10] & 1;
    data += 11;
    size -= 11;
    QImage image(w, h, QImage::Format_RGBA8888_Premultiplied);
    for (int y = 0; y < h; ++y) {
        uchar* row = image.scanLine(y);
        for (int x = 0; x < 4 * w; ++x)
            row[x] = size ? data[(y * 4 * w + x) % size] : 0;
        // Premultiplied bytes never exceed their alpha.
        for (int x = 0; x < w; ++x)
            for (int c = 0; c < 3; ++c)
                row[4 * x + c] = std::min(row[4 * x + c], row[4 * x + 3]);
    }
    const auto buffer = cutlark::CropEngine::Buffer::make(image);
    if (!buffer) return 0;
    (void)cutlark::CropEngine::contentRect(*buffer, threshold);
    (void)cutlark::CropEngine::alphaContentRect(*buffer, data[0 % size]);
    (void)cutlark::CropEngine::backgroundIsMostlyWhite(*buffer, std::isfinite(threshold) ? threshold : 0.85);
    (void)cutlark::CropEngine::keyOutWhite(image, threshold, internal);
    (void)cutlark::CollageSplitter::pieces(*buffer, threshold);
    return 0;
}
