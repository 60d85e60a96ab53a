#pragma once

#include <QImage>

#include <opencv2/core.hpp>

/// Edges of a cutout without the old background's colour in them.
namespace cutlark::Decontamination {

/// Gives every partly covered pixel of `cutout` (coverage strictly between 0 and 255) the colour of
/// the fully covered subject nearest to it instead of the source's mixture of subject and old
/// background; its alpha stays. The subject's colour is averaged over cells of `cellSide` pixels and
/// carried outwards through a pyramid of cells (pull-push), so a pixel however far from the subject
/// still gets the colour of the part nearest to it, and the cost is one pass over the picture plus
/// one per partly covered pixel.
///
/// `source` is premultiplied RGBA (the cutout's own source), `coverage` its CV_8U coverage at the
/// same size, `cutout` premultiplied RGBA of the same size, changed in place. With no fully covered
/// pixel, or none partly covered, nothing changes.
void pullForeground(const QImage& source, const cv::Mat& coverage, QImage& cutout, int cellSide);

/// The cell side `pullForeground` uses for a picture of this size: one pixel up to 1024 on the
/// longer side, so fine detail keeps its own colour, and larger so the cells stay about a million.
int cellSideFor(int width, int height);

} // namespace cutlark::Decontamination
