#pragma once

#include <QImage>
#include <QString>

#include <vector>

/// Objects of known shape pasted over real textures, for measuring subject cutouts: twelve scenes
/// of 1024 × 768 made from the test photographs (the set-up fetches them), some of them hard (a
/// grey object on grey gravel, a ring with a hole, thin spokes and handles).
namespace cutlark::test {

struct KnownMaskScene {
    QString name;
    QImage scene;      ///< RGBA premultiplied, opaque
    QImage truth;      ///< Grayscale8: the object's antialiased coverage
    QImage foreground; ///< RGB32: the object's own colour, also a little beyond its outline
};

/// Empty when the photographs aren't there. `edgeBlur` > 0 softens the object's outline by a
/// Gaussian of that sigma (pixels), as focus and motion soften a photograph's edges, and the scene
/// mixes object and texture by that soft coverage.
std::vector<KnownMaskScene> knownMaskScenes(double edgeBlur = 0);

/// How a cutout compares with its scene's truth.
struct CutoutScore {
    double iou = 0;      ///< of alpha > 127 against truth > 127
    double residue = 0;  ///< share of the picture with alpha above 5 % farther than 6 px outside the object
    double interior = 0; ///< share of the object farther than 6 px inside it that is opaque (alpha ≥ 250)
    /// Mean colour error (0–255) against the object's own colour within 3 px of its edge, on both
    /// sides, weighted by alpha: what the old background adds to the cutout's rim.
    double edgeError = 0;
};
CutoutScore scoreCutout(const KnownMaskScene& scene, const QImage& cutout);

} // namespace cutlark::test
