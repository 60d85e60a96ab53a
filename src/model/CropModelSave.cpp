// Saving: over the original or as a new file, the split of a collage, and the queue's advance.
#include "model/CropModel.h"

#include "io/ImageFile.h"
#include "support/AtomicFile.h"
#include "support/NativePath.h"
#include "support/NaturalOrder.h"
#include "support/OffThread.h"
#include "support/OrderedWork.h"
#include "support/RegularFile.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QPointer>
#include <QtConcurrent/QtConcurrentRun>
#include <QThread>
#include <QThreadPool>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <exception>

namespace cutlark {

namespace {

QString folderOf(const QString& path) {
    return QFileInfo(NativePath::absolute(path)).path();
}

QString withoutExtension(const QString& path) {
    const QString ext = QFileInfo(path).suffix();
    return ext.isEmpty() ? path : path.left(path.size() - ext.size() - 1);
}

} // namespace

SavePlan::Choice CropModel::saveTypeChoice(const Item& item) const {
    return SavePlan::byRules(item.type, producesTransparency());
}

QString CropModel::proposedNewFileName(const Item& item) const {
    return SavePlan::newFileName(item.path, saveTypeChoice(item));
}

// One save's work and what came of it, owned by one thread at a time.
struct CropModel::SaveJob {
    QUuid id;
    QImage image; ///< what was shown when the save was asked for
    QString target;
    SavePlan::Choice choice;
    ImageFile::Storage storage;
    bool overOriginal = false; ///< the written pixels become the item's source
    ImageFile::LoadOptions loadOptions;
    bool thumbnail = false;
    // Filled in by the worker:
    bool written = false;
    QByteArray bytes;
    std::optional<ImageFile::Loaded> loaded;
    std::optional<CropEngine::Buffer> buffer;
    QImage thumbnailImage;
};

namespace {

// Saves outlive nothing: a window that closes waits for the files being written, never for a cutout.
QThreadPool& writePool() {
    static QThreadPool pool;
    return pool;
}

} // namespace

CropModel::~CropModel() {
    if (!m_writing.isEmpty()) writePool().waitForDone();
}

const CropModel::Item* CropModel::itemToSave() {
    // A save during a drag writes the picture in full, never its draft.
    if (m_processedIsDraft) {
        const bool drafting = m_draft;
        m_draft = false;
        recomputeActive();
        m_draft = drafting;
    }
    const Item* item = active();
    if (!item || m_processedImage.isNull()) setErrorMessage(tr("Nothing to save."));
    return item && !m_processedImage.isNull() ? item : nullptr;
}

std::optional<QString> CropModel::savingMessage() const {
    if (!m_writing.isEmpty()) return tr("Saving “%1”…").arg(QFileInfo(m_writing.back().second).fileName());
    if (m_waitingSave)
        return m_waitingSave->needsTrace ? tr("Waiting for the trace to save it…")
                                         : tr("Waiting for the subject to be cut out to save it…");
    return std::nullopt;
}

bool CropModel::waitsUntilFinal(void (CropModel::*action)(), bool needsTrace) {
    if (!m_activeID || !(isDetectingSubject() || (needsTrace && m_isVectorizing))) return false;
    // Pressed again while waiting, the one save stands: it writes once, what is shown at the end.
    m_waitingSave = WaitingSave{*m_activeID, action, needsTrace};
    notify(Field::saving);
    return true;
}

void CropModel::resumeWaitingSave() {
    if (!m_waitingSave) return;
    if (!m_activeID || *m_activeID != m_waitingSave->id) {
        // Another picture is shown now: the save was asked for the one that was, so it is dropped.
        m_waitingSave.reset();
        notify(Field::saving);
        return;
    }
    if (isDetectingSubject() || (m_waitingSave->needsTrace && m_isVectorizing)) return;
    const auto action = m_waitingSave->action;
    m_waitingSave.reset();
    notify(Field::saving);
    (this->*action)();
}

void CropModel::resumeWaitingSaveSoon() {
    if (m_synchronousWork || !QCoreApplication::instance())
        resumeWaitingSave();
    else
        QMetaObject::invokeMethod(this, &CropModel::resumeWaitingSave, Qt::QueuedConnection);
}

void CropModel::finishSave(const QUuid& id, const QString& written) {
    setSaveConfirmation(QFileInfo(written).fileName());
    setErrorMessage(std::nullopt);
    // The queue moves on from the picture saved, and only while it is the one shown: a person who
    // went on to another picture meanwhile stays there.
    if (m_activeID && *m_activeID == id) advanceToNextUnsaved(id);
}

void CropModel::saveOverOriginal() {
    if (waitsUntilFinal(&CropModel::saveOverOriginal, false)) return;
    const Item* item = itemToSave();
    if (!item) return;
    for (const auto& writing : m_writing)
        if (writing.first == item->id) return; // already being written: once is enough
    auto job = std::make_unique<SaveJob>();
    job->id = item->id;
    job->image = m_processedImage;
    job->choice = saveTypeChoice(*item);
    // When PNG is forced the old file stays on disk: only the new name is written.
    job->target = SavePlan::overOriginal(item->path, job->choice);
    job->storage = item->storage;
    job->overOriginal = true;
    job->loadOptions = m_loadOptions;
    job->thumbnail = m_makesThumbnails;
    startWrite(std::move(job));
}

void CropModel::saveAsNewFile() {
    if (waitsUntilFinal(&CropModel::saveAsNewFile, false)) return;
    const Item* item = itemToSave();
    if (!item || !m_panels) return;
    auto job = std::make_unique<SaveJob>();
    job->id = item->id;
    job->image = m_processedImage; // what is shown now, whatever happens while the panel is open
    job->choice = saveTypeChoice(*item);
    job->storage = item->storage;
    const QString proposed = SavePlan::newFileName(item->path, job->choice);
    const auto chosen = m_panels->saveFile(folderOf(item->path), proposed, job->choice.type);
    if (!chosen || chosen->isEmpty()) return;
    job->target = *chosen;
    startWrite(std::move(job));
}

void CropModel::startWrite(std::unique_ptr<SaveJob> job) {
    const auto work = [](SaveJob& task) {
        try {
            task.bytes = ImageFile::encode(task.image, task.choice.type, task.storage,
                                           ImageFile::interactiveQuality(task.choice.type));
            task.written = !task.bytes.isEmpty() && AtomicFile::write(task.target, task.bytes);
            // The written pixels become the item's source, read back from the very bytes written;
            // a failed read-back keeps the old ones.
            if (task.written && task.overOriginal) {
                task.loaded = ImageFile::loadFromData(task.bytes, task.loadOptions);
                if (task.loaded) task.buffer = CropEngine::Buffer::make(task.loaded->image);
                if (task.buffer && task.thumbnail) task.thumbnailImage = thumbnailOf(task.buffer->image());
            }
        } catch (const std::exception&) {
            task.written = task.written && !task.overOriginal; // a read-back that failed is no failed write
        }
        task.image = QImage();
    };
    m_writing.append({job->id, job->target});
    notify(Field::saving);
    // Without an event loop (a program with no application object) nothing could come back.
    if (m_synchronousWork || !QCoreApplication::instance()) {
        work(*job);
        finishWrite(*job);
        return;
    }
    runOffThread(
        this, std::move(job), work, [](CropModel& self, SaveJob& task) { self.finishWrite(task); },
        &writePool());
}

void CropModel::finishWrite(SaveJob& job) {
    for (qsizetype i = 0; i < m_writing.size(); ++i)
        if (m_writing[i].first == job.id && m_writing[i].second == job.target) {
            m_writing.removeAt(i);
            break;
        }
    notify(Field::saving);
    if (!job.written) {
        // The item stays unsaved; the person hears which file.
        setErrorMessage(tr("Couldn’t write to “%1”.").arg(QFileInfo(job.target).fileName()));
        return;
    }
    if (Item* saved = findItem(job.id)) {
        if (job.buffer) {
            saved->buffer = *job.buffer;
            saved->memory = job.loaded->hold;
            saved->storage = job.loaded->storage;
            if (!saved->encoded.isEmpty()) saved->encoded = job.bytes;
            if (job.thumbnail) saved->thumbnail = job.thumbnailImage;
            invalidateVision(job.id);
        }
        if (job.overOriginal) {
            saved->path = job.target;
            saved->type = job.choice.type;
        }
        saved->saved = true;
        itemsChanged();
    }
    finishSave(job.id, job.target);
}

QString CropModel::splitPieceName(const Item& item, int position, int number) {
    const QString base = QFileInfo(withoutExtension(item.path)).fileName();
    QString extension = QFileInfo(item.path).suffix();
    if (extension.isEmpty()) extension = ImageFile::preferredExtension(item.type);
    if (extension.isEmpty()) extension = QStringLiteral("png");
    return base + QLatin1Char('-') + QString::number(position) +
           (number > 1 ? QLatin1Char('-') + QString::number(number) : QString()) + QLatin1Char('.') +
           extension;
}

void CropModel::splitCollage() {
    const Item* item = active();
    if (!item || m_collageRects.size() < 2 || !m_panels) return;
    const auto folder = m_panels->chooseFolder(folderOf(item->path), tr("Split Here"),
                                               tr("Choose a folder for the split images."));
    if (!folder || folder->isEmpty()) return;

    const QUuid id = item->id;
    const QDir dir(*folder);

    // Pieces of the untouched source, in the item's own format, largest first.
    QStringList written;
    for (qsizetype i = 0; i < m_collageRects.size(); ++i) {
        const QRectF& r = m_collageRects[i];
        const QImage piece = CropEngine::subImage(
            item->buffer.image(), QRect(int(r.x()), int(r.y()), int(r.width()), int(r.height())));
        if (piece.isNull()) continue; // the position goes on counting
        QString target = dir.filePath(splitPieceName(*item, int(i + 1)));
        // An existing file is written over only when asked (the command line's --overwrite); else
        // the piece takes the next free number.
        for (int n = 2; !m_splitReplaces && NativePath::exists(target); ++n)
            target = dir.filePath(splitPieceName(*item, int(i + 1), n));
        if (ImageFile::save(piece, target, item->type, item->storage,
                            ImageFile::interactiveQuality(item->type)))
            written << target;
    }
    if (written.size() < 2) {
        // What was written stays in the folder; the queue is left as it was.
        setErrorMessage(tr("Couldn’t write the split images."));
        return;
    }

    // The collage leaves the queue; its file is not touched.
    const bool wasActive = m_activeID && *m_activeID == id;
    invalidateVision(id);
    m_items.erase(std::remove_if(m_items.begin(), m_items.end(), [&](const Item& it) { return it.id == id; }),
                  m_items.end());
    itemsChanged();
    if (wasActive) setActiveID(m_items.empty() ? std::nullopt : std::optional<QUuid>(m_items.front().id));
    setCollageRects({});
    open(written);
    setNoticeMessage(tr("Split into %1 images.").arg(written.size()));
}

void CropModel::advanceToNextUnsaved(const QUuid& after) {
    const auto it =
        std::find_if(m_items.begin(), m_items.end(), [&](const Item& item) { return item.id == after; });
    if (it == m_items.end()) {
        recomputeActive();
        return;
    }
    const size_t n = m_items.size();
    const size_t i = size_t(it - m_items.begin());
    // Forward, wrapping at the end, back to the starting item.
    for (size_t step = 1; step <= n; ++step) {
        const Item& candidate = m_items[(i + step) % n];
        if (candidate.saved) continue;
        activate(candidate.id);
        return; // the confirmation stays, naming the file just written
    }
    recomputeActive();
}

} // namespace cutlark
