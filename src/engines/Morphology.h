#pragma once

#include <opencv2/core.hpp>

/// The morphological maximum and minimum over a disc, as the sticker outline grows its silhouette and
/// the cutout pulls its mask's edge in.
namespace cutlark::Morphology {

/// All pixels within `radius` of the centre, as a structuring element (a disc, not OpenCV's fitted
/// ellipse). A radius of 0 or less is the single centre pixel.
cv::Mat diskKernel(double radius);

/// Each pixel becomes the largest value within `radius` of it; outside the plane counts as 0, so
/// a shape near the border grows as it would on an empty canvas.
void dilateDisk(const cv::Mat& in, cv::Mat& out, double radius);

/// Each pixel becomes the smallest value within `radius` of it; outside the plane repeats the
/// border, so a shape touching the border keeps its coverage there.
void erodeDisk(const cv::Mat& in, cv::Mat& out, double radius);

} // namespace cutlark::Morphology
