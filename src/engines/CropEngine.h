#pragma once

#include "engines/ColorComponents.h"

#include <QImage>
#include <QRectF>
#include <QSizeF>

#include "engines/Rounding.h"

#include <cmath>
#include <optional>

/// Pixel operations on immutable images. Every function is pure; "returns the image itself" means a
/// shallow copy with the same `cacheKey()`, which costs nothing.
namespace cutlark::CropEngine {

/// An image together with its pixels as premultiplied sRGB RGBA bytes, top row first, stride exactly
/// width × 4. When the image already has that layout (how `ImageFile::load` delivers 8-bit sRGB
/// images) both share one pixel store; otherwise the buffer holds its own converted copy.
class Buffer {
public:
    /// Absent when the image is empty or its pixels can't be converted (out of memory).
    static std::optional<Buffer> make(const QImage& image);
    /// No pixels: width and height 0 (an item whose pixels were let go of).
    Buffer() = default;

    const QImage& image() const { return m_image; }
    qint64 width() const { return m_width; }
    qint64 height() const { return m_height; }
    /// width × height × 4 bytes, R, G, B, A premultiplied.
    const uchar* pixels() const { return m_store.constBits(); }
    /// The pixels as an image (shares `pixels`): `Format_RGBA8888_Premultiplied`, or `Format_RGBX8888`
    /// for an opaque source, which has the same bytes.
    const QImage& pixelImage() const { return m_store; }
    /// True when `image` and `pixels` are one and the same store.
    bool sharesStore() const { return m_store.constBits() == m_image.constBits(); }

private:
    Buffer(QImage image, QImage store);

    QImage m_image;
    QImage m_store;
    qint64 m_width = 0;
    qint64 m_height = 0;
};

/// The image mirrored left to right (when `mirrored`) and then turned clockwise by `quarterTurns`
/// quarter turns; only the two low bits of the count matter, so −1 turns like 3. Returns the image
/// itself for no turn and no mirror; absent when the new image can't be allocated.
std::optional<QImage> oriented(const QImage& image, qint64 quarterTurns, bool mirrored);

/// Crop to a normalized rectangle (fractions of the size, top-left origin), rounded to whole pixels
/// and kept inside the image with at least one pixel each way. Returns the image itself for the
/// whole-image rectangle or when the crop can't be made. Shares the source's pixels.
QImage cropNormalized(const QImage& image, const QRectF& rect);

/// Crop the buffer's image to a pixel rectangle (top-left origin). Returns the buffer's image itself
/// when the rectangle, truncated, has the buffer's size; absent when it lies outside the image.
/// Shares the source's pixels: no copy is made.
std::optional<QImage> crop(const Buffer& buffer, const QRectF& rect);

/// A view of `rect` inside `image` that shares its pixels (the view keeps the source alive).
/// The rectangle is clipped to the image; null when nothing is left.
QImage subImage(const QImage& image, const QRect& rect);

// --- Content bounds ---

/// The tight box of the pixels that are neither near-transparent nor near-white at `threshold`
/// percent; the whole buffer for a threshold of 0 or less. Absent when no pixel qualifies.
std::optional<QRectF> contentRect(const Buffer& buffer, double threshold);

/// The tight box of the pixels whose alpha is strictly above `minAlpha`; absent when none is.
std::optional<QRectF> alphaContentRect(const Buffer& buffer, quint8 minAlpha);

/// True when at least three of the four edge bands are `perEdgeFraction` white (or transparent).
bool backgroundIsMostlyWhite(const Buffer& buffer, double perEdgeFraction);

/// The share of an edge band that must be white for the background to count as white when the
/// removal mode is picked by itself.
constexpr double kMostlyWhiteEdgeFraction = 0.85;

// --- White keying ---

/// Clears the white background to transparent, from the border inwards, or everywhere with
/// `includeInternal`. Returns the image itself when nothing was cleared.
std::optional<QImage> keyOutWhite(const QImage& image, double threshold, bool includeInternal);

// --- Canvas operations ---

/// Margins in pixels on each side of a picture.
struct Insets {
    qint64 top = 0, right = 0, bottom = 0, left = 0;
    bool operator==(const Insets&) const = default;
};

/// A two-stop linear gradient through a picture's centre, at `angleDegrees` clockwise on screen.
struct Gradient {
    RGBA start;
    RGBA end;
    double angleDegrees = 90;
};

/// Transparent margins around the image; negative amounts count as 0. The image itself for none.
std::optional<QImage> pad(const QImage& image, const Insets& margins);
/// The image over a solid colour (sRGB components 0…1).
std::optional<QImage> fillColorBackground(const QImage& image, const RGBA& colour);
/// `pad` and then `fillColorBackground` in one pass, the same pixels: the margins take the colour, the
/// image is laid over it. No margin: `fillColorBackground` alone.
std::optional<QImage> padOverColor(const QImage& image, const Insets& margins, const RGBA& colour);
/// The image over the gradient.
std::optional<QImage> fillGradientBackground(const QImage& image, const Gradient& gradient);
/// The image over `background`, scaled to cover and centred.
std::optional<QImage> fillImageBackground(const QImage& image, const QImage& background);
/// The image unscaled and centred on a canvas of the target size (rounded, at least 1).
std::optional<QImage> canvas(const QImage& image, const QSizeF& target);
/// The image scaled to the target size (rounded, at least 1), with high-quality filtering.
std::optional<QImage> resize(const QImage& image, const QSizeF& target);

} // namespace cutlark::CropEngine
