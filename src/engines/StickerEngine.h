#pragma once

#include <QImage>

#include <optional>

/// The sticker outline: the subject on a smooth white border that follows its silhouette, over a soft
/// black shadow that hangs straight down.
namespace cutlark::StickerEngine {

/// The sizes a border width leads to, in pixels; `strokeWidth` below 0 counts as 0.
struct Metrics {
    double strokeWidth; ///< w
    double softness;    ///< the outline's edge blur: larger of w × 0.35 and 1
    double shadowBlur;  ///< w × 0.9 + 6 × scale
    double shadowDrop;  ///< w × 0.4 + 6 × scale, straight down
    int workingMargin;  ///< ⌈w⌉ + 2: how far the outline may reach beyond the subject
    int renderMargin;   ///< ⌈shadow blur × 2.5 + w + shadow drop⌉ + 2: the canvas around the subject
};
/// `scale` is the picture's size against the one the sticker is meant for: a draft of a picture at
/// 0.3 times its size, with a border 0.3 times as wide, gets a shadow 0.3 times as big.
Metrics metrics(double strokeWidth, double scale = 1);

/// The sticker made of `image`: its transparent margin trimmed, a white border of `strokeWidth`
/// pixels round its silhouette, a half-black shadow below, trimmed again where alpha exceeds 1.
/// The subject's own pixels come out unchanged, unscaled, on top. Gives the input back when it has
/// no pixels, and the untrimmed rendering when the final trim finds nothing.
std::optional<QImage> make(const QImage& image, double strokeWidth, double scale = 1);

} // namespace cutlark::StickerEngine
