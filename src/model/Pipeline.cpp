#include "model/Pipeline.h"

#include "engines/ColorComponents.h"
#include "engines/MaskEdits.h"
#include "engines/StickerEngine.h"

#include <cmath>
#include <exception>
#include <optional>

namespace cutlark::Pipeline {

namespace {

// "At least 1", with NaN counting as nothing.
double atLeastOne(double v) {
    return (v >= 1) ? v : 1.0;
}

// 0.999 counts as opaque. QColor keeps 16 bits per component, where 0.999 lands half a step below
// itself, so allow that half step.
bool opaqueAlpha(double a) {
    return a >= 0.999 - 0.5 / 65535.0;
}

RGBA componentsOrWhite(const QColor& color) {
    return sRGBComponents(color).value_or(RGBA{1, 1, 1, 1});
}

// A stage that runs out of memory, or meets an error in a library under it (OpenCV, a thread that
// can't be started), simply doesn't happen: the picture goes on as it was.
template <class Stage> std::optional<QImage> attempt(Stage&& stage) {
    try {
        return stage();
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

} // namespace

Built beforeResize(const QImage& source, const Settings& s, const QImage& cutout, double scale) {
    QStringList failed;
    // 1. Start from the upright source.
    QImage work = source;

    // 2. Orientation, always.
    if (auto turned = attempt([&] { return CropEngine::oriented(work, s.quarterTurns, s.mirrored); }))
        work = *turned;

    // 3. Manual crop, of the turned image.
    if (s.manualCropEnabled) {
        if (auto cropped =
                attempt([&] { return std::optional(CropEngine::cropNormalized(work, s.manualCropRect)); }))
            work = *cropped;
    }

    // 4. Background removal.
    if (s.keyWhiteEnabled) {
        if (s.bgRemovalMode == BGRemovalMode::subject) {
            // The cutout is of the whole source, so it replaces what the crop made.
            // The touch-ups by hand are in the source's coordinates, so they go on before the turn.
            QImage touched = cutout;
            if (!cutout.isNull() && !s.maskEdits.isEmpty()) {
                const auto edited = attempt([&]() -> std::optional<QImage> {
                    QImage e = MaskEditing::apply(cutout, source, s.maskEdits);
                    return e.isNull() ? std::nullopt : std::optional(e);
                });
                if (edited) touched = *edited;
            }
            if (!touched.isNull()) {
                auto turned =
                    attempt([&] { return CropEngine::oriented(touched, s.quarterTurns, s.mirrored); });
                work = turned ? *turned : touched;
            }
        } else if (auto keyed = attempt(
                       [&] { return CropEngine::keyOutWhite(work, s.keyThreshold, s.keyInternal); })) {
            work = *keyed;
        }
    }

    // 5. Outline or trim; the outline trims by itself, so it wins.
    if (s.stickerEnabled) {
        if (auto sticker = attempt([&] { return StickerEngine::make(work, s.strokeWidth, scale); }))
            work = *sticker;
    } else if (s.trimEnabled) {
        const auto trimmed = attempt([&]() -> std::optional<QImage> {
            const auto buffer = CropEngine::Buffer::make(work);
            if (!buffer) return std::nullopt;
            const auto rect = CropEngine::contentRect(*buffer, s.threshold);
            if (!rect) return std::nullopt;
            return CropEngine::crop(*buffer, *rect);
        });
        if (trimmed) work = *trimmed;
    }

    // 6 and 7 in one pass when the background is a plain colour: the same pixels, one picture less.
    if (s.paddingEnabled && s.backgroundEnabled && s.backgroundKind == BackgroundKind::color) {
        const CropEngine::Insets p = paddingInsets(s);
        const RGBA c = componentsOrWhite(s.backgroundColor);
        if (auto filled = attempt([&] { return CropEngine::padOverColor(work, p, c); }))
            return {*filled, failed};
    }

    // 6. Padding: transparent margins.
    if (s.paddingEnabled) {
        const CropEngine::Insets p = paddingInsets(s);
        if (auto padded = attempt([&] { return CropEngine::pad(work, p); }))
            work = *padded;
        else if (p.top > 0 || p.right > 0 || p.bottom > 0 || p.left > 0)
            failed << QStringLiteral("the padding");
    }

    // 7. Background.
    if (s.backgroundEnabled) {
        const auto filled = attempt([&]() -> std::optional<QImage> {
            switch (s.backgroundKind) {
            case BackgroundKind::color: {
                const RGBA c = componentsOrWhite(s.backgroundColor);
                return CropEngine::fillColorBackground(work, c);
            }
            case BackgroundKind::gradient: {
                return CropEngine::fillGradientBackground(
                    work,
                    {componentsOrWhite(s.gradientStart), componentsOrWhite(s.gradientEnd), s.gradientAngle});
            }
            case BackgroundKind::image:
                if (!s.backgroundImage.isNull())
                    return CropEngine::fillImageBackground(work, s.backgroundImage);
                return std::nullopt;
            }
            return std::nullopt;
        });
        if (filled) work = *filled;
    }

    return {work, failed};
}

Built resized(Built built, const Settings& s) {
    if (!s.resizeEnabled) return built;
    const QImage& work = built.image;
    const auto target = resizeTarget(s, QSizeF(work.width(), work.height()));
    if (!target) return built;
    auto sized = attempt([&] {
        return s.resizeCanvas ? CropEngine::canvas(work, *target) : CropEngine::resize(work, *target);
    });
    if (sized)
        built.image = *sized;
    else if (QSize(qRound(target->width()), qRound(target->height())) != work.size())
        built.failed << (s.resizeCanvas ? QStringLiteral("the canvas of %1 × %2")
                                        : QStringLiteral("the resize to %1 × %2"))
                            .arg(qRound(target->width()))
                            .arg(qRound(target->height()));
    return built;
}

CropEngine::Insets paddingInsets(const Settings& s) {
    if (s.paddingUniform) {
        const qint64 v = roundHalfAwayToInt(s.padAmount);
        return {v, v, v, v};
    }
    return {roundHalfAwayToInt(s.padTop), roundHalfAwayToInt(s.padRight), roundHalfAwayToInt(s.padBottom),
            roundHalfAwayToInt(s.padLeft)};
}

std::optional<QSizeF> resizeTarget(const Settings& s, const QSizeF& size) {
    if (!(size.width() >= 1) || !(size.height() >= 1)) return std::nullopt;
    return QSizeF(atLeastOne(s.resizeWidth), atLeastOne(s.resizeHeight));
}

bool backgroundIsOpaque(const Settings& s) {
    switch (s.backgroundKind) {
    case BackgroundKind::color: {
        const auto c = sRGBComponents(s.backgroundColor);
        return !c || opaqueAlpha(c->a);
    }
    case BackgroundKind::gradient: {
        const auto start = sRGBComponents(s.gradientStart);
        if (start && !opaqueAlpha(start->a)) return false;
        const auto end = sRGBComponents(s.gradientEnd);
        return !end || opaqueAlpha(end->a);
    }
    case BackgroundKind::image:
        return !s.backgroundImage.isNull() && !s.backgroundImage.hasAlphaChannel();
    }
    return false;
}

bool producesTransparency(const Settings& s, const QSizeF& preResize) {
    if (s.resizeEnabled && s.resizeCanvas) {
        if (auto target = resizeTarget(s, preResize)) {
            // A bigger canvas leaves margins after the background has been laid.
            if (preResize.width() < target->width() || preResize.height() < target->height()) return true;
        }
    }
    if (s.backgroundEnabled && backgroundIsOpaque(s)) return false;
    return s.keyWhiteEnabled || s.stickerEnabled || s.paddingEnabled;
}

bool mayProduceTransparency(const Settings& s) {
    const bool covered = s.backgroundEnabled && backgroundIsOpaque(s);
    return (s.resizeEnabled && s.resizeCanvas) ||
           (!covered && (s.keyWhiteEnabled || s.stickerEnabled || s.paddingEnabled));
}

} // namespace cutlark::Pipeline
