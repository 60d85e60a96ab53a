#pragma once

#include "vectorize/VectorTrace.h"

#include <QPointF>

#include <vector>

/// Smooth outlines from traced pixel boundaries: corners where the boundary really turns, and
/// between them cubic Bézier curves fitted by least squares (chord-length parameters refined by
/// Newton steps, split where the error is largest, the tangent kept continuous at each split).
/// Stateless; any thread.
namespace cutlark::CurveFit {

/// How far a boundary must turn, in degrees, between the chords `kCornerArm` along it on either side
/// of a point for the point to be a corner. 55° keeps the corners of squares (90°), of hexagons (60°)
/// and of squares turned 45°, whose staircase edges tilt each chord by up to 14°; a disc of radius
/// 5 pixels turns 46° over those chords and stays round, and an octagon (45°) is rounded.
inline constexpr double kCornerTurn = 55;
/// The chords' length along the boundary, in pixels of the boundary: long enough that a staircase
/// step tilts a chord by 14° at most.
inline constexpr double kCornerArm = 4;

/// The indices of `candidates` (ascending indices into the closed chain `points`) that are corners
/// by the rule above.
std::vector<int> corners(const std::vector<QPointF>& points, const std::vector<int>& candidates);

/// The closed chain `points` (a point every pixel or so) as lines and cubic curves that pass within
/// `tolerance` of every point (least squares, so a staircase is followed along its middle), with
/// sharp turns only at `cornerIndices` (ascending) and continuous tangents everywhere else. A piece
/// between two corners that is straight within `tolerance` is a line. Fewer than 3 points: their
/// polygon.
CurvedContour fitClosed(const std::vector<QPointF>& points, const std::vector<int>& cornerIndices,
                        double tolerance);

} // namespace cutlark::CurveFit
