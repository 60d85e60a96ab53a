#pragma once

#include <QtGlobal>

#include <cmath>
#include <limits>

/// The system's one rounding rule: to the nearest integer, halves away from zero.
namespace cutlark {

inline double roundHalfAway(double v) {
    return std::round(v);
}

/// `roundHalfAway` as a 64-bit integer: NaN counts as 0, and values beyond the range saturate, so an
/// absurd amount makes the stage that uses it fail to allocate rather than wrap around.
inline qint64 roundHalfAwayToInt(double v) {
    if (std::isnan(v)) return 0;
    const double r = roundHalfAway(v);
    if (r >= 9.2e18) return std::numeric_limits<qint64>::max();
    if (r <= -9.2e18) return std::numeric_limits<qint64>::min();
    return qint64(r);
}

} // namespace cutlark
