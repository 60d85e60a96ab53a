#include "engines/Morphology.h"

#include <opencv2/imgproc.hpp>

#include <cmath>

namespace cutlark::Morphology {

cv::Mat diskKernel(double radius) {
    const int r = radius > 0 ? int(std::ceil(radius)) : 0;
    cv::Mat kernel(2 * r + 1, 2 * r + 1, CV_8U, cv::Scalar(0));
    for (int dy = -r; dy <= r; ++dy)
        for (int dx = -r; dx <= r; ++dx)
            if (dx * dx + dy * dy <= radius * radius + 1e-9) kernel.at<uchar>(dy + r, dx + r) = 1;
    kernel.at<uchar>(r, r) = 1;
    return kernel;
}

void dilateDisk(const cv::Mat& in, cv::Mat& out, double radius) {
    cv::dilate(in, out, diskKernel(radius), cv::Point(-1, -1), 1, cv::BORDER_CONSTANT, cv::Scalar(0));
}

void erodeDisk(const cv::Mat& in, cv::Mat& out, double radius) {
    cv::erode(in, out, diskKernel(radius), cv::Point(-1, -1), 1, cv::BORDER_REPLICATE);
}

} // namespace cutlark::Morphology
