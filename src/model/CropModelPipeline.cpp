// The processing pipeline: the fixed chain of stages from the active item's source to the result.
#include "model/CropModel.h"

#include "engines/ColorComponents.h"
#include "engines/StickerEngine.h"

#include <cmath>
#include <exception>
#include <limits>
#include <optional>

namespace cutlark {

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

void CropModel::recomputeActive() {
    if (m_isApplyingSettingsSnapshot) return;
    setNoticeMessage(std::nullopt);
    const Item* item = active();
    if (!item) {
        m_preResize.reset();
        setActiveContentRect(std::nullopt);
        setProcessedImage(QImage());
        setVectorTrace(std::nullopt);
        setVectorColorTrace(std::nullopt);
        setVectorPreview(QImage());
        return;
    }
    // An item made active by any path has its pixels before anything is built from them.
    if (!item->decoded()) {
        if (Item* mutableItem = findItem(item->id)) restorePixels(*mutableItem);
        item = active();
    }
    // Copy the item out: a stage must not hold a pointer into the queue.
    const Item current = *item;
    setProcessedImage(buildProcessed(current));
    updateVector();
    if (wantsVision()) ensureVisionCutout();
}

QImage CropModel::buildBeforeResize(const Item& item) {
    const Settings& s = m_settings;
    // 1. Start from the upright source.
    QImage work = item.buffer.image();

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
            const auto cached = m_visionCache.constFind(item.id);
            if (cached != m_visionCache.constEnd()) {
                auto turned =
                    attempt([&] { return CropEngine::oriented(*cached, s.quarterTurns, s.mirrored); });
                work = turned ? *turned : *cached;
            }
        } else if (auto keyed = attempt(
                       [&] { return CropEngine::keyOutWhite(work, s.keyThreshold, s.keyInternal); })) {
            work = *keyed;
        }
    }

    // 5. Outline or trim; the outline trims by itself, so it wins.
    if (s.stickerEnabled) {
        if (auto sticker = attempt([&] { return StickerEngine::make(work, s.strokeWidth); })) work = *sticker;
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
        const Insets p = paddingInsets();
        const RGBA c = componentsOrWhite(s.backgroundColor);
        if (auto filled = attempt([&] { return CropEngine::padOverColor(work, p, c); })) return *filled;
    }

    // 6. Padding: transparent margins.
    if (s.paddingEnabled) {
        const Insets p = paddingInsets();
        if (auto padded = attempt([&] { return CropEngine::pad(work, p); }))
            work = *padded;
        else if (p.top > 0 || p.right > 0 || p.bottom > 0 || p.left > 0)
            m_failedStages << QStringLiteral("the padding");
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

    return work;
}

QImage CropModel::buildProcessed(const Item& item) {
    const Settings& s = m_settings;
    // What the stages before the resize depend on; when it is what the last build had, its picture
    // before the resize is taken as it is.
    PreResize key;
    key.item = item.id;
    key.source = item.buffer.image().cacheKey();
    if (s.keyWhiteEnabled && s.bgRemovalMode == BGRemovalMode::subject) {
        const auto cached = m_visionCache.constFind(item.id);
        if (cached != m_visionCache.constEnd()) key.cutout = cached->cacheKey();
    }
    key.settings = s;
    // The fields read only after this point. (One forgotten here costs a rebuild, never a stale
    // picture: every other field is compared.)
    const Settings defaults;
    Settings& k = key.settings;
    k.resizeEnabled = defaults.resizeEnabled;
    k.resizeWidth = defaults.resizeWidth;
    k.resizeHeight = defaults.resizeHeight;
    k.resizeLockAspect = defaults.resizeLockAspect;
    k.resizeCanvas = defaults.resizeCanvas;
    k.vectorizeEnabled = defaults.vectorizeEnabled;
    k.vectorizeStyle = defaults.vectorizeStyle;
    k.vectorStrokeWidth = defaults.vectorStrokeWidth;
    k.vectorFullColor = defaults.vectorFullColor;
    k.vectorTolerance = defaults.vectorTolerance;
    k.vectorMinFeature = defaults.vectorMinFeature;
    k.vectorDenoise = defaults.vectorDenoise;
    k.vectorCleanup = defaults.vectorCleanup;
    k.vectorCurves = defaults.vectorCurves;
    k.vectorStacked = defaults.vectorStacked;
    QImage work;
    if (m_preResize && m_preResize->item == key.item && m_preResize->source == key.source &&
        m_preResize->cutout == key.cutout && m_preResize->settings == key.settings) {
        work = m_preResize->image;
        m_failedStages = m_preResize->failed;
    } else {
        m_preResize.reset(); // its picture isn't kept alive beside the new one's stages
        m_failedStages.clear();
        work = buildBeforeResize(item);
        key.failed = m_failedStages;
        key.image = work;
        m_preResize = std::move(key);
    }

    // 8. Remember the size before the resize: the base of the aspect links.
    m_preResizeSize = QSizeF(work.width(), work.height());

    // 9. Resize or canvas.
    if (s.resizeEnabled && !m_defersResize) {
        if (auto target = resizeTargetSize(m_preResizeSize)) {
            auto sized = attempt([&] {
                return s.resizeCanvas ? CropEngine::canvas(work, *target) : CropEngine::resize(work, *target);
            });
            if (sized)
                work = *sized;
            else if (QSize(qRound(target->width()), qRound(target->height())) != work.size())
                m_failedStages << (s.resizeCanvas ? QStringLiteral("the canvas of %1 × %2")
                                                  : QStringLiteral("the resize to %1 × %2"))
                                      .arg(qRound(target->width()))
                                      .arg(qRound(target->height()));
        }
    }

    // 10. Finish.
    setActiveContentRect(QRectF(0, 0, work.width(), work.height()));
    return work;
}

CropModel::Insets CropModel::paddingInsets() const {
    const Settings& s = m_settings;
    if (s.paddingUniform) {
        const qint64 v = roundHalfAwayToInt(s.padAmount);
        return {v, v, v, v};
    }
    return {roundHalfAwayToInt(s.padTop), roundHalfAwayToInt(s.padRight), roundHalfAwayToInt(s.padBottom),
            roundHalfAwayToInt(s.padLeft)};
}

std::optional<QSizeF> CropModel::resizeTargetSize(const QSizeF& size) const {
    if (!(size.width() >= 1) || !(size.height() >= 1)) return std::nullopt;
    return QSizeF(atLeastOne(m_settings.resizeWidth), atLeastOne(m_settings.resizeHeight));
}

namespace {
// The base both resize links measure the aspect on: the last pre-resize size, else the source.
std::optional<QSizeF> aspectBase(const QSizeF& preResize, const CropModel::Item* item) {
    if (preResize.width() >= 1) return preResize;
    if (item) return QSizeF(double(item->buffer.width()), double(item->buffer.height()));
    return std::nullopt;
}
} // namespace

void CropModel::linkResizeHeightToWidth() {
    const auto base = aspectBase(m_preResizeSize, active());
    if (!base || !(base->height() >= 1)) return;
    const double aspect = base->width() / base->height();
    if (!(aspect > 0)) return;
    if (!(m_settings.resizeWidth >= 1)) return;
    m_linkingResizeFields = true;
    setResizeHeight(double(roundHalfAwayToInt(m_settings.resizeWidth / aspect)));
    m_linkingResizeFields = false;
}

void CropModel::linkResizeWidthToHeight() {
    const auto base = aspectBase(m_preResizeSize, active());
    if (!base || !(base->height() >= 1)) return;
    const double aspect = base->width() / base->height();
    if (!(aspect > 0)) return;
    if (!(m_settings.resizeHeight >= 1)) return;
    m_linkingResizeFields = true;
    setResizeWidth(double(roundHalfAwayToInt(aspect * m_settings.resizeHeight)));
    m_linkingResizeFields = false;
}

void CropModel::seedResizePixels() {
    const auto base = aspectBase(m_preResizeSize, active());
    if (!base || !(base->width() >= 1) || !(base->height() >= 1)) return;
    m_linkingResizeFields = true;
    setResizeWidth(double(roundHalfAwayToInt(base->width())));
    setResizeHeight(double(roundHalfAwayToInt(base->height())));
    m_linkingResizeFields = false;
}

bool CropModel::willTrim() const {
    const Item* item = active();
    if (!item || m_processedImage.isNull()) return false;
    if (m_processedImage.width() != item->buffer.width() ||
        m_processedImage.height() != item->buffer.height())
        return true;
    const Settings& s = m_settings;
    return s.keyWhiteEnabled || s.stickerEnabled || s.paddingEnabled || s.backgroundEnabled ||
           s.quarterTurns != 0 || s.mirrored;
}

bool CropModel::backgroundIsOpaque() const {
    const Settings& s = m_settings;
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

bool CropModel::producesTransparency() const {
    const Settings& s = m_settings;
    if (s.resizeEnabled && s.resizeCanvas) {
        if (auto target = resizeTargetSize(m_preResizeSize)) {
            // A bigger canvas leaves margins after the background has been laid.
            if (m_preResizeSize.width() < target->width() || m_preResizeSize.height() < target->height())
                return true;
        }
    }
    if (s.backgroundEnabled && backgroundIsOpaque()) return false;
    return s.keyWhiteEnabled || s.stickerEnabled || s.paddingEnabled;
}

} // namespace cutlark
