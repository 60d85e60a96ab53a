#pragma once

/// The vectorizer's parameters: plain values, defaults written once beside the fields.
namespace cutlark {

/// How a silhouette trace is drawn: filled, or as a stroked outline.
enum class VectorizeStyle { silhouette, outline };

/// The parameters of a trace (a silhouette reads `smoothing` and `curves`). `TraceParams{}` holds the
/// defaults, which are what the window's settings give at their defaults.
struct TraceParams {
    /// How far colours may differ and still be one layer, 0…100; the region threshold runs 18…65.
    double tolerance = 45;
    /// The smallest region kept, and the smallest polygon, as a fraction of the picture's area.
    double minFeatureFrac = 3e-5;
    /// 3 × 3 median passes over the picture before the regions are grown; at least one runs.
    int denoisePasses = 2;
    /// Majority-vote passes over the label map; 0 or less switches them off.
    int cleanupPasses = 3;
    /// Outlines fitted with cubic curves besides their polygons (for silhouettes too).
    bool curves = false;
    /// The bottom layer covers the whole picture and each other layer runs 3 pixels under the layers
    /// above it, so no backdrop shows between colours.
    bool stacked = false;
    /// How much a silhouette's polygons are simplified, 0…100 (`VectorizeEngine::epsilonFor`).
    double smoothing = 0;
};

} // namespace cutlark
