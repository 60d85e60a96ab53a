#include "engines/CropEngine.h"

// Content bounds. Not measured yet: the trim finds nothing, so the pipeline keeps the image whole.

namespace cutlark::CropEngine {

std::optional<QRectF> contentRect(const Buffer& buffer, double threshold) {
    if (!(threshold > 0)) return QRectF(0, 0, double(buffer.width()), double(buffer.height()));
    return std::nullopt;
}

std::optional<QRectF> alphaContentRect(const Buffer&, quint8) { return std::nullopt; }

bool backgroundIsMostlyWhite(const Buffer&, double) { return true; }

} // namespace cutlark::CropEngine
