// The active item's build: what of the last build can be reused, the pipeline, and the links
// between the resize's two sizes.
#include "model/CropModel.h"

#include "engines/AreaResize.h"
#include "model/Pipeline.h"

#include <QColorSpace>

#include <algorithm>
#include <cmath>
#include <exception>
#include <limits>
#include <optional>

namespace cutlark {

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

namespace {

// `image` shrunk to `w` × `h` by area averaging, in its own four-byte format.
QImage shrunk(const QImage& image, int w, int h) {
    const QImage src =
        image.depth() == 32 ? image : image.convertToFormat(QImage::Format_RGBA8888_Premultiplied);
    QImage out(w, h, src.format());
    if (out.isNull()) return QImage();
    AreaResize::shrink(src.constBits(), src.width(), src.height(), size_t(src.bytesPerLine()), out.bits(), w,
                       h, size_t(out.bytesPerLine()));
    out.setColorSpace(src.colorSpace());
    return out;
}

} // namespace

void CropModel::setDraft(bool on) {
    m_draft = on;
    if (on) return;
    m_draftSource.reset(); // its memory goes with the drag
    if (m_processedIsDraft) recomputeActive();
}

QSize CropModel::resultSize() const {
    if (!m_processedIsDraft || !m_draftSource) return m_processedImage.size();
    const double k = m_draftSource->scale;
    return QSize(int(std::lround(m_processedImage.width() / k)),
                 int(std::lround(m_processedImage.height() / k)));
}

std::optional<QImage> CropModel::buildDraft(const Item& item) {
    const QImage& full = item.buffer.image();
    const int longSide = std::max(full.width(), full.height());
    if (longSide <= kDraftLongSide * 5 / 4) return std::nullopt; // small enough to build whole
    QImage cutout;
    if (m_settings.keyWhiteEnabled && m_settings.bgRemovalMode == BGRemovalMode::subject)
        cutout = m_cutouts.cutout(item.id);
    if (!m_draftSource || m_draftSource->item != item.id || m_draftSource->source != full.cacheKey() ||
        m_draftSource->cutout != (cutout.isNull() ? 0 : cutout.cacheKey())) {
        const double k = double(kDraftLongSide) / longSide;
        const int w = std::max(1, int(std::lround(full.width() * k)));
        const int h = std::max(1, int(std::lround(full.height() * k)));
        DraftSource d{item.id, full.cacheKey(),    cutout.isNull() ? 0 : cutout.cacheKey(),
                      k,       shrunk(full, w, h), cutout.isNull() ? QImage() : shrunk(cutout, w, h)};
        if (d.image.isNull() || (!cutout.isNull() && d.cutoutImage.isNull())) return std::nullopt;
        m_draftSource = std::move(d);
    }
    const Settings scaled = m_settings.scaledPixels(m_draftSource->scale);
    Pipeline::Built built = Pipeline::beforeResize(m_draftSource->image, scaled, m_draftSource->cutoutImage,
                                                   m_draftSource->scale);
    built = Pipeline::resized(std::move(built), scaled);
    m_failedStages = built.failed;
    setActiveContentRect(QRectF(0, 0, built.image.width(), built.image.height()));
    return built.image;
}

QImage CropModel::buildProcessed(const Item& item) {
    const Settings& s = m_settings;
    m_processedIsDraft = false;
    // A draft only where the full build is what is kept afterwards: the command line never drafts.
    if (m_draft && !m_defersResize && !m_synchronousWork) {
        if (auto draft = buildDraft(item)) {
            m_processedIsDraft = true;
            return *draft;
        }
    }
    // What the stages before the resize depend on; when it is what the last build had, its picture
    // before the resize is taken as it is.
    PreResize key;
    key.item = item.id;
    key.source = item.buffer.image().cacheKey();
    QImage cutout;
    if (s.keyWhiteEnabled && s.bgRemovalMode == BGRemovalMode::subject) {
        cutout = m_cutouts.cutout(item.id);
        key.cutout = cutout.isNull() ? 0 : cutout.cacheKey();
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
    Pipeline::Built built;
    if (m_preResize && m_preResize->item == key.item && m_preResize->source == key.source &&
        m_preResize->cutout == key.cutout && m_preResize->settings == key.settings) {
        built = {m_preResize->image, m_preResize->failed};
    } else {
        m_preResize.reset(); // its picture isn't kept alive beside the new one's stages
        built = Pipeline::beforeResize(item.buffer.image(), s, cutout);
        key.failed = built.failed;
        key.image = built.image;
        m_preResize = std::move(key);
    }

    // 8. Remember the size before the resize: the base of the aspect links.
    m_preResizeSize = QSizeF(built.image.width(), built.image.height());

    // 9. Resize or canvas, unless deferred.
    if (!m_defersResize) built = Pipeline::resized(std::move(built), s);
    m_failedStages = built.failed;
    const QImage& work = built.image;

    // 10. Finish.
    setActiveContentRect(QRectF(0, 0, work.width(), work.height()));
    return work;
}

CropModel::Insets CropModel::paddingInsets() const {
    return Pipeline::paddingInsets(m_settings);
}

std::optional<QSizeF> CropModel::resizeTargetSize(const QSizeF& size) const {
    return Pipeline::resizeTarget(m_settings, size);
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
    return Pipeline::backgroundIsOpaque(m_settings);
}

bool CropModel::producesTransparency() const {
    return Pipeline::producesTransparency(m_settings, m_preResizeSize);
}

} // namespace cutlark
