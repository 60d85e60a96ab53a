#include "engines/CropEngine.h"

// Canvas operations. Not built yet: each stage passes the image through.

namespace cutlark::CropEngine {

std::optional<QImage> pad(const QImage& image, qint64, qint64, qint64, qint64) { return image; }
std::optional<QImage> fillColorBackground(const QImage& image, double, double, double, double) { return image; }
std::optional<QImage> fillGradientBackground(const QImage& image, double, double, double, double, double, double,
                                             double, double, double) {
    return image;
}
std::optional<QImage> fillImageBackground(const QImage& image, const QImage&) { return image; }
std::optional<QImage> canvas(const QImage& image, const QSizeF&) { return image; }
std::optional<QImage> resize(const QImage& image, const QSizeF&) { return image; }

} // namespace cutlark::CropEngine
