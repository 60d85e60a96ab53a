// A queue of many photographs holds the pixels of the active item and its neighbours only; every
// other item keeps its file's bytes and its thumbnail, and comes back exactly as it was when
// selected, whatever happened to its file on disk meanwhile.

#include "TestSupport.h"

#include "io/ImageFile.h"
#include "model/CropModel.h"
#include "support/MemoryBudget.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QPainter>
#include <QThreadPool>

#include <gtest/gtest.h>

using namespace cutlark;
using namespace cutlark::test;

namespace {

/// A different picture for each `n`: a disc on a tinted ground.
QImage photo(int n, int w = 160, int h = 120) {
    QImage image(w, h, QImage::Format_RGB32);
    image.fill(QColor::fromHsv(n * 29 % 360, 60, 240));
    QPainter p(&image);
    p.setBrush(QColor::fromHsv(n * 53 % 360, 220, 160));
    p.drawEllipse(QRect(w / 5 + n % 7, h / 6, w / 2, h / 2 + n % 5));
    return image;
}

QImage pixelsOf(const QImage& image) {
    return image.convertToFormat(QImage::Format_RGBA8888_Premultiplied);
}

class QueueMemoryTest : public ::testing::Test {
protected:
    void SetUp() override { model.setPanels(&panels); }
    void TearDown() override {
        // Decodes still on their way come back by queued calls; they let go of their pixels there.
        QThreadPool::globalInstance()->waitForDone();
        QCoreApplication::processEvents();
    }
    const CropModel::Item& at(size_t i) const { return model.items()[i]; }
    QStringList decodedNames() const {
        QStringList names;
        for (const auto& item : model.items())
            if (item.decoded()) names << QFileInfo(item.path).fileName();
        return names;
    }
    QTemporaryDir m_dir;
    ScriptedPanels panels;
    CropModel model;
};

} // namespace

TEST_F(QueueMemoryTest, ItemsAwayFromTheActiveOneKeepTheirBytesAndComeBackExactly) {
    QStringList paths;
    QList<QImage> originals;
    for (int i = 0; i < 8; ++i) {
        const QString name = m_dir.filePath(QStringLiteral("p%1.%2").arg(i).arg(i % 2 ? "jpg" : "png"));
        if (i == 3) {
            // A phone photograph stored sideways: upright, it is 120 × 160.
            ASSERT_TRUE(writeBytes(name, jpegWithOrientation(photo(i), 6)));
        } else {
            ASSERT_TRUE(photo(i).save(name, nullptr, 90));
        }
        paths << name;
        originals << pixelsOf(ImageFile::load(name)->image);
    }
    model.open(paths);
    ASSERT_EQ(model.items().size(), 8u);
    // Open: the active item and the next one keep their pixels, the others only bytes and a thumbnail.
    EXPECT_EQ(decodedNames(), (QStringList{QStringLiteral("p0.png"), QStringLiteral("p1.jpg")}));
    for (size_t i = 2; i < 8; ++i) {
        EXPECT_FALSE(at(i).encoded.isEmpty());
        EXPECT_FALSE(at(i).thumbnail.isNull());
        EXPECT_LE(std::max(at(i).thumbnail.width(), at(i).thumbnail.height()), CropModel::kThumbnailSide);
    }
    const QString type3 = at(3).type;

    // Meanwhile the files change on disk: one is written over, one deleted.
    ASSERT_TRUE(photo(99).save(paths[5], nullptr, 90));
    ASSERT_TRUE(QFile::remove(paths[4]));

    model.select(at(5).id);
    EXPECT_TRUE(at(5).decoded()) << "the active item at once";
    EXPECT_EQ(pixelsOf(model.processedImage()), originals[5]) << "as it was read, not as the file is now";
    ASSERT_TRUE(waitUntil([&] { return at(4).decoded() && at(6).decoded(); })) << "its neighbours soon after";
    EXPECT_EQ(decodedNames(),
              (QStringList{QStringLiteral("p4.png"), QStringLiteral("p5.jpg"), QStringLiteral("p6.png")}));
    EXPECT_EQ(pixelsOf(at(4).buffer.image()), originals[4]) << "its file is gone; its bytes aren't";

    // The sideways photograph comes back upright, with its type.
    model.select(at(3).id);
    EXPECT_EQ(model.processedImage().size(), QSize(120, 160));
    EXPECT_EQ(pixelsOf(model.processedImage()), originals[3]);
    EXPECT_EQ(at(3).type, type3);

    // A saved item comes back as saved: its pixels are what was written, its mark stays.
    model.setPaddingEnabled(true);
    model.setPadAmount(4);
    const QImage written = pixelsOf(model.processedImage());
    saveAndWait(model);
    ASSERT_FALSE(model.errorMessage()) << model.errorMessage()->toStdString();
    const auto savedAt =
        std::find_if(model.items().begin(), model.items().end(), [](const auto& item) { return item.saved; });
    ASSERT_NE(savedAt, model.items().end());
    const QUuid saved = savedAt->id;
    model.select(at(0).id);
    ASSERT_TRUE(waitUntil([&] { return at(1).decoded(); }));
    for (const auto& item : model.items()) {
        if (item.id == saved) {
            EXPECT_FALSE(item.decoded()) << "far from the active item again";
        }
    }
    QFile::remove(savedAt->path);
    model.select(saved);
    EXPECT_EQ(pixelsOf(model.active()->buffer.image()), written);
    EXPECT_TRUE(model.active()->saved);
    EXPECT_EQ(model.active()->type, QStringLiteral("image/png"));
}

TEST_F(QueueMemoryTest, AQueueOfManyHoldsThreePicturesDecoded) {
    const qint64 before = MemoryBudget::inUse();
    QStringList paths;
    for (int i = 0; i < 60; ++i) {
        const QString name = m_dir.filePath(QStringLiteral("shot%1.jpg").arg(i, 2, 10, QLatin1Char('0')));
        ASSERT_TRUE(photo(i, 400, 300).save(name, nullptr, 85));
        paths << name;
    }
    model.open(paths);
    ASSERT_EQ(model.items().size(), 60u);
    const qint64 picture = 400 * 300 * 4;
    const auto held = [&] { return MemoryBudget::inUse() - before; };
    EXPECT_LE(held(), 2 * picture) << "while opening, only the first two keep their pixels";
    qint64 bytes = 0;
    for (const auto& item : model.items())
        bytes += item.encoded.size();
    EXPECT_LT(bytes, 60 * picture / 4) << "bytes as stored are far smaller than pixels";
    // Walking through the queue never holds more than three.
    for (size_t i = 0; i < 60; i += 7) {
        model.select(at(i).id);
        ASSERT_TRUE(
            waitUntil([&] { return (i == 0 || at(i - 1).decoded()) && (i == 59 || at(i + 1).decoded()); }));
        EXPECT_EQ(decodedNames().size(), i == 0 ? 2 : 3);
        EXPECT_LE(held(), 3 * picture);
    }
    // Removing the items gives everything back.
    while (!model.items().empty())
        model.remove(at(0).id);
    QThreadPool::globalInstance()->waitForDone();
    QCoreApplication::processEvents();
    EXPECT_EQ(held(), 0);
}
