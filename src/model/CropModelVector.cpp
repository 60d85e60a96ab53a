// The vector worker: one background loop with a one-slot request flag, so that any number of
// requests made during a trace fold into one further trace.
#include "model/CropModel.h"
#include "support/OffThread.h"

#include "model/Clipboard.h"
#include "support/AtomicFile.h"
#include "vectorize/VectorizeEngine.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QPointer>
#include <QtConcurrent/QtConcurrentRun>
#include <QThreadPool>

#include <cmath>
#include <exception>
#include <memory>

namespace cutlark {

namespace {

// A trace that runs out of memory or meets a library error gives nothing, like a trace that found
// nothing; the worker goes on.
VectorResult traceSafely(const CropModel::VectorTracer& tracer, const VectorJob& job) {
    try {
        return tracer(job);
    } catch (const std::exception&) {
        return {};
    }
}

} // namespace

void CropModel::updateVector() {
    // A draft is no picture to trace; the full build that ends the drag is.
    if (m_isApplyingSettingsSnapshot || m_processedIsDraft) return;
    if (m_settings.vectorizeEnabled && !m_processedImage.isNull()) {
        m_vectorNeedsTrace = true;
        setIsVectorizing(true);
        setVectorTooDetailed(false);
        if (m_vectorWorkerRunning) return; // the running loop will see the flag
        m_vectorWorkerRunning = true;
        if (m_synchronousWork) {
            runVectorPass();
        } else {
            // Started from the event loop, like a new task: writes made in the same turn fold in.
            QMetaObject::invokeMethod(this, &CropModel::runVectorPass, Qt::QueuedConnection);
        }
        return;
    }
    // Nothing can be traced: clear the output. A running trace isn't cancelled; its result is dropped.
    m_vectorNeedsTrace = false;
    setIsVectorizing(false);
    setVectorTooDetailed(false);
    setVectorTrace(std::nullopt);
    setVectorColorTrace(std::nullopt);
    setVectorPreview(QImage());
}

void CropModel::runVectorPass() {
    if (!m_vectorNeedsTrace) {
        stopVectorWorker();
        return;
    }
    m_vectorNeedsTrace = false;
    if (!m_settings.vectorizeEnabled || m_processedImage.isNull()) {
        stopVectorWorker();
        return;
    }
    // Every setting is read here, once, on this thread.
    VectorJob job;
    job.image = m_processedImage;
    job.fullColor = m_settings.vectorFullColor;
    job.style = m_settings.vectorizeStyle;
    job.strokeWidth = VectorSettings::outlineStrokeWidth(QSizeF(job.image.width(), job.image.height()),
                                                         m_settings.vectorStrokeWidth);
    job.params = VectorSettings::traceParams(m_settings);

    if (m_synchronousWork) {
        finishVectorPass(job, traceSafely(m_vectorTracer, job));
        return;
    }
    // The trace goes to the pool and comes back as one record, owned by one thread at a time: the
    // worker lets go of everything it shares with the model (the picture, the tracer) before it
    // hands the record back, so nothing of it is touched on two threads at once.
    struct Task {
        VectorJob job;
        VectorTracer tracer;
        VectorResult result;
    };
    runOffThread(
        this, std::make_unique<Task>(Task{job, m_vectorTracer, {}}),
        [](Task& task) {
            task.result = traceSafely(task.tracer, task.job);
            task.tracer = nullptr;
            task.job.image = QImage();
        },
        [](CropModel& self, Task& task) { self.finishVectorPass(task.job, task.result); });
}

void CropModel::finishVectorPass(const VectorJob& job, const VectorResult& result) {
    if (!m_settings.vectorizeEnabled) {
        stopVectorWorker(); // switched off meanwhile: the result is dropped
        return;
    }
    // Published whatever has happened since; a newer request's pass replaces it.
    if (job.fullColor) {
        setVectorTrace(std::nullopt);
        setVectorColorTrace(result.colorTrace);
        setVectorPreview(result.preview);
    } else {
        setVectorColorTrace(std::nullopt);
        setVectorTrace(result.trace);
        setVectorPreview(result.preview);
        setVectorTooDetailed(result.tooDetailed);
    }
    runVectorPass();
}

void CropModel::stopVectorWorker() {
    m_vectorWorkerRunning = false;
    setIsVectorizing(false);
    if (m_waitingSave) resumeWaitingSaveSoon();
}

bool CropModel::hasVectorOutput() const {
    return m_settings.vectorFullColor ? m_vectorColorTrace.has_value() : m_vectorTrace.has_value();
}

QImage CropModel::vectorDisplayImage() const {
    if (m_settings.vectorizeEnabled && !m_vectorPreview.isNull()) return m_vectorPreview;
    return m_processedImage;
}

std::optional<QString> CropModel::currentSVG() const {
    if (m_settings.vectorFullColor) {
        if (!m_vectorColorTrace) return std::nullopt;
        return VectorizeEngine::colorSVG(*m_vectorColorTrace);
    }
    if (!m_vectorTrace) return std::nullopt;
    return VectorizeEngine::svg(
        *m_vectorTrace, m_settings.vectorizeStyle,
        VectorSettings::outlineStrokeWidth(m_vectorTrace->size, m_settings.vectorStrokeWidth));
}

void CropModel::exportSVG() {
    if (waitsUntilFinal(&CropModel::exportSVG, true)) return;
    const auto text = currentSVG();
    const Item* item = active();
    if (!text || !item) {
        setErrorMessage(tr("Nothing to vectorize."));
        return;
    }
    writeVector(text->toUtf8(), item->path, QStringLiteral("svg"), QStringLiteral("image/svg+xml"));
}

QString CropModel::proposedDocumentName(const QString& sourcePath, const QString& extension) {
    const QFileInfo source(sourcePath);
    const QString stem = source.suffix().isEmpty()
                             ? source.fileName()
                             : source.fileName().left(source.fileName().size() - source.suffix().size() - 1);
    return stem + QLatin1Char('.') + extension;
}

void CropModel::writeVector(const QByteArray& bytes, const QString& sourcePath, const QString& extension,
                            const QString& type) {
    if (!m_panels) return;
    const auto chosen = m_panels->saveFile(QFileInfo(sourcePath).absolutePath(),
                                           proposedDocumentName(sourcePath, extension), type);
    if (!chosen || chosen->isEmpty()) return; // cancelling changes no message
    const QString name = QFileInfo(*chosen).fileName();
    if (!AtomicFile::write(*chosen, bytes)) {
        setErrorMessage(tr("Couldn’t write to “%1”.").arg(name));
        return;
    }
    // An export doesn't touch the item: no saved mark, no advance.
    setSaveConfirmation(name);
    setErrorMessage(std::nullopt);
}

void CropModel::copySVG() {
    if (waitsUntilFinal(&CropModel::copySVG, true)) return;
    const auto text = currentSVG();
    if (!text) {
        setErrorMessage(tr("Nothing to vectorize."));
        return;
    }
    if (Clipboard* clipboard = m_clipboard ? m_clipboard : Clipboard::system())
        clipboard->putSvg(text->toUtf8());
    setErrorMessage(std::nullopt);
    setNoticeMessage(tr("SVG copied to the clipboard."));
}

std::optional<QString> CropModel::vectorStatusText() const {
    if (m_isVectorizing) return tr("Tracing…");
    if (m_vectorTooDetailed) return tr("Too detailed for a single color — turn on Full color.");
    if (m_vectorColorTrace || m_vectorTrace) return std::nullopt;
    if (m_settings.vectorFullColor) return tr("No colors found to trace.");
    return tr("No clear shape to trace. Try turning on Remove background first.");
}

} // namespace cutlark
