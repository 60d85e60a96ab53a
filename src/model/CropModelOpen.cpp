// Opening: folders expanded, files decoded side by side, items appended, background pictures chosen.
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

namespace {} // namespace

bool CropModel::passesTypeTest(const QString& path) {
    const QString type = ImageFile::typeForExtension(QFileInfo(path).suffix());
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
        return NaturalOrder::compare(QFileInfo(a).fileName(), QFileInfo(b).fileName()) < 0;
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
    QString damaged; // the first file that opened with something missing
    for (const DecodedFile& d : candidates) {
        if (!d.loaded || !d.buffer) {
            ++skipped;
            if (m_openRefusal.isEmpty() && !d.refusal.isEmpty())
                m_openRefusal = QStringLiteral("“%1” %2").arg(QFileInfo(d.path).fileName(), d.refusal);
            continue;
        }
        if (damaged.isEmpty() && !d.loaded->damage.isEmpty()) damaged = QFileInfo(d.path).fileName();
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
    // Said once the pictures are up (a rebuild clears notices), unless files were refused: that comes first.
    if (!damaged.isEmpty() && skipped == 0)
        setErrorMessage(
            tr("“%1” is damaged: the file ends early, and the rest of the picture shows grey.").arg(damaged));
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

} // namespace cutlark
