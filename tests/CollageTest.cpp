#include "TestSupport.h"

#include "engines/CollageSplitter.h"
#include "io/ImageFile.h"
#include "model/CropModel.h"
#include "support/AtomicFile.h"

#include <QFileInfo>

#include <random>

#include <gtest/gtest.h>

using namespace cutlark;
using namespace cutlark::test;

namespace {

QImage sheet(int w, int h) {
    return solid(w, h, Qt::white);
}

void block(QImage& image, int x, int y, int w, int h, const QColor& c = Qt::black) {
    for (int yy = y; yy < y + h; ++yy)
        for (int xx = x; xx < x + w; ++xx)
            image.setPixelColor(xx, yy, c);
}

QList<QRectF> piecesOf(const QImage& image, double threshold = 10) {
    return CollageSplitter::pieces(*CropEngine::Buffer::make(image), threshold);
}

} // namespace

TEST(Collage, BlankFloor) {
    EXPECT_EQ(CollageSplitter::blankFloor(10), 241);
    EXPECT_EQ(CollageSplitter::blankFloor(0), 246);
    EXPECT_EQ(CollageSplitter::blankFloor(5), 246) << "small thresholds act as 6 %";
    EXPECT_EQ(CollageSplitter::blankFloor(-3), 246);
    EXPECT_EQ(CollageSplitter::blankFloor(qQNaN()), 246);
    EXPECT_EQ(CollageSplitter::blankFloor(50), 187);
    EXPECT_EQ(CollageSplitter::blankFloor(100), 120);
    EXPECT_EQ(CollageSplitter::blankFloor(300), 120);
}

TEST(Collage, TwoSquaresCutInTheMiddleOfTheirGutter) {
    QImage image = sheet(200, 100);
    block(image, 10, 10, 80, 80);
    block(image, 110, 10, 80, 80);
    // Content (10, 10, 180, 80); the gutter holds relative columns 80 to 99, the cut is at 89.
    EXPECT_EQ(piecesOf(image), (QList<QRectF>{QRectF(99, 10, 91, 80), QRectF(10, 10, 89, 80)}))
        << "the larger leaf comes first";
}

TEST(Collage, AGutterNeedsFourColumnsAtThisSize) {
    QImage three = sheet(200, 100);
    block(three, 10, 10, 80, 80);
    block(three, 93, 10, 80, 80);
    EXPECT_TRUE(piecesOf(three).isEmpty());
    QImage four = sheet(200, 100);
    block(four, 10, 10, 80, 80);
    block(four, 94, 10, 80, 80);
    EXPECT_EQ(piecesOf(four).size(), 2);
}

TEST(Collage, GridsAndMixedLayouts) {
    QImage grid = sheet(200, 200);
    for (int y : {10, 110})
        for (int x : {10, 110})
            block(grid, x, y, 80, 80);
    EXPECT_EQ(piecesOf(grid).size(), 4);

    QImage wideOverTwo = sheet(300, 300);
    block(wideOverTwo, 20, 20, 260, 110);
    block(wideOverTwo, 20, 160, 110, 120);
    block(wideOverTwo, 170, 160, 110, 120);
    EXPECT_EQ(piecesOf(wideOverTwo).size(), 3);

    QImage twoOverWide = sheet(300, 300);
    block(twoOverWide, 20, 20, 110, 120);
    block(twoOverWide, 170, 20, 110, 120);
    block(twoOverWide, 20, 170, 260, 110);
    const auto p = piecesOf(twoOverWide);
    ASSERT_EQ(p.size(), 3);
    EXPECT_EQ(p.first().width(), 260) << "the wide piece is the largest";
}

TEST(Collage, AGutterMayHoldAFewPixels) {
    // Pieces 280 high: a gutter column may hold 3 content pixels (280 × 0.012 = 3.36), not 4.
    auto make = [](int strays) {
        QImage image = sheet(300, 300);
        block(image, 10, 10, 130, 280);
        block(image, 160, 10, 130, 280);
        for (int s = 0; s < strays; ++s)
            image.setPixelColor(150, 40 + 50 * s, Qt::black);
        return image;
    };
    EXPECT_EQ(piecesOf(make(3)).size(), 2);
    // With four strays the middle column fails, but the gutter's other columns still make a run.
    QImage blocked = make(0);
    for (int x = 140; x < 160; x += 2)
        for (int s = 0; s < 4; ++s)
            blocked.setPixelColor(x, 40 + 50 * s, Qt::black);
    EXPECT_TRUE(piecesOf(blocked).isEmpty());
}

TEST(Collage, MarginsAndMarksDoNotMakeACollage) {
    QImage single = sheet(300, 200);
    block(single, 100, 60, 80, 70);
    EXPECT_TRUE(piecesOf(single).isEmpty()) << "margins are never cuts";

    // The mark's leaf is 13 wide (its height comes from the cut), below the minimum side 16.
    QImage mark = sheet(200, 100);
    block(mark, 10, 10, 80, 80);
    block(mark, 102, 45, 6, 6);
    EXPECT_TRUE(piecesOf(mark).isEmpty());
}

TEST(Collage, FortyIsTheMost) {
    auto grid = [](int cols, int rows) {
        QImage image = sheet(420, 420);
        for (int r = 0; r < rows; ++r)
            for (int c = 0; c < cols; ++c)
                block(image, 15 + c * 65, 15 + r * 65, 30, 30);
        return image;
    };
    EXPECT_TRUE(piecesOf(grid(7, 6)).isEmpty()) << "42 leaves";
    EXPECT_EQ(piecesOf(grid(6, 6)).size(), 36);
}

TEST(Collage, BlankSheetsAndTinyImages) {
    EXPECT_TRUE(piecesOf(sheet(300, 300)).isEmpty());
    EXPECT_TRUE(piecesOf(solid(300, 300, QColor(0, 0, 0, 0))).isEmpty());
    QImage tiny = sheet(8, 100);
    block(tiny, 0, 0, 8, 10);
    EXPECT_TRUE(piecesOf(tiny).isEmpty());
    // Alpha 8 is blank whatever its colour.
    QImage faint = solid(200, 100, QColor(0, 0, 0, 0));
    block(faint, 10, 10, 80, 80);
    block(faint, 110, 10, 80, 80);
    for (int y = 0; y < 100; ++y)
        for (int x = 90; x < 110; ++x) {
            uchar* p = faint.scanLine(y) + 4 * x;
            p[0] = 8, p[1] = 0, p[2] = 0, p[3] = 8;
        }
    EXPECT_EQ(piecesOf(faint).size(), 2);
}

TEST(Collage, TouchingPicturesAndNoisyPhotosStayWhole) {
    QImage touching = sheet(300, 200);
    block(touching, 20, 20, 130, 160, QColor(200, 40, 40));
    block(touching, 150, 20, 130, 160, QColor(40, 40, 200));
    EXPECT_TRUE(piecesOf(touching).isEmpty());

    // A photograph with noisy near-white areas: no straight blank gutter anywhere.
    QImage photo(400, 300, QImage::Format_RGBA8888_Premultiplied);
    std::mt19937 random(3);
    for (int y = 0; y < 300; ++y)
        for (int x = 0; x < 400; ++x) {
            const int v = 232 + int(random() % 24);
            photo.setPixelColor(x, y, QColor(v, v, std::min(255, v + 2)));
        }
    EXPECT_TRUE(piecesOf(photo).isEmpty());
}

namespace {

class SplitTest : public ::testing::Test {
protected:
    void SetUp() override {
        model.setPanels(&panels);
        QDir(m_dir.path()).mkdir(QStringLiteral("out"));
        QImage image = sheet(300, 300);
        block(image, 20, 20, 260, 110, QColor(200, 30, 30)); // the largest: sheet-1
        block(image, 20, 160, 110, 120, QColor(30, 200, 30));
        block(image, 170, 160, 110, 120, QColor(30, 30, 200));
        collage = savePng(m_dir, QStringLiteral("sheet.png"), image);
    }
    void TearDown() override { AtomicFile::setFaultInjector({}); }
    QString out(const QString& name) const { return m_dir.filePath(QStringLiteral("out/") + name); }

    QTemporaryDir m_dir;
    QString collage;
    ScriptedPanels panels;
    CropModel model;
};

} // namespace

TEST_F(SplitTest, DetectionRunsWheneverAnotherImageBecomesActive) {
    const QString plain = savePng(m_dir, QStringLiteral("plain.png"), coordinates(50, 50));
    model.open({plain});
    EXPECT_TRUE(model.collageRects().isEmpty());
    model.open({collage});
    EXPECT_EQ(model.collageRects().size(), 3) << "on open";
    const QUuid sheetId = model.active()->id, plainId = model.items().front().id;
    model.select(plainId);
    EXPECT_TRUE(model.collageRects().isEmpty()) << "on select";
    model.select(sheetId);
    EXPECT_EQ(model.collageRects().size(), 3);
    model.setQuarterTurns(1);
    EXPECT_EQ(model.collageRects().size(), 3) << "settings don't touch it: it reads the untouched source";
    model.select(plainId);
    model.remove(plainId);
    EXPECT_EQ(model.collageRects().size(), 3) << "on removing the active item";
    model.remove(sheetId);
    EXPECT_TRUE(model.collageRects().isEmpty());
}

TEST_F(SplitTest, PiecesAreWrittenNamedOpenedAndTheCollageLeaves) {
    writeBytes(out(QStringLiteral("sheet-2.png")), "taken");
    model.open({collage});
    model.splitCollage(); // cancelled chooser: nothing changes
    EXPECT_EQ(model.items().size(), 1u);
    EXPECT_EQ(panels.folderCalls, 1);
    panels.folderAnswers.push_back(m_dir.filePath(QStringLiteral("out")));
    model.splitCollage();
    for (const char* name : {"sheet-1.png", "sheet-2-2.png", "sheet-3.png"})
        EXPECT_TRUE(QFileInfo::exists(out(QLatin1String(name)))) << name;
    EXPECT_EQ(readBytes(out(QStringLiteral("sheet-2.png"))), QByteArray("taken"));
    EXPECT_EQ(ImageFile::load(out(QStringLiteral("sheet-1.png")))->image.size(), QSize(260, 124))
        << "the largest piece, down to the middle of its gutter";
    ASSERT_EQ(model.items().size(), 3u);
    for (const auto& item : model.items())
        EXPECT_NE(item.path, collage);
    EXPECT_TRUE(QFileInfo::exists(collage)) << "the collage's file is not touched";
    EXPECT_EQ(model.noticeMessage(), QStringLiteral("Split into 3 images."));
    EXPECT_TRUE(model.collageRects().isEmpty());
}

TEST_F(SplitTest, PiecesKeepTheSourceFormatAndIgnoreSettings) {
    const QString jpeg = m_dir.filePath(QStringLiteral("scan.jpg"));
    ImageFile::save(ImageFile::load(collage)->image, jpeg, QStringLiteral("image/jpeg"));
    model.open({jpeg});
    ASSERT_EQ(model.collageRects().size(), 3);
    model.setQuarterTurns(2);
    model.setPaddingEnabled(true);
    panels.folderAnswers.push_back(m_dir.filePath(QStringLiteral("out")));
    model.splitCollage();
    const auto piece = ImageFile::load(out(QStringLiteral("scan-1.jpg")));
    ASSERT_TRUE(piece);
    EXPECT_EQ(piece->type, QStringLiteral("image/jpeg"));
    EXPECT_NEAR(piece->image.width(), 260, 3) << "unturned and unpadded";
    EXPECT_NEAR(piece->image.height(), 124, 3);
}

TEST_F(SplitTest, FewerThanTwoWrittenIsAFailureThatKeepsTheQueue) {
    model.open({collage});
    const QUuid id = model.active()->id;
    int writes = 0;
    AtomicFile::setFaultInjector([&](AtomicFile::Step step, const QString&) {
        if (step != AtomicFile::Step::rename) return true;
        return ++writes == 1; // only the first piece gets written
    });
    panels.folderAnswers.push_back(m_dir.filePath(QStringLiteral("out")));
    model.splitCollage();
    EXPECT_EQ(model.errorMessage(), QStringLiteral("Couldn’t write the split images."));
    ASSERT_EQ(model.items().size(), 1u);
    EXPECT_EQ(model.activeID(), id);
    EXPECT_EQ(model.collageRects().size(), 3);
    EXPECT_TRUE(QFileInfo::exists(out(QStringLiteral("sheet-1.png")))) << "what was written stays";

    panels.folderAnswers.push_back(m_dir.filePath(QStringLiteral("missing")));
    AtomicFile::setFaultInjector({});
    model.splitCollage();
    EXPECT_EQ(model.errorMessage(), QStringLiteral("Couldn’t write the split images."));
    EXPECT_EQ(model.items().size(), 1u);
}
