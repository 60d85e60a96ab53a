#pragma once

#include "engines/CropEngine.h"

#include <QList>
#include <QRectF>

/// Finds the pictures laid out on one blank sheet.
namespace cutlark::CollageSplitter {

/// One rectangle per picture, largest first; empty when the image is no collage.
QList<QRectF> pieces(const CropEngine::Buffer& buffer, double threshold);

} // namespace cutlark::CollageSplitter
