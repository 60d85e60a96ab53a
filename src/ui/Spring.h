#pragma once

#include <QEasingCurve>

namespace cutlark {

/// A damped spring as an easing curve: response (seconds per cycle of the undamped spring) and damping
/// fraction, played over the time the spring takes to settle.
struct Spring {
    double response;
    double damping;
    int durationMs;

    QEasingCurve curve() const;

    /// The picture coming in: response 0.5, damping 0.78.
    static const Spring& reveal();
    /// The picture's rectangle moving to a new size: response 0.4, damping 0.85.
    static const Spring& rectangle();

    /// The spring's position at `seconds`, from 0 towards 1.
    double at(double seconds) const;
};

} // namespace cutlark
