#pragma once

#include <QList>
#include <QPointF>
#include <QSizeF>

namespace cutlark {

/// A closed polygon in pixels of the traced image, origin top left, y down; the last point joins the
/// first and isn't repeated.
using Contour = QList<QPointF>;

/// One piece of a smooth outline: a straight line to `end`, or a cubic Bézier through the control
/// points `c1` and `c2` to `end`.
struct CurveSegment {
    bool cubic = false;
    QPointF c1, c2; ///< only for a cubic
    QPointF end;
};

/// A closed outline of lines and curves from `start`, in the same pixels as `Contour`; the last
/// segment ends at `start`.
struct CurvedContour {
    QPointF start;
    QList<CurveSegment> segments;
};

/// A silhouette trace: every contour of the mask at every nesting level, in one flat list. What is
/// inside is decided by the even-odd rule alone.
struct VectorTrace {
    QList<Contour> contours;
    QSizeF size; ///< the traced image's size in pixels, not the mask's
    /// The same outlines fitted with curves, one for each contour, when curves were asked for;
    /// empty otherwise. Where present, they are what is drawn and written.
    QList<CurvedContour> curves;
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
    QList<CurvedContour> curves; ///< as `VectorTrace::curves`
};

/// A colour trace: layers in painting order, the bottom one first.
struct VectorColorTrace {
    QList<VectorColorLayer> layers;
    QSizeF size;
};

} // namespace cutlark
