// The colour and silhouette traces (polygons or curves, layers apart or stacked) on small arbitrary
// pictures, and the SVG writers on the traces that come out.
#include "vectorize/VectorizeEngine.h"

#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 8) return 0;
    const int w = 1 + data[0] % 48, h = 1 + data[1] % 48;
    const double tolerance = data[2] * 0.5 - 10;
    const int cleanup = data[3] % 4;
    data += 4;
    size -= 4;
    QImage image(w, h, QImage::Format_RGBA8888_Premultiplied);
    for (int y = 0; y < h; ++y) {
        uchar* row = image.scanLine(y);
        for (int x = 0; x < w; ++x) {
            const uchar a = data[(y * w + x) % size] & 0x80 ? 255 : data[(y * w + x) % size];
            for (int c = 0; c < 3; ++c)
                row[4 * x + c] = std::min<uchar>(data[(y * w + x + c + 1) % size], a);
            row[4 * x + 3] = a;
        }
    }
    using namespace cutlark;
    // The curves and the stacking by the same bits that choose the clean-up passes.
    const bool curves = (cleanup & 1) != 0, stacked = (cleanup & 2) != 0;
    if (auto colour =
            VectorizeEngine::traceColor(image, TraceParams{tolerance, 3e-5, 1, cleanup, curves, stacked})) {
        (void)VectorizeEngine::colorSVG(*colour);
        (void)VectorizeEngine::colorPreview(*colour);
    }
    TraceParams silhouette;
    silhouette.smoothing = tolerance;
    silhouette.curves = curves;
    const VectorTraceOutcome outcome = VectorizeEngine::trace(image, silhouette);
    if (outcome.kind == VectorTraceOutcome::Kind::traced) {
        (void)VectorizeEngine::svg(outcome.trace, VectorizeStyle::outline, tolerance);
        (void)VectorizeEngine::preview(outcome.trace, VectorizeStyle::silhouette, 1);
    }
    return 0;
}
