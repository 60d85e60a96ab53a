// Which items keep their pixels: the active one and its neighbours; the others keep their bytes
// and a thumbnail, and are decoded again when needed.
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
