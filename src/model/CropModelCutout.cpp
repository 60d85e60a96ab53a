// The subject cutout of the active item: chosen, computed off the main thread, kept by item.
#include "model/CropModel.h"

#include "engines/CropEngine.h"
#include "engines/VisionEngine.h"
#include "support/OffThread.h"

#include <QtConcurrent/QtConcurrentRun>
#include <QThreadPool>

#include <exception>
#include <functional>
#include <memory>
#include <optional>

namespace cutlark {

namespace {

// A cutout that runs out of memory or meets a library error counts as no subject found.
std::optional<QImage> cutoutSafely(const CropModel::CutoutService& service, const QImage& source,
                                   const SubjectNetwork& network) {
    try {
        return service.compute(source, network);
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

} // namespace

// --- subject cutout ---

void CropModel::autoPickRemovalMode() {
    const Item* item = active();
    BGRemovalMode mode = BGRemovalMode::white;
    // The measurement reads the untouched source, so turns and crops don't sway it.
    if (m_cutoutService.available() && item)
        mode = CropEngine::backgroundIsMostlyWhite(item->buffer, CropEngine::kMostlyWhiteEdgeFraction)
                   ? BGRemovalMode::white
                   : BGRemovalMode::subject;
    setBgRemovalMode(mode);
    recomputeActive();
}

QString CropModel::subjectNetworkProblem() {
    const QString network = VisionEngine::problem();
    return network.isEmpty() ? VisionEngine::runtimeProblem() : network;
}

void CropModel::prepareSubjectNetwork() {
    // Loaded and run once on a blank picture, so the first real cutout runs at full speed.
    (void)QtConcurrent::run(QThreadPool::globalInstance(), [] { VisionEngine::preload(); });
}

bool CropModel::wantsVision() const {
    return m_settings.keyWhiteEnabled && m_settings.bgRemovalMode == BGRemovalMode::subject;
}

bool CropModel::isDetectingSubject() const {
    return m_activeID && m_cutouts.computing(*m_activeID);
}

bool CropModel::subjectNotFound() const {
    return wantsVision() && m_activeID && m_cutouts.notFound(*m_activeID);
}

void CropModel::invalidateVision(const QUuid& id) {
    m_cutouts.forget(id);
    notify(Field::visionComputing);
}

void CropModel::ensureVisionCutout() {
    if (!wantsVision() || !m_activeID) return;
    const Item* item = active();
    if (!item) return;
    const QUuid id = item->id;
    if (m_cutouts.attempted(id) || m_cutouts.computing(id)) return;
    if (!m_cutoutService.available()) return; // subject mode isn't offered then
    m_cutouts.start(id);
    notify(Field::visionComputing);

    // The unturned, uncropped source: a turn or a mirror later needs no new computation.
    const QImage source = item->buffer.image();
    if (m_synchronousWork) {
        finishCutout(id, m_cutouts.network(), cutoutSafely(m_cutoutService, source, m_cutouts.network()));
        return;
    }
    // Computed on the thread pool; the result comes back to this model's thread, and is dropped if
    // the model is gone by then. A running computation is never cancelled.
    struct Task {
        QUuid id;
        QImage source;
        CutoutService service;
        SubjectNetwork network;
        std::optional<QImage> cutout;
    };
    runOffThread(
        this, std::make_unique<Task>(Task{id, source, m_cutoutService, m_cutouts.network(), std::nullopt}),
        [](Task& task) {
            task.cutout = cutoutSafely(task.service, task.source, task.network);
            task.service = {};
            task.source = QImage();
        },
        [](CropModel& self, Task& task) { self.finishCutout(task.id, task.network, task.cutout); });
}

void CropModel::setSubjectNetwork(const SubjectNetwork& network) {
    if (m_cutoutService.choose) m_cutoutService.choose(network);
    m_cutouts.setNetwork(network);
    notify(Field::visionComputing);
    if (!wantsVision()) return;
    recomputeActive(); // without the old network's cutout, and asking for the new one's
    if (m_cutoutService.prepare && m_cutoutService.available && m_cutoutService.available())
        m_cutoutService.prepare();
}

bool CropModel::chooseSubjectNetwork(const QString& onnxPath) {
    QString why;
    const std::optional<SubjectNetwork> network = SubjectNetwork::read(onnxPath, &why);
    if (!network) {
        setErrorMessage(why);
        return false;
    }
    setSubjectNetwork(*network);
    return true;
}

void CropModel::finishCutout(const QUuid& id, const SubjectNetwork& network,
                             const std::optional<QImage>& cutout) {
    if (!(network == m_cutouts.network())) return; // cut out by a network chosen before
    m_cutouts.finish(id, network, cutout);
    notify(Field::visionComputing);
    // Only the active image is rebuilt; a result for another item waits until it is selected.
    if (m_activeID && *m_activeID == id) recomputeActive();
    // A network that couldn't be loaded is not "no subject": the person hears which file and why;
    // a damaged runtime only slows cutouts down (they run on OpenCV), and is said as a notice. Both
    // after the rebuild, which clears notices.
    const QString why = m_cutoutService.problem ? m_cutoutService.problem() : QString();
    if (!why.isEmpty() && !cutout) setErrorMessage(why);
    if (!why.isEmpty() && cutout) setNoticeMessage(why);
    if (m_waitingSave) resumeWaitingSaveSoon();
}

} // namespace cutlark
