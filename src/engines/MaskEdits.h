#pragma once

#include <QImage>
#include <QList>
#include <QPointF>
#include <QRect>
#include <QString>

#include <optional>

namespace cutlark {

/// One touch-up of a subject cutout by hand: a stroke of the Erase or Restore brush, or a click that
/// drops a stray island of the mask whole. Kept in the source picture's normalised coordinates
/// (unturned, uncropped: 0…1 across each side), so it follows turning, mirroring and the crop.
struct MaskEdit {
    enum class Kind { erase, restore, dropIsland };
    Kind kind = Kind::erase;
    double size = 0.04;    ///< the brush's diameter, as a fraction of the source's longer side
    double softness = 0.5; ///< 0: a hard edge; 1: soft from the centre out
    QList<QPointF> points; ///< the stroke's path; one point for a dab or an island

    bool operator==(const MaskEdit&) const = default;
};
using MaskEdits = QList<MaskEdit>;

/// The edits as plain functions of pictures and numbers.
namespace MaskEditing {

constexpr double kSmallestSize = 0.001;
constexpr double kLargestSize = 0.5;

/// The edits as one line of text, and back: "erase 0.04 0.5 0.1,0.2 0.15,0.25; drop 0.3,0.4".
/// Each part is a kind (erase, restore, drop), for a brush its size and softness, then its points.
QString toText(const MaskEdits& edits);
/// Absent when the text isn't such a line, or a number is out of range (sizes 0.001…0.5,
/// softness 0…1, points −1…2).
std::optional<MaskEdits> fromText(const QString& text);

/// A point of the turned (`quarterTurns` clockwise after the mirror) picture, normalised, as the
/// same point of the source; and back.
QPointF toSource(const QPointF& oriented, int quarterTurns, bool mirrored);
QPointF fromSource(const QPointF& source, int quarterTurns, bool mirrored);

/// Lays the coverage of a brush edit into `into` (Grayscale8, the picture's size, taking the
/// larger where strokes meet): 255 within its hard core, falling smoothly to 0 at its rim. Returns
/// the box it touched.
QRect paintBrush(QImage& into, const MaskEdit& edit);

/// Within `box`, `out` becomes `base` moved by `cover` (Grayscale8) towards nothing (Erase) or
/// towards `source`'s own pixels (Restore). All four the same size, premultiplied RGBA but `cover`;
/// `out` may be `base`. What a stroke does, and what a stroke being drawn shows.
void blendBox(QImage& out, const QImage& base, const QImage& source, const QImage& cover, const QRect& box,
              MaskEdit::Kind kind);

/// `cutout` (premultiplied RGBA, the source's size) with `edits` applied in order: Erase takes
/// coverage away, Restore brings the source's own pixels back, a dropped island (the opaque region
/// under its point, with its soft rim) goes whole. The cutout itself when there are no edits; null
/// when memory runs out.
QImage apply(const QImage& cutout, const QImage& source, const MaskEdits& edits);

} // namespace MaskEditing
} // namespace cutlark
