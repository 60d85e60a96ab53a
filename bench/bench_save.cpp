// Saving a 12-megapixel photograph. Three tables:
// - what a save costs in each type: encoding, writing and reading the written bytes back (all of
//   which the window once did on its main thread, so this was how long it froze);
// - HEIC at each of the encoder's speed presets: time, size and PSNR against the picture encoded,
//   to choose the preset by;
// - the window's model saving with the event loop running: the longest the main thread went without
//   turning (a timer asks every 5 ms), and the time until the file is written and the save confirmed.
// Usage: bench_save [PRESET…] (default: every preset from ultrafast to slow).
#include "io/ImageCodecs.h"
#include "io/ImageFile.h"
#include "model/CropModel.h"
#include "support/AtomicFile.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QImage>
#include <QPainter>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTimer>

#include <algorithm>
#include <cmath>
#include <cstdio>

using namespace cutlark;

namespace {

// 4000×3000 from the real photographs of the test data, each enlarged and laid side by side, with a
// little sensor noise: smooth areas, fur, brick and gravel, as a phone photo has them.
QImage photograph() {
    const QString dir = QStandardPaths::writableLocation(QStandardPaths::GenericCacheLocation) +
                        QStringLiteral("/cutlark/testdata/");
    const QStringList names = {QStringLiteral("coffee.png"),    QStringLiteral("chelsea.png"),
                               QStringLiteral("astronaut.png"), QStringLiteral("brick.png"),
                               QStringLiteral("grass.png"),     QStringLiteral("gravel.png")};
    QImage canvas(4000, 3000, QImage::Format_RGB32);
    canvas.fill(Qt::gray);
    QPainter p(&canvas);
    p.setRenderHint(QPainter::SmoothPixmapTransform);
    for (int i = 0; i < 6; ++i) {
        const QImage tile(dir + names[i]);
        if (tile.isNull()) continue;
        p.drawImage(QRect((i % 3) * 1334, (i / 3) * 1500, 1334, 1500), tile);
    }
    p.end();
    quint32 noise = 7;
    for (int y = 0; y < canvas.height(); ++y) {
        QRgb* row = reinterpret_cast<QRgb*>(canvas.scanLine(y));
        for (int x = 0; x < canvas.width(); ++x) {
            noise = noise * 1664525u + 1013904223u;
            const int n = int(noise >> 29) - 4;
            row[x] = qRgb(qBound(0, qRed(row[x]) + n, 255), qBound(0, qGreen(row[x]) + n, 255),
                          qBound(0, qBlue(row[x]) + n, 255));
        }
    }
    return canvas;
}

double psnr(const QImage& a, const QImage& b) {
    if (a.size() != b.size()) return 0;
    const QImage x = a.convertToFormat(QImage::Format_RGB32), y = b.convertToFormat(QImage::Format_RGB32);
    double sum = 0;
    for (int r = 0; r < x.height(); ++r) {
        const QRgb* p = reinterpret_cast<const QRgb*>(x.constScanLine(r));
        const QRgb* q = reinterpret_cast<const QRgb*>(y.constScanLine(r));
        for (int c = 0; c < x.width(); ++c) {
            const int dr = qRed(p[c]) - qRed(q[c]), dg = qGreen(p[c]) - qGreen(q[c]),
                      db = qBlue(p[c]) - qBlue(q[c]);
            sum += dr * dr + dg * dg + db * db;
        }
    }
    const double mse = sum / (3.0 * x.width() * x.height());
    return mse > 0 ? 10 * std::log10(255.0 * 255.0 / mse) : 99;
}

double seconds(const QElapsedTimer& t) {
    return double(t.nsecsElapsed()) / 1e9;
}

void costOfEachType(const QImage& photo, const QString& folder) {
    std::printf("| type | encode | write | read back | the old freeze | size |\n|---|---|---|---|---|---|\n");
    for (const char* type : {"image/png", "image/jpeg", "image/heic"}) {
        const QString mime = QString::fromLatin1(type);
        QElapsedTimer t;
        t.start();
        const QByteArray bytes = ImageFile::encode(photo, mime, {}, ImageFile::interactiveQuality(mime));
        const double encode = seconds(t);
        t.restart();
        AtomicFile::write(folder + QStringLiteral("/cost.") + mime.mid(6), bytes);
        const double write = seconds(t);
        t.restart();
        const auto back = ImageFile::loadFromData(bytes, {});
        const double read = seconds(t);
        std::printf("| %s | %.2f s | %.3f s | %.2f s | %.2f s | %.1f MB |\n", type, encode, write, read,
                    encode + write + read, double(bytes.size()) / 1e6);
        if (!back) std::printf("(the written %s didn't read back)\n", type);
    }
}

void heifPresets(const QImage& photo, const QStringList& presets) {
    std::printf("\n| HEIC preset (quality 92) | encode | size | PSNR |\n|---|---|---|---|\n");
    for (const QString& preset : presets) {
        QElapsedTimer t;
        t.start();
        const QByteArray bytes = ImageCodecs::encodeHeif(photo, 92, {}, {}, preset.toLatin1().constData());
        const double encode = seconds(t);
        const auto back = ImageFile::loadFromData(bytes, {});
        std::printf("| %s%s | %.2f s | %.2f MB | %.2f dB |\n", qPrintable(preset),
                    preset == QLatin1String(ImageCodecs::kHeifPreset) ? " (ours)" : "", encode,
                    double(bytes.size()) / 1e6, back ? psnr(photo, back->image) : 0.0);
    }
}

void modelSaves(const QImage& photo, const QString& folder) {
    std::printf("\n| the window's save | longest main-thread stall | until confirmed |\n|---|---|---|\n");
    // The first save of a process pays once for the pool's threads and fresh memory, as a window's
    // first rebuilds do long before its first save: a JPEG first, not printed.
    bool warm = false;
    for (const char* type : {"jpeg", "png", "jpeg", "heic"}) {
        const QString path = folder + QStringLiteral("/model.") + QLatin1String(type);
        ImageFile::save(photo, path, QStringLiteral("image/") + QLatin1String(type));
        CropModel model;
        model.open({path});
        model.setMirrored(true);
        QElapsedTimer sinceTick, total;
        qint64 longest = 0;
        QTimer tick;
        QObject::connect(&tick, &QTimer::timeout, [&] {
            longest = std::max(longest, sinceTick.nsecsElapsed());
            sinceTick.restart();
        });
        tick.start(5);
        sinceTick.start();
        total.start();
        // The loop sleeps between events, as the window's does: a busy loop would take a core.
        QEventLoop loop;
        QObject::connect(&model, &CropModel::changed, &loop, [&] {
            if (!model.savingMessage()) loop.quit();
        });
        model.saveOverOriginal();
        if (model.savingMessage()) loop.exec();
        longest = std::max(longest, sinceTick.nsecsElapsed());
        if (warm) std::printf("| %s | %.0f ms | %.2f s |\n", type, double(longest) / 1e6, seconds(total));
        warm = true;
    }
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    QStringList presets;
    for (int i = 1; i < argc; ++i)
        presets << QString::fromLocal8Bit(argv[i]);
    if (presets.isEmpty())
        presets = {QStringLiteral("ultrafast"), QStringLiteral("superfast"), QStringLiteral("veryfast"),
                   QStringLiteral("faster"),    QStringLiteral("fast"),      QStringLiteral("medium"),
                   QStringLiteral("slow")};
    QTemporaryDir dir;
    const QImage photo = photograph();
    costOfEachType(photo, dir.path());
    heifPresets(photo, presets);
    modelSaves(photo, dir.path());
    return 0;
}
