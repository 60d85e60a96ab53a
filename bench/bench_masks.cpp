// Subject cutouts of twelve objects of known shape over real textures: intersection over union,
// residue of the old background, opaque interior and the colour error along the edge, for the
// network's raw mask as it was composited before and for the shaped one. Not a timing: a yardstick
// for the mask's constants. `bench_masks sweep` also tries the shaping constants around the defaults.
#include "engines/VisionEngine.h"
#include "KnownMaskScenes.h"

#include <QCoreApplication>

#include <cstdio>
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

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    const std::vector<KnownMaskScene> scenes = knownMaskScenes();
    if (scenes.empty() || !VisionEngine::isAvailable()) {
        std::fprintf(stderr, "needs the network and the test photographs (./test.sh fetches them)\n");
        return 1;
    }
    std::vector<QImage> raw;
    for (const KnownMaskScene& s : scenes)
        raw.push_back(VisionEngine::mask(s.scene));

    Totals before, after;
    for (size_t i = 0; i < scenes.size(); ++i) {
        const auto plain = VisionEngine::composite(scenes[i].scene, raw[i]);
        const auto shaped = VisionEngine::composite(scenes[i].scene, VisionEngine::shapeMask(raw[i]));
        const CutoutScore a = scoreCutout(scenes[i], plain ? *plain : QImage());
        const CutoutScore b = scoreCutout(scenes[i], shaped ? *shaped : QImage());
        std::printf(
            "%-30s IoU %.3f → %.3f  residue %.2f%% → %.2f%%  interior %.1f%% → %.1f%%  edge %.1f → %.1f\n",
            qPrintable(scenes[i].name), a.iou, b.iou, 100 * a.residue, 100 * b.residue, 100 * a.interior,
            100 * b.interior, a.edgeError, b.edgeError);
        before.add(a);
        after.add(b);
    }
    const int n = int(scenes.size());
    before.print("raw probabilities", n);
    after.print("shaped", n);

    if (argc > 1 && std::strcmp(argv[1], "sweep") == 0) {
        for (int low : {32, 64, 96})
            for (int high : {160, 192, 224})
                for (double band : {2.0, 3.0, 5.0}) {
                    VisionEngine::MaskShaping shaping;
                    shaping.low = low;
                    shaping.high = high;
                    shaping.band = band;
                    Totals t;
                    for (size_t i = 0; i < scenes.size(); ++i) {
                        const auto cut = VisionEngine::composite(scenes[i].scene,
                                                                 VisionEngine::shapeMask(raw[i], shaping));
                        t.add(scoreCutout(scenes[i], cut ? *cut : QImage()));
                    }
                    char label[64];
                    std::snprintf(label, sizeof label, "low %d high %d band %.0f", low, high, band);
                    t.print(label, n);
                }
    }
    return 0;
}
