// Bringing images in and writing results out.
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

QString fileName(const QString& path) {
    return QFileInfo(path).fileName();
}
QString extensionOf(const QString& path) {
    return QFileInfo(path).suffix();
}
QString folderOf(const QString& path) {
    return QFileInfo(NativePath::absolute(path)).path();
}

QString withoutExtension(const QString& path) {
    const QString ext = extensionOf(path);
    return ext.isEmpty() ? path : path.left(path.size() - ext.size() - 1);
}

} // namespace

bool CropModel::passesTypeTest(const QString& path) {
    const QString type = ImageFile::typeForExtension(extensionOf(path));
    if (type.isEmpty()) return false;
    // A camera's raw file is TIFF to the MIME database, but not to a user: it is never opened (Qt
    // would decode its small preview) and so never written over.
    if (ImageFile::conforms(type, QStringLiteral("image/x-dcraw"))) return false;
    for (const QString& accepted : ImageFile::acceptedTypes())
        if (ImageFile::conforms(type, accepted)) return true;
    return false;
}

QStringList CropModel::expandingFolders(const QStringList& paths) {
    QStringList out;
    for (const QString& path : paths) {
        if (!NativePath::isFolder(path)) {
            out << path; // files and missing names go on untested
            continue;
        }
        // Direct children only, hidden ones left out; a folder that can't be listed counts as empty.
        // Listed by their bytes, so a name that isn't UTF-8 is opened under its own name.
        for (const QString& child : NativePath::children(path))
            if (passesTypeTest(child)) out << child;
    }
    return out;
}

QString CropModel::skipMessage(int count) const {
    if (count == 1) return tr("1 file couldn’t be opened.");
    return tr("%1 files couldn’t be opened.").arg(count);
}

QString CropModel::withRefusal(const QString& message) const {
    // The plain count, and for a picture refused for its size what it is and how to allow it.
    return m_openRefusal.isEmpty() ? message : message + QLatin1Char(' ') + m_openRefusal + QLatin1Char('.');
}

void CropModel::open(const QStringList& paths) {
    // A progress panel keeps events flowing while files decode, so a second open (a drop, a file
    // handed over by another launch) can arrive inside this one: it waits its turn.
    if (m_opening) {
        m_pendingOpens.append(paths);
        return;
    }
    m_opening = true;
    openNow(paths);
    while (!m_pendingOpens.isEmpty())
        openNow(m_pendingOpens.takeFirst());
    m_opening = false;
}

bool CropModel::decodeAll(std::vector<DecodedFile>& candidates) {
    // Decoding is the slow part: the files of one call are decoded side by side, one thread per core,
    // and the call waits for all of them, so it stays synchronous and keeps the name order. The
    // waiting side only reports progress, so a window stays drawn, and a cancel returns at once.
    const int total = int(candidates.size());
    QStringList paths;
    for (const DecodedFile& d : candidates)
        paths << d.path;
    const ImageFile::LoadOptions options = m_loadOptions;
    const Decoder decode =
        m_decoder ? m_decoder : Decoder([](const QString& path, const ImageFile::LoadOptions& o) {
            return ImageFile::load(path, o);
        });
    // With the decoder of our own, each file is read whole into memory first: its bytes bring the
    // pixels back later. Only the first two files (the item that becomes active and the next one)
    // keep their pixels; the others let go of them as soon as their thumbnail is made, so that a
    // folder of hundreds of photographs never holds them all decoded, not even while it opens.
    const bool keepBytes = !m_decoder;
    const bool thumbnails = m_makesThumbnails;
    OrderedWork<DecodedFile> work(
        total, QThread::idealThreadCount(), [paths, options, decode, keepBytes, thumbnails](int i) {
            DecodedFile d{paths[i], std::nullopt, std::nullopt, QByteArray(), QImage(), QString()};
            try {
                if (keepBytes) {
                    RegularFile file;
                    if (file.open(d.path) && file.file().size() <= kMaxKeptFileBytes)
                        d.encoded = file.file().readAll();
                    d.loaded = d.encoded.isEmpty() ? decode(d.path, options)
                                                   : ImageFile::loadFromData(d.encoded, options);
                } else {
                    d.loaded = decode(d.path, options);
                }
                d.refusal = ImageFile::lastRefusal();
                if (d.loaded) d.buffer = CropEngine::Buffer::make(d.loaded->image);
                if (d.buffer && thumbnails) d.thumbnail = thumbnailOf(d.buffer->image());
                if (d.buffer && !d.encoded.isEmpty() && i > kDecodedNeighbours) {
                    d.buffer = CropEngine::Buffer();
                    d.loaded->image = QImage();
                    d.loaded->hold.reset();
                }
            } catch (const std::exception&) {
                d.loaded.reset(); // out of memory on the way: this file isn't opened
                d.buffer.reset();
                d.encoded.clear();
            }
            return d;
        });

    std::vector<DecodedFile> decoded;
    bool keepGoing = !m_panels || m_panels->openProgress(0, total);
    while (keepGoing && int(decoded.size()) < total) {
        if (auto d = work.next(std::chrono::milliseconds(40))) decoded.push_back(std::move(*d));
        if (int(decoded.size()) == total) break;
        if (m_panels) keepGoing = m_panels->openProgress(work.finished(), total);
    }
    if (!keepGoing)
        work.abandon(); // no new file starts; the ones running end on their own, unheard
    else
        candidates = std::move(decoded);
    if (m_panels) {
        if (keepGoing) m_panels->openProgress(total, total);
        m_panels->openFinished();
    }
    return keepGoing;
}

void CropModel::openNow(const QStringList& paths) {
    captureSettingsBeforeSwitch(); // the item being left keeps its settings, whatever comes of this
    QStringList list = expandingFolders(paths);
    std::stable_sort(list.begin(), list.end(), [](const QString& a, const QString& b) {
        return NaturalOrder::compare(fileName(a), fileName(b)) < 0;
    });

    std::vector<DecodedFile> candidates;
    int skipped = 0;
    for (const QString& path : list) {
        if (passesTypeTest(path))
            candidates.push_back(
                DecodedFile{path, std::nullopt, std::nullopt, QByteArray(), QImage(), QString()});
        else
            ++skipped;
    }
    if (!candidates.empty() && !decodeAll(candidates)) return; // cancelled: the queue stays as it was
    std::vector<Item> fresh;
    m_openRefusal.clear();
    for (const DecodedFile& d : candidates) {
        if (!d.loaded || !d.buffer) {
            ++skipped;
            if (m_openRefusal.isEmpty() && !d.refusal.isEmpty())
                m_openRefusal = QStringLiteral("“%1” %2").arg(fileName(d.path), d.refusal);
            continue;
        }
        fresh.push_back(Item{QUuid::createUuid(), NativePath::absolute(d.path), d.loaded->type, *d.buffer,
                             false, Settings(), d.loaded->hold, d.loaded->storage, d.encoded, d.thumbnail});
    }
    candidates.clear();

    if (fresh.empty()) {
        if (skipped > 0)
            setErrorMessage(withRefusal(skipMessage(skipped)));
        else if (!paths.isEmpty())
            setErrorMessage(tr("No supported images found."));
        return;
    }

    // A single saved item is done with: the new images take its place.
    const QUuid first = fresh.front().id;
    if (m_items.empty() || (m_items.size() == 1 && m_items.front().saved)) {
        m_items = std::move(fresh);
    } else {
        for (Item& item : fresh)
            m_items.push_back(std::move(item));
    }
    itemsChanged();
    setSaveConfirmation(std::nullopt);
    setErrorMessage(skipped > 0 ? std::optional<QString>(withRefusal(skipMessage(skipped))) : std::nullopt);
    activate(first);
}

void CropModel::openPanel() {
    if (!m_panels) return;
    if (auto chosen = m_panels->openImages(true)) open(*chosen);
}

void CropModel::chooseBackgroundImage() {
    if (!m_panels) return;
    const auto chosen = m_panels->openImages(false);
    if (!chosen || chosen->isEmpty()) return;
    const QString path = chosen->first();
    auto loaded = ImageFile::load(path);
    if (!loaded) return; // the old background stays, without a word
    setBackgroundImage(loaded->image);
    setBackgroundImageURL(path);
    setBackgroundKind(BackgroundKind::image);
    if (m_settings.backgroundEnabled) recomputeActive();
}

void CropModel::clearBackgroundImage() {
    setBackgroundImage(QImage());
    setBackgroundImageURL(QString());
    if (m_settings.backgroundEnabled && m_settings.backgroundKind == BackgroundKind::image) recomputeActive();
}

SavePlan::Choice CropModel::saveTypeChoice(const Item& item) const {
    return SavePlan::byRules(item.type, producesTransparency());
}

QString CropModel::proposedNewFileName(const Item& item) const {
    return SavePlan::newFileName(item.path, saveTypeChoice(item));
}

void CropModel::saveOverOriginal() {
    const Item* item = active();
    if (!item || m_processedImage.isNull()) {
        setErrorMessage(tr("Nothing to save."));
        return;
    }
    const QUuid id = item->id;
    const SavePlan::Choice choice = saveTypeChoice(*item);
    // When PNG is forced the old file stays on disk: only the new name is written.
    const QString target = SavePlan::overOriginal(item->path, choice);
    const QByteArray bytes = ImageFile::encode(m_processedImage, choice.type, item->storage,
                                               ImageFile::interactiveQuality(choice.type));
    if (bytes.isEmpty() || !AtomicFile::write(target, bytes)) {
        setErrorMessage(tr("Couldn’t write to “%1”.").arg(fileName(target)));
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
    setSaveConfirmation(fileName(target));
    setErrorMessage(std::nullopt);
    advanceToNextUnsaved(id);
}

void CropModel::saveAsNewFile() {
    const Item* item = active();
    if (!item || m_processedImage.isNull()) {
        setErrorMessage(tr("Nothing to save."));
        return;
    }
    const QUuid id = item->id;
    const SavePlan::Choice choice = saveTypeChoice(*item);
    const QString proposed = SavePlan::newFileName(item->path, choice);
    if (!m_panels) return;
    const auto chosen = m_panels->saveFile(folderOf(item->path), proposed, choice.type);
    if (!chosen || chosen->isEmpty()) return;
    if (!ImageFile::save(m_processedImage, *chosen, choice.type, item->storage,
                         ImageFile::interactiveQuality(choice.type))) {
        setErrorMessage(tr("Couldn’t write to “%1”.").arg(fileName(*chosen)));
        return;
    }
    if (Item* saved = findItem(id)) {
        saved->saved = true;
        itemsChanged();
    }
    setSaveConfirmation(fileName(*chosen));
    setErrorMessage(std::nullopt);
    advanceToNextUnsaved(id);
}

void CropModel::splitCollage() {
    const Item* item = active();
    if (!item || m_collageRects.size() < 2 || !m_panels) return;
    const auto folder = m_panels->chooseFolder(folderOf(item->path), tr("Split Here"),
                                               tr("Choose a folder for the split images."));
    if (!folder || folder->isEmpty()) return;

    const QUuid id = item->id;
    const QString base = fileName(withoutExtension(item->path));
    QString extension = extensionOf(item->path);
    if (extension.isEmpty()) extension = ImageFile::preferredExtension(item->type);
    if (extension.isEmpty()) extension = QStringLiteral("png");
    const QDir dir(*folder);

    // Pieces of the untouched source, in the item's own format, largest first.
    QStringList written;
    for (qsizetype i = 0; i < m_collageRects.size(); ++i) {
        const QRectF& r = m_collageRects[i];
        const QImage piece = CropEngine::subImage(
            item->buffer.image(), QRect(int(r.x()), int(r.y()), int(r.width()), int(r.height())));
        if (piece.isNull()) continue; // the position goes on counting
        const QString stem = base + QLatin1Char('-') + QString::number(i + 1);
        QString target = dir.filePath(stem + QLatin1Char('.') + extension);
        for (int n = 2; NativePath::exists(target); ++n)
            target =
                dir.filePath(stem + QLatin1Char('-') + QString::number(n) + QLatin1Char('.') + extension);
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

QImage CropModel::thumbnailOf(const QImage& image) {
    if (image.isNull()) return QImage();
    if (image.width() <= kThumbnailSide && image.height() <= kThumbnailSide) return image;
    // A quick cut to four times the size first; the smooth pass then works on a few thousand pixels.
    const QImage near = image.width() > 4 * kThumbnailSide || image.height() > 4 * kThumbnailSide
                            ? image.scaled(4 * kThumbnailSide, 4 * kThumbnailSide, Qt::KeepAspectRatio,
                                           Qt::FastTransformation)
                            : image;
    return near.scaled(kThumbnailSide, kThumbnailSide, Qt::KeepAspectRatio, Qt::SmoothTransformation);
}

bool CropModel::restorePixels(Item& item) {
    if (item.decoded()) return true;
    if (item.encoded.isEmpty()) return false;
    auto loaded = ImageFile::loadFromData(item.encoded, m_loadOptions);
    if (!loaded) return false;
    auto buffer = CropEngine::Buffer::make(loaded->image);
    if (!buffer) return false;
    item.buffer = *buffer;
    item.memory = loaded->hold;
    return true;
}

void CropModel::settleDecoded() {
    const auto activeAt = std::find_if(m_items.begin(), m_items.end(), [&](const Item& item) {
        return m_activeID && item.id == *m_activeID;
    });
    if (activeAt == m_items.end()) return;
    const qsizetype a = activeAt - m_items.begin();
    for (qsizetype i = 0; i < qsizetype(m_items.size()); ++i) {
        Item& item = m_items[size_t(i)];
        if (i == a) {
            restorePixels(item);
        } else if (std::abs(i - a) <= kDecodedNeighbours) {
            if (!item.decoded()) prefetchPixels(item);
        } else if (item.decoded() && !item.encoded.isEmpty()) {
            // Its bytes bring it back exactly; a copy still in use elsewhere keeps its pixels alive
            // until it is done.
            item.buffer = CropEngine::Buffer();
            item.memory.reset();
        }
    }
}

void CropModel::prefetchPixels(const Item& item) {
    if (item.encoded.isEmpty() || m_prefetching.contains(item.id)) return;
    if (m_synchronousWork) {
        if (Item* found = findItem(item.id)) restorePixels(*found);
        return;
    }
    m_prefetching.insert(item.id);
    // Decoded on the thread pool from a shared copy of the bytes; handed back to this model's thread,
    // and dropped if the model is gone by then.
    struct Task {
        QUuid id;
        QByteArray encoded;
        ImageFile::LoadOptions options;
        std::optional<ImageFile::Loaded> loaded;
        std::optional<CropEngine::Buffer> buffer;
    };
    runOffThread(
        this, std::make_unique<Task>(Task{item.id, item.encoded, m_loadOptions, std::nullopt, std::nullopt}),
        [](Task& task) {
            try {
                task.loaded = ImageFile::loadFromData(task.encoded, task.options);
                if (task.loaded) task.buffer = CropEngine::Buffer::make(task.loaded->image);
            } catch (const std::exception&) {
                task.loaded.reset();
                task.buffer.reset();
            }
        },
        [](CropModel& self, Task& task) {
            self.finishPrefetch(task.id, task.encoded, std::move(task.loaded), std::move(task.buffer));
        });
}

void CropModel::finishPrefetch(const QUuid& id, const QByteArray& encoded,
                               std::optional<ImageFile::Loaded> loaded,
                               std::optional<CropEngine::Buffer> buffer) {
    m_prefetching.remove(id);
    Item* item = findItem(id);
    // Only into the item it was made for, from the bytes it still has (a save meanwhile brings
    // other bytes), and only while it is still near the active item.
    if (!item || item->decoded() || !loaded || !buffer || item->encoded.constData() != encoded.constData())
        return;
    item->buffer = *buffer;
    item->memory = loaded->hold;
    settleDecoded();
}

} // namespace cutlark