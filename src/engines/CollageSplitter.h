#pragma once

#include "engines/CropEngine.h"

#include <QList>
#include <QRectF>

/// Finds the pictures laid out on one blank (white or transparent) sheet: straight blank gutters that
/// run across the whole of the rectangle they cut, found by a guillotine recursion.
namespace cutlark::CollageSplitter {

/// The blank floor: a pixel is blank when its alpha is below 9 or its R, G and B all reach this.
/// Slope 135 from 255, never above 246 (small thresholds act as 6 %), exactly 120 from 100 % on.
int blankFloor(double threshold);

/// One rectangle per picture, in pixels of the buffer, largest first (equal areas in the order found);
/// empty when the image is no collage: under 9 pixels on a side, blank, a single picture, or fewer than
/// 2 or more than 40 pictures. Needs one byte per pixel for the blank mask.
QList<QRectF> pieces(const CropEngine::Buffer& buffer, double threshold);

/// The threshold collage detection works at when an image is opened or selected.
constexpr double kDetectionThreshold = 10;

} // namespace cutlark::CollageSplitter
