#include "model/CropModel.h"

#include "engines/CollageSplitter.h"
#include "engines/VisionEngine.h"
#include "support/OffThread.h"

#include <QCoreApplication>
#include <QMetaEnum>
#include <QPointer>
#include <QtConcurrent/QtConcurrentRun>
#include <QThreadPool>

#include <exception>
#include <memory>

namespace cutlark {

namespace {

// The "went from false to true" tests of the hooks need the old value of flags only.
bool flagOf(bool v) {
    return v;
}
template <class T> bool flagOf(const T&) {
    return false;
}

// Every writer of the quarter turns keeps them in 0…3.
qint64 normalized(qint64 v) {
    return ((v % 4) + 4) % 4;
}
// Colours are kept to what a preset can say (#RRGGBBAA), so a look exported and read back by the
// command line is the same look to the last bit.
QColor normalized(const QColor& c) {
    return c.isValid() ? QColor::fromRgba(c.rgba()) : c;
}
template <class T> const T& normalized(const T& v) {
    return v;
}

} // namespace

CropModel::CropModel(QObject* parent)
    : QObject(parent), m_cutoutService{&VisionEngine::isAvailable,
                                       [](const QImage& source, const SubjectNetwork& network) {
                                           return VisionEngine::computeCutout(source, network);
                                       },
                                       &CropModel::subjectNetworkProblem, &CropModel::prepareSubjectNetwork,
                                       &VisionEngine::useNetwork},
      m_vectorTracer(&VectorSettings::trace) {}

// Each setter stores, notifies, then runs the field's hook — also for an unchanged value.
#define CUTLARK_SETTER(Type, name, Name, def, ...)                                                           \
    void CropModel::set##Name(const Type& value) {                                                           \
        const bool wasOn = flagOf(m_settings.name);                                                          \
        m_settings.name = normalized(value);                                                                 \
        notify(Field::name);                                                                                 \
        runHook(Field::name, wasOn);                                                                         \
    }
CUTLARK_SETTINGS(CUTLARK_SETTER)
#undef CUTLARK_SETTER

bool CropModel::writeSetting(const QString& name, const Settings& from) {
#define CUTLARK_WRITE_BY_NAME(Type, field, Name, def, ...)                                                   \
    if (name == QLatin1String(#field)) {                                                                     \
        set##Name(from.field);                                                                               \
        return true;                                                                                         \
    }
    CUTLARK_SETTINGS(CUTLARK_WRITE_BY_NAME)
#undef CUTLARK_WRITE_BY_NAME
    return false;
}

// The change hooks, all in one place, one case for every field (the compiler names a field left
// out). A setting rebuilds when it can change the picture: the switches it needs are on (the
// table's switch column, followed up) and, for some, its mode is the one chosen. To rebuild is
// `recomputeActive()`, to retrace `updateVector()`.
void CropModel::runHook(Field field, bool wasOn) {
    const Settings& s = m_settings;
    const QString name = QString::fromLatin1(QMetaEnum::fromType<Field>().valueToKey(int(field)));
    const auto live = [&](bool mode = true) { return mode && s.offSwitch(name).isEmpty(); };
    switch (field) {
    // The switches themselves, and what always shows: turning, mirroring.
    case Field::quarterTurns:
    case Field::mirrored:
    case Field::manualCropEnabled:
    case Field::trimEnabled:
    case Field::stickerEnabled:
    case Field::paddingEnabled:
    case Field::backgroundEnabled:
    case Field::vectorizeEnabled:
        recomputeActive();
        break;
    case Field::keyWhiteEnabled:
        if (!wasOn && s.keyWhiteEnabled) autoPickRemovalMode();
        recomputeActive();
        break;
    case Field::bgRemovalMode:
        // Subject mode chosen with removal still off: the network loads now, so the cutout that the
        // switch will start doesn't wait for it. With removal on, the cutout itself loads it.
        if (s.bgRemovalMode == BGRemovalMode::subject && !s.keyWhiteEnabled && !m_synchronousWork &&
            m_cutoutService.prepare && m_cutoutService.available && m_cutoutService.available())
            m_cutoutService.prepare();
        recomputeActive();
        break;
    case Field::resizeEnabled:
        if (!wasOn && s.resizeEnabled) seedResizePixels();
        recomputeActive();
        break;
    // Settings that count only under their switches.
    case Field::manualCropRect:
    case Field::threshold:
    case Field::strokeWidth:
    case Field::backgroundKind:
    case Field::resizeCanvas:
        if (live()) recomputeActive();
        break;
    case Field::maskEdits:
        if (live(s.bgRemovalMode == BGRemovalMode::subject)) recomputeActive();
        break;
    case Field::keyThreshold:
    case Field::keyInternal:
        if (live(s.bgRemovalMode == BGRemovalMode::white)) recomputeActive();
        break;
    case Field::paddingUniform:
        if (wasOn && !s.paddingUniform) {
            // Leaving uniform padding starts each side from the uniform amount.
            const double amount = s.padAmount;
            setPadTop(amount);
            setPadRight(amount);
            setPadBottom(amount);
            setPadLeft(amount);
        }
        if (live()) recomputeActive();
        break;
    case Field::padAmount:
        if (live(s.paddingUniform)) recomputeActive();
        break;
    case Field::padTop:
    case Field::padRight:
    case Field::padBottom:
    case Field::padLeft:
        if (live(!s.paddingUniform)) recomputeActive();
        break;
    case Field::backgroundColor:
        if (live(s.backgroundKind == BackgroundKind::color)) recomputeActive();
        break;
    case Field::gradientStart:
    case Field::gradientEnd:
    case Field::gradientAngle:
        if (live(s.backgroundKind == BackgroundKind::gradient)) recomputeActive();
        break;
    // The resize's two sizes follow each other while the aspect is locked.
    case Field::resizeWidth:
        if (m_linkingResizeFields) break;
        if (s.resizeLockAspect) linkResizeHeightToWidth();
        if (live()) recomputeActive();
        break;
    case Field::resizeHeight:
        if (m_linkingResizeFields) break;
        if (s.resizeLockAspect) linkResizeWidthToHeight();
        if (live()) recomputeActive();
        break;
    case Field::resizeLockAspect:
        if (s.resizeLockAspect) linkResizeHeightToWidth();
        if (live()) recomputeActive();
        break;
    // The trace's settings retrace; the picture stays.
    case Field::vectorizeStyle:
    case Field::vectorFullColor:
    case Field::vectorCurves:
    case Field::vectorTolerance:
    case Field::vectorMinFeature:
    case Field::vectorDenoise:
    case Field::vectorCleanup:
    case Field::vectorStacked:
        if (live()) updateVector();
        break;
    case Field::vectorStrokeWidth:
        if (live(s.vectorizeStyle == VectorizeStyle::outline)) updateVector();
        break;
    // The background picture and its file are written together by `chooseBackgroundImage` and
    // `clearBackgroundImage`, which rebuild once both are in place.
    case Field::backgroundImage:
    case Field::backgroundImageURL:
        break;
    // Not settings: the model writes them itself, never through a hook.
    case Field::items:
    case Field::activeID:
    case Field::syncSettingsAcrossQueue:
    case Field::activeContentRect:
    case Field::processedImage:
    case Field::errorMessage:
    case Field::saveConfirmation:
    case Field::noticeMessage:
    case Field::saving:
    case Field::collageRects:
    case Field::visionComputing:
    case Field::vectorTrace:
    case Field::vectorColorTrace:
    case Field::vectorPreview:
    case Field::isVectorizing:
    case Field::vectorTooDetailed:
        break;
    }
}

// --- private writers of the observable fields ---

void CropModel::setSyncSettingsAcrossQueue(bool on) {
    m_syncSettingsAcrossQueue = on;
    notify(Field::syncSettingsAcrossQueue);
}

void CropModel::setActiveID(std::optional<QUuid> id) {
    m_activeID = id;
    notify(Field::activeID);
    if (m_waitingSave && m_waitingSave->id != id) resumeWaitingSave(); // dropped: asked for another picture
}

void CropModel::setActiveContentRect(std::optional<QRectF> rect) {
    m_activeContentRect = rect;
    notify(Field::activeContentRect);
}

void CropModel::setProcessedImage(const QImage& image) {
    m_processedImage = image;
    notify(Field::processedImage);
}

void CropModel::setErrorMessage(std::optional<QString> text) {
    m_errorMessage = std::move(text);
    notify(Field::errorMessage);
}

void CropModel::setSaveConfirmation(std::optional<QString> text) {
    m_saveConfirmation = std::move(text);
    notify(Field::saveConfirmation);
}

void CropModel::setNoticeMessage(std::optional<QString> text) {
    m_noticeMessage = std::move(text);
    notify(Field::noticeMessage);
}

void CropModel::setCollageRects(const QList<QRectF>& rects) {
    m_collageRects = rects;
    notify(Field::collageRects);
}

void CropModel::setVectorTrace(std::optional<VectorTrace> trace) {
    m_vectorTrace = std::move(trace);
    notify(Field::vectorTrace);
}

void CropModel::setVectorColorTrace(std::optional<VectorColorTrace> trace) {
    m_vectorColorTrace = std::move(trace);
    notify(Field::vectorColorTrace);
}

void CropModel::setVectorPreview(const QImage& image) {
    m_vectorPreview = image;
    notify(Field::vectorPreview);
}

void CropModel::setIsVectorizing(bool on) {
    m_isVectorizing = on;
    notify(Field::isVectorizing);
}

void CropModel::setVectorTooDetailed(bool on) {
    m_vectorTooDetailed = on;
    notify(Field::vectorTooDetailed);
}

// --- derived values ---

const CropModel::Item* CropModel::active() const {
    if (!m_activeID) return nullptr;
    for (const Item& item : m_items)
        if (item.id == *m_activeID) return &item;
    return nullptr;
}

std::optional<qsizetype> CropModel::activePosition() const {
    if (!m_activeID) return std::nullopt;
    for (size_t i = 0; i < m_items.size(); ++i)
        if (m_items[i].id == *m_activeID) return qsizetype(i + 1);
    return std::nullopt;
}

bool CropModel::allSaved() const {
    if (m_items.empty()) return false;
    for (const Item& item : m_items)
        if (!item.saved) return false;
    return true;
}

CropModel::Item* CropModel::findItem(const QUuid& id) {
    for (Item& item : m_items)
        if (item.id == id) return &item;
    return nullptr;
}

QImage CropModel::cropSourceImage() const {
    const Item* item = active();
    if (!item) return QImage();
    const auto turned =
        CropEngine::oriented(item->buffer.image(), m_settings.quarterTurns, m_settings.mirrored);
    return turned ? *turned : item->buffer.image();
}

QString CropModel::revealKey() const {
    const Item* item = active();
    const QString id = m_activeID ? m_activeID->toString(QUuid::WithoutBraces).toUpper() : QString();
    return id + QLatin1Char('#') + QString::number(item ? item->buffer.width() : 0) + QLatin1Char('x') +
           QString::number(item ? item->buffer.height() : 0);
}

// --- queue and settings ---

void CropModel::select(const QUuid& id) {
    if (m_activeID && *m_activeID == id) return; // the status texts stay
    setSaveConfirmation(std::nullopt);
    setErrorMessage(std::nullopt);
    activate(id);
}

void CropModel::activate(std::optional<QUuid> id) {
    captureSettingsBeforeSwitch(); // nothing to keep when the item left is gone already
    setActiveID(id);
    if (Item* item = id ? findItem(*id) : nullptr) restorePixels(*item);
    restoreSettingsAfterSwitch();
    detectCollage();
    settleDecoded();
}

void CropModel::remove(const QUuid& id) {
    auto it = std::find_if(m_items.begin(), m_items.end(), [&](const Item& item) { return item.id == id; });
    if (it == m_items.end()) return;
    const size_t index = size_t(it - m_items.begin());
    const bool wasActive = m_activeID && *m_activeID == id;
    // No settings are captured: they leave with the item.
    invalidateVision(id);
    m_items.erase(m_items.begin() + qsizetype(index));
    itemsChanged();
    if (!wasActive) settleDecoded(); // the active item may have a new neighbour
    setSaveConfirmation(std::nullopt);
    setErrorMessage(std::nullopt);
    if (m_items.empty()) {
        // The live settings stay as they are.
        setActiveID(std::nullopt);
        setCollageRects({});
        recomputeActive();
        return;
    }
    if (wasActive) activate(m_items[std::min(index, m_items.size() - 1)].id);
}

void CropModel::setManualCrop(const QRectF& rect) {
    setManualCropRect(rect);
    if (!m_settings.manualCropEnabled) setManualCropEnabled(true);
}

// Mirroring comes before turning, so a flip of the result is a mirror plus a compensating turn.
void CropModel::flipHorizontal() {
    setQuarterTurns((4 - m_settings.quarterTurns) % 4);
    setMirrored(!m_settings.mirrored);
}

void CropModel::flipVertical() {
    setQuarterTurns((6 - m_settings.quarterTurns) % 4);
    setMirrored(!m_settings.mirrored);
}

CropModel::Settings CropModel::snapshotCurrentSettings() const {
    return m_settings;
}

void CropModel::applySettings(const Settings& settings) {
    m_isApplyingSettingsSnapshot = true;
    // Each field through its own write path, in table order, so every hook runs; rebuilds and
    // retraces asked for meanwhile return at once, and the one below does the work.
#define CUTLARK_APPLY(Type, name, Name, def, ...) set##Name(settings.name);
    CUTLARK_SETTINGS(CUTLARK_APPLY)
#undef CUTLARK_APPLY
    m_isApplyingSettingsSnapshot = false;
    recomputeActive();
}

void CropModel::captureSettingsBeforeSwitch() {
    if (m_syncSettingsAcrossQueue || !m_activeID) return;
    if (Item* item = findItem(*m_activeID)) item->settingsSnapshot = snapshotCurrentSettings();
}

void CropModel::restoreSettingsAfterSwitch() {
    const Item* item = (m_syncSettingsAcrossQueue || !m_activeID) ? nullptr : active();
    if (!item) {
        recomputeActive();
        return;
    }
    applySettings(item->settingsSnapshot);
}

// --- collage ---

void CropModel::detectCollage() {
    const Item* item = active();
    QList<QRectF> rects;
    try {
        if (item && m_detectsCollages)
            rects = CollageSplitter::pieces(item->buffer, CollageSplitter::kDetectionThreshold);
    } catch (const std::exception&) {
        rects.clear(); // a detection that runs out of memory finds no collage
    }
    setCollageRects(rects);
}

} // namespace cutlark
