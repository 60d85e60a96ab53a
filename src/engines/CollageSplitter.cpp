#include "engines/CollageSplitter.h"

// Not built yet: no image is taken for a collage.

namespace cutlark::CollageSplitter {

QList<QRectF> pieces(const CropEngine::Buffer&, double) { return {}; }

} // namespace cutlark::CollageSplitter
