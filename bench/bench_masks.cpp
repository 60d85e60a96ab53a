// Subject cutouts of twelve objects of known shape over real textures, with hard outlines and with
// outlines softened as a photograph's are: intersection over union, residue of the old background,
// opaque interior and the colour error along the edge, for the network's raw mask as it was
// composited before, for the shaped one, and for the shaped one with the edge's colour cleaned. Not a timing:
// a yardstick for the mask's constants. `bench_masks sweep` also tries the shaping constants around the
// defaults.
#include "engines/VisionEngine.h"
#include "KnownMaskScenes.h"

#include <QCoreApplication>

#include <cstdio>
#include <cstdlib>
#include <cstring>

using namespace cutlark;
using namespace cutlark::test;

namespace {

struct Totals {
    double iou = 0, worstIou = 1, residue = 0, worstResidue = 0, interior = 0, worstInterior = 1, edge = 0;
    void add(const CutoutScore& s) {
        iou += s.iou;
        worstIou = std::min(worstIou, s.iou);
        residue += s.residue;
        worstResidue = std::max(worstResidue, s.residue);
        interior += s.interior;
        worstInterior = std::min(worstInterior, s.interior);
        edge += s.edgeError;
    }
    void print(const char* label, int n) const {
        std::printf("%-34s IoU mean %.3f min %.3f | residue mean %.2f%% max %.2f%% | interior mean %.1f%% "
                    "min %.1f%% | "
                    "edge error %.1f\n",
                    label, iou / n, worstIou, 100 * residue / n, 100 * worstResidue, 100 * interior / n,
                    100 * worstInterior, edge / n);
    }
};

} // namespace

namespace {

// One line per scene and the totals for the raw probabilities composited as they come, the shaped
// mask, and the shaped mask with the edge's colour cleaned.
void measure(const std::vector<KnownMaskScene>& scenes, const std::vector<QImage>& raw) {
    Totals before, shaped, cleaned;
    for (size_t i = 0; i < scenes.size(); ++i) {
        const QImage mask = VisionEngine::shapeMask(raw[i]);
        const auto plain = VisionEngine::composite(scenes[i].scene, raw[i], false);
        const auto bare = VisionEngine::composite(scenes[i].scene, mask, false);
        const auto clean = VisionEngine::composite(scenes[i].scene, mask, true);
        const CutoutScore a = scoreCutout(scenes[i], plain ? *plain : QImage());
        const CutoutScore b = scoreCutout(scenes[i], bare ? *bare : QImage());
        const CutoutScore c = scoreCutout(scenes[i], clean ? *clean : QImage());
        std::printf("  %-32s IoU %.3f → %.3f  residue %.2f%% → %.2f%%  interior %.1f%% → %.1f%%  edge %.1f → "
                    "%.1f → %.1f\n",
                    qPrintable(scenes[i].name), a.iou, b.iou, 100 * a.residue, 100 * b.residue,
                    100 * a.interior, 100 * b.interior, a.edgeError, b.edgeError, c.edgeError);
        before.add(a);
        shaped.add(b);
        cleaned.add(c);
    }
    const int n = int(scenes.size());
    before.print("raw probabilities", n);
    shaped.print("shaped", n);
    cleaned.print("shaped, edge colour cleaned", n);
}

// The shaping constants around the defaults.
void sweep(const std::vector<KnownMaskScene>& scenes, const std::vector<QImage>& raw) {
    for (int low : {32, 64, 96})
        for (int high : {160, 192, 224})
            for (double band : {2.0, 3.0, 5.0}) {
                VisionEngine::MaskShaping shaping;
                shaping.low = low;
                shaping.high = high;
                shaping.band = band;
                Totals t;
                for (size_t i = 0; i < scenes.size(); ++i) {
                    const auto cut =
                        VisionEngine::composite(scenes[i].scene, VisionEngine::shapeMask(raw[i], shaping));
                    t.add(scoreCutout(scenes[i], cut ? *cut : QImage()));
                }
                char label[64];
                std::snprintf(label, sizeof label, "low %d high %d band %.0f", low, high, band);
                t.print(label, int(scenes.size()));
            }
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    // Hard outlines as painted, then softened as focus and motion soften a photograph's edges.
    for (double edgeBlur : {0.0, 1.0, 2.0}) {
        const std::vector<KnownMaskScene> scenes = knownMaskScenes(edgeBlur);
        if (scenes.empty() || !VisionEngine::isAvailable()) {
            std::fprintf(stderr, "needs the network and the test photographs (./test.sh fetches them)\n");
            return 1;
        }
        std::vector<QImage> raw;
        for (const KnownMaskScene& s : scenes)
            raw.push_back(VisionEngine::mask(s.scene));
        std::printf("edges softened by a blur of sigma %.0f px:\n", edgeBlur);
        measure(scenes, raw);
        if (edgeBlur == 0 && argc > 1 && std::strcmp(argv[1], "sweep") == 0) sweep(scenes, raw);
    }
    return 0;
}
