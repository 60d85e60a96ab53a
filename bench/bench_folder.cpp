// Opening a folder of many 12-megapixel photographs: how much memory each item holds, and how long
// the open takes. Usage: bench_folder [COUNT=300] [FOLDER]; without a folder, COUNT photographs are
// made once in ~/.cache/cutlark/folder-COUNT (distinct JPEGs of 4000×3000).
#include "io/ImageFile.h"
#include "model/CropModel.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QImage>
#include <QImageWriter>
#include <QStandardPaths>
#include <QtConcurrent/QtConcurrentMap>

#include <cmath>
#include <cstdio>

using namespace cutlark;

namespace {

// Resident and peak resident memory of this process, in bytes.
std::pair<qint64, qint64> residentBytes() {
    QFile status(QStringLiteral("/proc/self/status"));
    qint64 rss = 0, peak = 0;
    if (status.open(QIODevice::ReadOnly)) {
        for (const QByteArray& line : status.readAll().split('\n')) {
            if (line.startsWith("VmRSS:")) rss = line.mid(6).trimmed().split(' ').first().toLongLong() * 1024;
            if (line.startsWith("VmHWM:"))
                peak = line.mid(6).trimmed().split(' ').first().toLongLong() * 1024;
        }
    }
    return {rss, peak};
}

QImage photoLike(int seed) {
    QImage image(4000, 3000, QImage::Format_RGB32);
    quint32 noise = quint32(seed) * 2654435761u + 1;
    for (int y = 0; y < image.height(); ++y) {
        QRgb* row = reinterpret_cast<QRgb*>(image.scanLine(y));
        for (int x = 0; x < image.width(); ++x) {
            noise = noise * 1664525u + 1013904223u;
            const int n = int(noise >> 28) - 8;
            row[x] = qRgb(qBound(0, int(128 + 100 * std::sin(x * 0.003 + seed) + n), 255),
                          qBound(0, int(128 + 90 * std::cos(y * 0.004 + seed) + n), 255),
                          qBound(0, int(128 + 80 * std::sin((x + y) * 0.002) + n), 255));
        }
    }
    return image;
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    const int count = argc > 1 ? std::max(1, atoi(argv[1])) : 300;
    QString folder = argc > 2 ? QString::fromLocal8Bit(argv[2]) : QString();
    if (folder.isEmpty()) {
        folder = QStandardPaths::writableLocation(QStandardPaths::GenericCacheLocation) +
                 QStringLiteral("/cutlark/folder-%1").arg(count);
        if (!QFile::exists(folder + QStringLiteral("/.complete"))) {
            QDir().mkpath(folder);
            std::fprintf(stderr, "making %d photographs in %s …\n", count, qPrintable(folder));
            QList<int> seeds;
            for (int i = 0; i < count; ++i)
                seeds << i;
            QtConcurrent::blockingMap(seeds, [&](int i) {
                QImageWriter writer(
                    QStringLiteral("%1/photo-%2.jpg").arg(folder).arg(i, 4, 10, QLatin1Char('0')));
                writer.setQuality(90);
                writer.write(photoLike(i));
            });
            QFile(folder + QStringLiteral("/.complete")).open(QIODevice::WriteOnly);
        }
    }

    const auto [before, peakBefore] = residentBytes();
    CropModel model;
    QElapsedTimer timer;
    timer.start();
    model.open({folder});
    const double seconds = timer.elapsed() / 1000.0;
    const auto [after, peak] = residentBytes();

    // Every item's pixels, decoded or not: what the queue would hold if it kept them all.
    qint64 pixels = 0;
    for (const auto& item : model.items()) {
        const QSize size = item.decoded() ? QSize(int(item.buffer.width()), int(item.buffer.height()))
                                          : ImageFile::loadFromData(item.encoded)->image.size();
        pixels += qint64(size.width()) * size.height();
    }
    std::printf("opened %zu items, %.1f megapixels, in %.1f s (%.2f s per item)\n", model.items().size(),
                pixels / 1e6, seconds, seconds / std::max<size_t>(1, model.items().size()));
    std::printf(
        "resident: %.0f MB before, %.0f MB after; %.3f bytes per pixel held; peak %.0f MB (%.3f B/px)\n",
        before / 1e6, after / 1e6, double(after - before) / std::max<qint64>(1, pixels), peak / 1e6,
        double(peak - before) / std::max<qint64>(1, pixels));
    if (model.errorMessage()) std::printf("message: %s\n", qPrintable(*model.errorMessage()));

    // Selecting an item far from the active one (decoded from its bytes at once), then, once its
    // neighbours are decoded ahead, the next one; each to a built picture.
    if (model.items().size() >= 4) {
        const size_t far = model.items().size() / 2;
        const auto select = [&](size_t i) {
            QElapsedTimer t;
            t.start();
            model.select(model.items()[i].id);
            const bool shown = !model.processedImage().isNull();
            return shown ? t.nsecsElapsed() / 1e6 : -1.0;
        };
        const double farMs = select(far);
        QElapsedTimer waited;
        waited.start();
        while (!model.items()[far + 1].decoded() && waited.elapsed() < 10000)
            QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        const double nextMs = select(far + 1);
        const auto [settled, peakAfter] = residentBytes();
        std::printf(
            "select a far item: %.1f ms; the next one (decoded ahead): %.1f ms; resident after: %.0f MB, "
            "peak %.0f MB\n",
            farMs, nextMs, settled / 1e6, peakAfter / 1e6);
    }
    return model.items().size() == size_t(count) ? 0 : 1;
}
