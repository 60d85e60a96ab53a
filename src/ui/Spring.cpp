#include "ui/Spring.h"

#include <cmath>

namespace cutlark {

double Spring::at(double t) const {
    const double omega = 2 * M_PI / response;
    const double zeta = damping;
    const double decay = zeta * omega;
    const double omegaD = omega * std::sqrt(std::max(1 - zeta * zeta, 1e-9));
    return 1 - std::exp(-decay * t) * (std::cos(omegaD * t) + decay / omegaD * std::sin(omegaD * t));
}

const Spring& Spring::reveal() {
    static const Spring s{0.5, 0.78, 600};
    return s;
}

const Spring& Spring::rectangle() {
    static const Spring s{0.4, 0.85, 450};
    return s;
}

// Easing curves take plain functions: one per spring, normalised to end exactly at 1.
namespace {
double revealEase(qreal progress) {
    const Spring& s = Spring::reveal();
    return s.at(progress * s.durationMs / 1000.0) / s.at(s.durationMs / 1000.0);
}
double rectangleEase(qreal progress) {
    const Spring& s = Spring::rectangle();
    return s.at(progress * s.durationMs / 1000.0) / s.at(s.durationMs / 1000.0);
}
} // namespace

QEasingCurve Spring::curve() const {
    QEasingCurve c;
    c.setCustomType(this == &reveal() ? revealEase : rectangleEase);
    return c;
}

} // namespace cutlark
