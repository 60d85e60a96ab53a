#include "engines/StickerEngine.h"

// Not built yet: the stage passes the image through.

namespace cutlark::StickerEngine {

std::optional<QImage> make(const QImage& image, double) { return image; }

} // namespace cutlark::StickerEngine
