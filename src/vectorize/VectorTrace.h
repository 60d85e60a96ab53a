#pragma once

#include <QList>
#include <QPointF>
#include <QSizeF>
#include <QColor>

namespace cutlark {

/// A closed polygon in source pixels, top-left origin; the last point joins the first.
using Contour = QList<QPointF>;

/// A silhouette trace: the contours of the image's mask, every nesting level in one list.
struct VectorTrace {
    QList<Contour> contours;
    QSizeF size; ///< the traced image's size in pixels
};

/// One flat colour of a colour trace with its contours.
struct VectorColorLayer {
    QColor color;
    QList<Contour> contours;
};

/// A colour trace: layers drawn in order, the first at the bottom.
struct VectorColorTrace {
    QList<VectorColorLayer> layers;
    QSizeF size;
};

} // namespace cutlark
