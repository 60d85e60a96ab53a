#pragma once

#include <QList>
#include <QPointF>
#include <QSizeF>

namespace cutlark {

/// A closed polygon in pixels of the traced image, origin top left, y down; the last point joins the
/// first and isn't repeated.
using Contour = QList<QPointF>;

/// A silhouette trace: every contour of the mask at every nesting level, in one flat list. What is
/// inside is decided by the even-odd rule alone.
struct VectorTrace {
    QList<Contour> contours;
    QSizeF size; ///< the traced image's size in pixels, not the mask's
};

/// What a silhouette trace came to.
struct VectorTraceOutcome {
    enum class Kind { traced, tooDetailed, noShape };
    Kind kind = Kind::noShape;
    VectorTrace trace; ///< with at least one contour when `traced`
};

/// One flat colour of a colour trace: components 0…1 (8-bit palette values / 255) and its contours.
struct VectorColorLayer {
    double r = 0, g = 0, b = 0;
    QList<Contour> contours;
};

/// A colour trace: layers in painting order, the bottom one first.
struct VectorColorTrace {
    QList<VectorColorLayer> layers;
    QSizeF size;
};

} // namespace cutlark
