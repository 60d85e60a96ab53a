#pragma once

#include "engines/CropEngine.h"
#include "model/Settings.h"

#include <QImage>
#include <QSizeF>
#include <QStringList>

#include <optional>

/// The fixed chain of stages from an item's upright source to the result, as pure functions of the
/// source, the settings and the subject cutout: orientation, manual crop, background removal,
/// sticker outline or trim, padding, background, then the resize or canvas. `CropModel` calls it
/// and keeps what it may reuse (the picture before the resize); the command line gets it through
/// the model too, so the window and the command line build the same bytes.
namespace cutlark::Pipeline {

/// What a build made, and the stages it was asked for and couldn't do for want of memory ("the
/// padding", "the resize to 100000 × 100000"): the picture went on without them.
struct Built {
    QImage image;
    QStringList failed;
};

/// Stages 1 to 7. `cutout` is the subject cutout of the whole untouched source, used in subject
/// mode (null: none yet, the picture goes on unkeyed).
/// `scale` is for a draft: the source is that many times the picture's size, and the settings'
/// lengths in pixels were scaled alike (`Settings::scaledPixels`); lengths of the stages' own follow.
Built beforeResize(const QImage& source, const Settings& settings, const QImage& cutout, double scale = 1);

/// Stage 9 on the picture before the resize: the resize or the canvas the settings ask for, or the
/// picture itself when they ask for none. Adds to `built.failed` when it can't be done.
Built resized(Built built, const Settings& settings);

/// The padding on each side, rounded half away from zero.
CropEngine::Insets paddingInsets(const Settings& settings);

/// The size the resize or canvas makes of a picture of `size`: the settings' width and height, at
/// least 1 each; absent for a picture without size.
std::optional<QSizeF> resizeTarget(const Settings& settings, const QSizeF& size);

/// True when the background the settings choose covers every pixel (an opaque colour, gradient or
/// picture), whether or not the background is switched on.
bool backgroundIsOpaque(const Settings& settings);

/// True when a result of these settings may have see-through pixels, for a picture of `preResize`
/// before the resize: keying, an outline or padding not covered by an opaque background, or a
/// canvas larger than the picture.
bool producesTransparency(const Settings& settings, const QSizeF& preResize);

/// True when some picture could come out with see-through pixels under these settings, whatever
/// its size (a canvas may be larger than any picture): what a type without alpha must be ready for.
bool mayProduceTransparency(const Settings& settings);

} // namespace cutlark::Pipeline
