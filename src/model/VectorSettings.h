#pragma once

#include "model/Settings.h"
#include "vectorize/TraceParams.h"
#include "vectorize/VectorTrace.h"

#include <QImage>
#include <QSizeF>

#include <optional>

namespace cutlark {

/// One trace as the vector worker hands it to the background: the picture and the parameters read
/// from the settings at the start of a pass.
struct VectorJob {
    QImage image;
    bool fullColor = false;
    VectorizeStyle style = VectorizeStyle::silhouette;
    double strokeWidth = 0.5; ///< outline stroke in pixels of the image
    TraceParams params;       ///< for a colour trace; its `curves` for a silhouette too
};

/// What a trace hands back: plain values, nothing of the model.
struct VectorResult {
    std::optional<VectorTrace> trace;
    std::optional<VectorColorTrace> colorTrace;
    QImage preview;
    bool tooDetailed = false;
};

/// How the vector settings become the vectorizer's parameters, and the trace the worker runs.
namespace VectorSettings {

/// The smallest region, as a fraction of the picture: a logarithmic scale over 2.1 decades from
/// 3e-5 at 0 (or below) to 0.0038 at 100 (or above).
double minFeatureFracFor(double vectorMinFeature);
/// Median passes: the setting rounded, at least 1 (one pass always runs).
int denoisePassesFor(double vectorDenoise);
/// Clean-up passes: the setting rounded; 0 or less switches the filter off.
int cleanupPassesFor(double vectorCleanup);
/// The outline's stroke in pixels: the long side × `vectorStrokeWidth` / 1000, at least 0.5.
double outlineStrokeWidth(const QSizeF& size, double vectorStrokeWidth);
/// The colour trace's parameters for `settings`.
TraceParams traceParams(const Settings& settings);

/// The real trace of a job: the colour layers and their preview, or the silhouette and its preview
/// (or that it was too detailed). Runs on any thread.
VectorResult trace(const VectorJob& job);

} // namespace VectorSettings
} // namespace cutlark
