#include "model/VectorSettings.h"

#include "engines/Rounding.h"
#include "vectorize/VectorizeEngine.h"

#include <algorithm>
#include <cmath>

namespace cutlark::VectorSettings {

double minFeatureFracFor(double m) {
    if (m >= 100) return 0.003776776235382503;
    return std::pow(10.0, std::max(m, 0.0) / 100 * 2.1) * 3e-5;
}

int denoisePassesFor(double d) {
    const double r = roundHalfAway(d);
    return std::isnan(r) ? 1 : int(std::clamp(r, 1.0, 1000.0));
}

int cleanupPassesFor(double c) {
    const double r = roundHalfAway(c);
    return std::isnan(r) ? 0 : int(std::clamp(r, -1000.0, 1000.0));
}

double outlineStrokeWidth(const QSizeF& size, double vectorStrokeWidth) {
    const double w = std::max(size.width(), size.height()) * vectorStrokeWidth / 1000.0;
    return w >= 0.5 ? w : 0.5;
}

TraceParams traceParams(const Settings& s) {
    TraceParams p;
    p.tolerance = s.vectorTolerance;
    p.minFeatureFrac = minFeatureFracFor(s.vectorMinFeature);
    p.denoisePasses = denoisePassesFor(s.vectorDenoise);
    p.cleanupPasses = cleanupPassesFor(s.vectorCleanup);
    p.curves = s.vectorCurves;
    p.stacked = s.vectorStacked;
    return p;
}

VectorResult trace(const VectorJob& job) {
    VectorResult result;
    if (job.fullColor) {
        result.colorTrace = VectorizeEngine::traceColor(job.image, job.params);
        if (result.colorTrace) result.preview = VectorizeEngine::colorPreview(*result.colorTrace);
        return result;
    }
    const VectorTraceOutcome outcome = VectorizeEngine::trace(job.image, job.params);
    switch (outcome.kind) {
    case VectorTraceOutcome::Kind::traced:
        result.trace = outcome.trace;
        result.preview = VectorizeEngine::preview(outcome.trace, job.style, job.strokeWidth);
        break;
    case VectorTraceOutcome::Kind::tooDetailed:
        result.tooDetailed = true;
        break;
    case VectorTraceOutcome::Kind::noShape:
        break;
    }
    return result;
}

} // namespace cutlark::VectorSettings
