#pragma once

#include <QImage>

#include <optional>

/// The sticker outline: the subject on a white border that follows its silhouette, over a soft shadow.
namespace cutlark::StickerEngine {

/// The sticker made of `image` with a border of `strokeWidth` pixels (negative counts as 0).
std::optional<QImage> make(const QImage& image, double strokeWidth);

} // namespace cutlark::StickerEngine
