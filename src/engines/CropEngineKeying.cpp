#include "engines/CropEngine.h"

// White keying. Not built yet: the stage passes the image through.

namespace cutlark::CropEngine {

std::optional<QImage> keyOutWhite(const QImage& image, double, bool) { return image; }

} // namespace cutlark::CropEngine
