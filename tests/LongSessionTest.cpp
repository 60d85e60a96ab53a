// A long session must not grow: opening, processing, tracing, cutting out, saving and removing item
// after item leaves the heap where it was. (The sanitizer build runs this too, where LeakSanitizer
// checks at exit that nothing at all was lost.)

#include "TestSupport.h"

#include "engines/BufferPool.h"
#include "engines/VisionEngine.h"
#include "model/CropModel.h"

#include <QFileInfo>
#include <QThreadPool>

#include <malloc.h>

#include <cstdio>

#include <gtest/gtest.h>

using namespace cutlark;
using namespace cutlark::test;

namespace {

/// Bytes the C library and the pool have handed out and not had back, idle pooled stores given
/// back first.
size_t heapInUse() {
    QThreadPool::globalInstance()->waitForDone();
    BufferPool::trim();
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd + BufferPool::mappedBytes();
}

/// A product shot: a coloured blob with a hole on white, different for each `n`.
QImage productShot(int n) {
    QImage image = solid(420 + n % 7 * 10, 300 + n % 5 * 10, Qt::white);
    const QColor colour = QColor::fromHsv(n * 37 % 360, 200, 180);
    for (int y = 60; y < image.height() - 60; ++y)
        for (int x = 80; x < image.width() - 80; ++x) {
            const int dx = x - image.width() / 2, dy = y - image.height() / 2;
            if (dx * dx + dy * dy > 30 * 30) image.setPixelColor(x, y, colour);
        }
    return image;
}

/// A cutout that clears the left third: cheap, and a different image from its source.
CropModel::CutoutService cheapCutouts() {
    return {[] { return true; },
            [](const QImage& source, const SubjectNetwork&) -> std::optional<QImage> {
                QImage cut = source.convertToFormat(QImage::Format_RGBA8888_Premultiplied);
                for (int y = 0; y < cut.height(); ++y)
                    memset(cut.scanLine(y), 0, size_t(cut.width() / 3) * 4);
                return cut;
            },
            [] { return QString(); }, nullptr, nullptr};
}

} // namespace

TEST(LongSession, TwoHundredItemsComeAndGoWithoutTheHeapGrowing) {
    QTemporaryDir dir;
    ScriptedPanels panels;
    CropModel model;
    model.setPanels(&panels);
    model.setSynchronousWork(true);
    // The real network for the first cutout when it is there; a cheap stand-in after that.
    const bool network = VisionEngine::isAvailable();
    if (!network) model.setCutoutService(cheapCutouts());

    size_t afterFirstRound = 0;
    int item = 0;
    for (int round = 0; round < 20; ++round) {
        QStringList files;
        for (int i = 0; i < 10; ++i, ++item)
            files << savePng(dir, QStringLiteral("shot%1.png").arg(item), productShot(item));
        model.open(files);
        ASSERT_EQ(model.items().size(), 10u) << "round " << round;
        std::vector<QUuid> ids;
        for (const auto& it : model.items())
            ids.push_back(it.id);

        for (size_t i = 0; i < ids.size(); ++i) {
            model.select(ids[i]);
            // Keying (white, or the subject), trim, padding, a gradient and a resize …
            model.setKeyWhiteEnabled(true);
            model.setBgRemovalMode(i % 3 == 0 ? BGRemovalMode::subject : BGRemovalMode::white);
            model.setTrimEnabled(true);
            model.setPaddingEnabled(true);
            model.setBackgroundEnabled(i % 2 == 0);
            model.setBackgroundKind(BackgroundKind::gradient);
            model.setResizeEnabled(true);
            model.setResizeWidth(200);
            ASSERT_FALSE(model.processedImage().isNull());
            // … traced in both kinds …
            model.setVectorizeEnabled(true);
            model.setVectorFullColor(i % 2 == 1);
            ASSERT_TRUE(model.currentSVG()) << "item " << item;
            model.setVectorizeEnabled(false);
            if (round == 0 && i == 0 && network)
                model.setCutoutService(cheapCutouts()); // one real cutout is enough
            // … and every other one written out.
            if (i % 2 == 0) {
                panels.saveAnswers.push_back(dir.filePath(QStringLiteral("out%1-%2.png").arg(round).arg(i)));
                saveAndWait(model, &CropModel::saveAsNewFile);
                ASSERT_FALSE(model.errorMessage()) << model.errorMessage()->toStdString();
            }
        }
        for (const QUuid& id : ids)
            model.remove(id);
        ASSERT_TRUE(model.items().empty());
        if (round == 0) {
            // Everything loaded once and for all (the network, Qt's plugins, the thread pool's
            // threads) is in by now; from here on each round ends where the first one did.
            afterFirstRound = heapInUse();
        }
    }
#if !defined(__SANITIZE_ADDRESS__)
    const size_t atEnd = heapInUse();
    std::printf("heap in use after round 1: %zu B, after round 20: %zu B\n", afterFirstRound, atEnd);
    // Each round handles ~10 MB of pixels; a leak of any of it would show many times over.
    EXPECT_LT(double(atEnd), double(afterFirstRound) + 2.0 * 1024 * 1024)
        << "heap after the first round " << afterFirstRound << " B, after the last " << atEnd << " B";
#else
    // AddressSanitizer's own heap makes the figure meaningless; its leak check stands in.
    (void)afterFirstRound;
#endif
}
