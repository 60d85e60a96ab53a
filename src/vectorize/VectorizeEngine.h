#pragma once

#include "vectorize/TraceParams.h"
#include "vectorize/VectorTrace.h"

#include <QImage>
#include <QPainterPath>
#include <QString>

#include <optional>

/// Turns a picture into polygons and SVG: a silhouette trace of its mask, or a stack of flat colour
/// layers. Stateless; every function may run on any thread.
namespace cutlark::VectorizeEngine {

// --- silhouette ---

struct BinaryMask {
    QImage mask;     ///< Grayscale8 at the working size: 0 foreground, 255 background, nothing else
    double busyness; ///< unequal neighbour pairs per mask pixel
};

/// The mask at a working size of at most 1400 on the long side. Alpha decides when any pixel has
/// alpha below 250, darkness (255 − luma) otherwise; a value of 129 or more is foreground.
std::optional<BinaryMask> binaryMask(const QImage& image);
/// The same at a working size of at most `longestSide`.
std::optional<BinaryMask> binaryMask(const QImage& image, int longestSide);

/// The contours of the mask's foreground at every nesting level, found on the mask brought to at most
/// 1024 on its long side, approximated with the epsilon that `smoothing` gives, scaled to pixels of a
/// `fullW` × `fullH` source, straightened, and each dropped when its area is below
/// `minAreaFrac` × `fullW` × `fullH`. Never fails: an empty list when nothing is found. With
/// `curves`, each kept contour's boundary is also fitted with curves (`CurveFit`, within
/// `kCurveTolerance` of the boundary on the detector's pixels) and appended there, in step — unless
/// the mask is larger than the detector's: then the curves are fitted to the chains of the mask
/// at its own size (or of `curveMask`, a finer mask of the same picture, when given), with the same
/// speck floor, so that a large drawing's curves are as exact as its own pixels.
QList<Contour> contours(const QImage& mask, int fullW, int fullH, double smoothing, double minAreaFrac,
                        QList<CurvedContour>* curves = nullptr, const QImage& curveMask = QImage());

/// How far a fitted curve may pass from the boundary's points, in pixels of the detector's mask. The
/// points are the pixel edges' midlines, smoothed, within about 0.1 pixel of the true outline;
/// measured on text and icons (bench/curves.sh), 0.3 gives a disc of radius 50 in 4 curves within
/// 0.25 pixel, and boundaries 30–55 % closer to the truth than potrace's; 0.5 saves a fifth of the
/// bytes but lets a disc stray 0.4 pixel.
inline constexpr double kCurveTolerance = 0.3;

/// Greedy removal of points that lie within `tol` of the line through their neighbours, repeated
/// until a sweep removes nothing. Keeps at least 3 points; `tol` ≤ 0 or fewer than 4 points: unchanged.
Contour straighten(Contour contour, double tol);

/// The polygon approximation's epsilon, in normalised units: 0.001 at `smoothing` 0 (or below), up to
/// 0.025 from 100 on.
double epsilonFor(double smoothing);

/// The silhouette trace of `image`: `tooDetailed` when the mask's busyness exceeds 0.06, `noShape`
/// when nothing can be traced. With `params.curves`, the trace carries its outlines fitted with curves
/// too; `params.smoothing` simplifies its polygons.
VectorTraceOutcome trace(const QImage& image, const TraceParams& params = {});

// --- colour ---

/// The region and palette limits' T: 18 … 65 from `tolerance` 0 … 100.
int colorThreshold(double tolerance);

/// A 3 × 3 median filter, `passes` times; the input itself for fewer than 1 pass.
std::optional<QImage> edgePreservingSimplify(const QImage& image, int passes);

/// `passes` rounds of the 3 × 3 majority vote over a label map (−1 stays −1; the lowest label wins a tie).
void majorityFilter(std::vector<int>& labels, int w, int h, int labelCount, int passes);

/// Flat-colour layers of `image`, bottom layer first; absent when the picture has no opaque colour,
/// too many regions or too busy a label map, or when no layer traced. Deterministic. The polygons
/// are approximated as finely as the silhouette's at smoothing 0.
std::optional<VectorColorTrace> traceColor(const QImage& image, const TraceParams& params = {});

// --- output ---

/// "M x yL x y…Z" for each contour with points, numbers with one decimal, nothing between commands.
QString pathD(const QList<Contour>& contours);
/// Curved outlines, written compactly in relative commands: "M x y" for the first contour and
/// "m dx dy" from the last start for the others, then "l dx dy" or "c dx1 dy1 dx2 dy2 dx dy" per
/// segment (a last line back to the start left to "z"), then "z". Points are rounded to tenths of a
/// pixel on the absolute grid first, so nothing drifts; numbers drop a ".0" and a leading zero, a
/// blank stands only where two numbers would otherwise run together, and a repeated command's
/// letter is left out: "M1 2c2-2 4.5-2 6 0l0 4z".
QString pathD(const QList<CurvedContour>& curves);

/// The whole SVG document of a silhouette trace, filled (`silhouette`) or stroked (`outline`).
QString svg(const VectorTrace& trace, VectorizeStyle style, double strokeWidth);

/// The whole SVG document of a colour trace: one even-odd path per non-empty layer, bottom first.
QString colorSVG(const VectorColorTrace& trace);

/// All contours as closed subpaths of one path, even-odd filled.
QPainterPath painterPath(const QList<Contour>& contours);
QPainterPath painterPath(const QList<CurvedContour>& curves);

/// The trace drawn in the fixed preview grey on a transparent bitmap of its size; null when a side
/// is below 1.
QImage preview(const VectorTrace& trace, VectorizeStyle style, double strokeWidth);

/// The layers painted in order on a transparent bitmap of the trace's size; null when a side is below 1.
QImage colorPreview(const VectorColorTrace& trace);

} // namespace cutlark::VectorizeEngine
