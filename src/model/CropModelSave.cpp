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

const CropModel::Item* CropModel::itemToSave() {
    const Item* item = active();
    if (!item || m_processedImage.isNull()) setErrorMessage(tr("Nothing to save."));
    return item && !m_processedImage.isNull() ? item : nullptr;
}

void CropModel::finishSave(const QUuid& id, const QString& written) {
    setSaveConfirmation(QFileInfo(written).fileName());
    setErrorMessage(std::nullopt);
    advanceToNextUnsaved(id);
}

void CropModel::saveOverOriginal() {
    const Item* item = itemToSave();
    if (!item) return;
    const QUuid id = item->id;
    const SavePlan::Choice choice = saveTypeChoice(*item);
    // When PNG is forced the old file stays on disk: only the new name is written.
    const QString target = SavePlan::overOriginal(item->path, choice);
    const QByteArray bytes = ImageFile::encode(m_processedImage, choice.type, item->storage,
                                               ImageFile::interactiveQuality(choice.type));
    if (bytes.isEmpty() || !AtomicFile::write(target, bytes)) {
        setErrorMessage(tr("Couldn’t write to “%1”.").arg(QFileInfo(target).fileName()));
        return;
    }
    if (Item* saved = findItem(id)) {
        // The written pixels become the item's source, read back from the very bytes written; a
        // failed read-back keeps the old ones.
        if (auto loaded = ImageFile::loadFromData(bytes, m_loadOptions)) {
            if (auto buffer = CropEngine::Buffer::make(loaded->image)) {
                saved->buffer = *buffer;
                saved->memory = loaded->hold;
                saved->storage = loaded->storage;
                if (!saved->encoded.isEmpty()) saved->encoded = bytes;
                if (m_makesThumbnails) saved->thumbnail = thumbnailOf(buffer->image());
                invalidateVision(id);
            }
        }
        saved->path = target;
        saved->type = choice.type;
        saved->saved = true;
        itemsChanged();
    }
    finishSave(id, target);
}

void CropModel::saveAsNewFile() {
    const Item* item = itemToSave();
    if (!item) return;
    const QUuid id = item->id;
    const SavePlan::Choice choice = saveTypeChoice(*item);
    const QString proposed = SavePlan::newFileName(item->path, choice);
    if (!m_panels) return;
    const auto chosen = m_panels->saveFile(folderOf(item->path), proposed, choice.type);
    if (!chosen || chosen->isEmpty()) return;
    if (!ImageFile::save(m_processedImage, *chosen, choice.type, item->storage,
                         ImageFile::interactiveQuality(choice.type))) {
        setErrorMessage(tr("Couldn’t write to “%1”.").arg(QFileInfo(*chosen).fileName()));
        return;
    }
    if (Item* saved = findItem(id)) {
        saved->saved = true;
        itemsChanged();
    }
    finishSave(id, *chosen);
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
