#include "TestSupport.h"

#include "io/ImageFile.h"
#include "model/CropModel.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

using namespace cutlark;
using namespace cutlark::test;

namespace {

class PipelineTest : public ::testing::Test {
protected:
    void openOne(const QImage& image, const QString& name = QStringLiteral("a.png")) {
        model.open({savePng(m_dir, name, image)});
        ASSERT_TRUE(model.active());
    }
    QTemporaryDir m_dir;
    CropModel model;
};

} // namespace

TEST_F(PipelineTest, DefaultsGiveTheSourceImageItself) {
    openOne(coordinates(64, 48));
    EXPECT_EQ(model.processedImage().cacheKey(), model.active()->buffer.image().cacheKey());
    EXPECT_FALSE(model.willTrim());
    EXPECT_EQ(model.activeContentRect(), QRectF(0, 0, 64, 48));
    EXPECT_EQ(model.preResizeSize(), QSizeF(64, 48));
    EXPECT_TRUE(model.active()->buffer.sharesStore()) << "an 8-bit image is held once";
}

TEST_F(PipelineTest, OrientationAndCropComeFirst) {
    openOne(coordinates(40, 20));
    model.setQuarterTurns(1);
    EXPECT_EQ(model.processedImage().size(), QSize(20, 40));
    EXPECT_TRUE(model.willTrim());
    // The crop is of the turned image: its top half is the left half of the source, turned.
    model.setManualCrop(QRectF(0, 0, 1, 0.5));
    EXPECT_EQ(model.processedImage().size(), QSize(20, 20));
    EXPECT_EQ(qGreen(model.processedImage().pixel(0, 0)), 19);
    EXPECT_EQ(qRed(model.processedImage().pixel(0, 0)), 0);
    EXPECT_EQ(model.activeContentRect(), QRectF(0, 0, 20, 20));

    model.setManualCropEnabled(false);
    model.setQuarterTurns(0);
    model.setMirrored(true);
    EXPECT_EQ(model.processedImage().size(), QSize(40, 20));
    EXPECT_TRUE(model.willTrim()) << "mirrored counts though the size is the same";
    model.setMirrored(false);
    model.setTrimEnabled(true);
    EXPECT_FALSE(model.willTrim()) << "a trim that finds nothing to cut changes nothing";
    model.setPaddingEnabled(true);
    EXPECT_TRUE(model.willTrim());
}

TEST_F(PipelineTest, PaddingInsetsRoundHalvesAway) {
    model.setPadAmount(2.5);
    auto p = model.paddingInsets();
    EXPECT_EQ(p.top, 3);
    EXPECT_EQ(p.left, 3);
    model.setPaddingUniform(false);
    model.setPadTop(-2.5);
    model.setPadRight(qQNaN());
    model.setPadBottom(1e300);
    model.setPadLeft(0.49);
    p = model.paddingInsets();
    EXPECT_EQ(p.top, -3);
    EXPECT_EQ(p.right, 0);
    EXPECT_EQ(p.bottom, std::numeric_limits<qint64>::max());
    EXPECT_EQ(p.left, 0);
}

TEST_F(PipelineTest, ResizeTargetTakesOnlyTheSettings) {
    model.setResizeLockAspect(false);
    model.setResizeWidth(0.4);
    model.setResizeHeight(300);
    EXPECT_EQ(model.resizeTargetSize(QSizeF(10, 10)), QSizeF(1, 300));
    EXPECT_FALSE(model.resizeTargetSize(QSizeF(0.5, 10)));
    EXPECT_FALSE(model.resizeTargetSize(QSizeF(10, 0)));
    model.setResizeWidth(qQNaN());
    EXPECT_EQ(model.resizeTargetSize(QSizeF(10, 10)), QSizeF(1, 300));
}

TEST_F(PipelineTest, BackgroundOpacityByKind) {
    EXPECT_TRUE(model.backgroundIsOpaque()) << "white";
    model.setBackgroundColor(QColor::fromRgbF(1, 0, 0, 0.5f));
    EXPECT_FALSE(model.backgroundIsOpaque());
    model.setBackgroundColor(QColor());
    EXPECT_TRUE(model.backgroundIsOpaque()) << "no components count as opaque white";

    model.setBackgroundKind(BackgroundKind::gradient);
    EXPECT_TRUE(model.backgroundIsOpaque());
    model.setGradientEnd(QColor::fromRgbF(0, 0, 1, 0.5f));
    EXPECT_FALSE(model.backgroundIsOpaque());
    model.setGradientEnd(QColor::fromRgbF(0, 0, 1, 0.999f));
    EXPECT_TRUE(model.backgroundIsOpaque()) << "0.999 counts as opaque";
    model.setGradientStart(QColor::fromRgbF(0, 0, 1, 0.998f));
    EXPECT_FALSE(model.backgroundIsOpaque());

    model.setBackgroundKind(BackgroundKind::image);
    EXPECT_FALSE(model.backgroundIsOpaque()) << "no picture";
    const QString jpeg = m_dir.filePath(QStringLiteral("bg.jpg"));
    ASSERT_TRUE(writeImage(coordinates(8, 8), jpeg, "jpeg"));
    ScriptedPanels panels;
    model.setPanels(&panels);
    panels.openAnswers.push_back(QStringList{jpeg});
    model.chooseBackgroundImage();
    EXPECT_TRUE(model.backgroundIsOpaque()) << "a JPEG has no alpha";
    const QString png = savePng(m_dir, QStringLiteral("bg.png"), solid(4, 4, QColor(0, 0, 0, 10)));
    panels.openAnswers.push_back(QStringList{png});
    model.chooseBackgroundImage();
    EXPECT_FALSE(model.backgroundIsOpaque());
}

TEST_F(PipelineTest, TransparencyFollowsTheSettings) {
    openOne(coordinates(100, 80));
    EXPECT_FALSE(model.producesTransparency()) << "the image's own alpha doesn't count";
    model.setPaddingEnabled(true);
    EXPECT_TRUE(model.producesTransparency());
    model.setBackgroundEnabled(true);
    EXPECT_FALSE(model.producesTransparency());

    // A canvas bigger than the image leaves margins the background can't cover.
    model.setResizeLockAspect(false);
    model.setResizeCanvas(true);
    model.setResizeEnabled(true);
    model.setResizeWidth(500);
    model.setResizeHeight(10);
    EXPECT_TRUE(model.producesTransparency());
    model.setResizeWidth(50);
    EXPECT_FALSE(model.producesTransparency()) << "smaller both ways";
    model.setBackgroundColor(QColor(0, 0, 0, 0));
    EXPECT_TRUE(model.producesTransparency());
    model.setPaddingEnabled(false);
    EXPECT_FALSE(model.producesTransparency());
    model.setKeyWhiteEnabled(true);
    EXPECT_TRUE(model.producesTransparency());
}

TEST_F(PipelineTest, NoActiveItemClearsTheResult) {
    openOne(coordinates(10, 10));
    ASSERT_FALSE(model.processedImage().isNull());
    model.remove(model.active()->id);
    EXPECT_TRUE(model.processedImage().isNull());
    EXPECT_FALSE(model.activeContentRect());
    EXPECT_FALSE(model.vectorTrace());
    EXPECT_TRUE(model.vectorPreview().isNull());
    EXPECT_FALSE(model.willTrim());
}

TEST_F(PipelineTest, EachRebuildClearsTheNotice) {
    openOne(coordinates(10, 10));
    ChangeCounter counter(model);
    model.setTrimEnabled(true);
    EXPECT_EQ(counter.count(CropModel::Field::noticeMessage), 1);
    EXPECT_FALSE(model.noticeMessage());
}

namespace {
// A 60×40 white sheet with a black 20×10 block at (15, 12).
QImage sheetWithBlock() {
    QImage image = solid(60, 40, Qt::white);
    for (int y = 12; y < 22; ++y)
        for (int x = 15; x < 35; ++x)
            image.setPixelColor(x, y, Qt::black);
    return image;
}
} // namespace

TEST_F(PipelineTest, KeyTrimPadAndBackgroundComposeInOrder) {
    openOne(sheetWithBlock());
    model.setTrimEnabled(true);
    EXPECT_EQ(model.processedImage().size(), QSize(20, 10));
    EXPECT_TRUE(model.willTrim());
    model.setKeyWhiteEnabled(true);
    model.setPaddingEnabled(true);
    model.setPadAmount(5);
    EXPECT_EQ(model.processedImage().size(), QSize(30, 20));
    EXPECT_EQ(qAlpha(model.processedImage().pixel(0, 0)), 0) << "padding is transparent";
    model.setBackgroundEnabled(true);
    model.setBackgroundColor(QColor(255, 0, 0));
    EXPECT_EQ(model.processedImage().pixel(0, 0), qRgb(255, 0, 0));
    EXPECT_EQ(model.processedImage().pixel(10, 10), qRgb(0, 0, 0));
    EXPECT_EQ(model.activeContentRect(), QRectF(0, 0, 30, 20));
    EXPECT_EQ(model.preResizeSize(), QSizeF(30, 20));

    model.setResizeEnabled(true); // seeds 30 × 20
    model.setResizeWidth(60);     // the lock makes it 60 × 40
    EXPECT_EQ(model.processedImage().size(), QSize(60, 40));
    model.setResizeCanvas(true);
    EXPECT_EQ(model.processedImage().size(), QSize(60, 40));
    EXPECT_EQ(qAlpha(model.processedImage().pixel(0, 0)), 0) << "a bigger canvas leaves clear margins";
    EXPECT_TRUE(model.producesTransparency());
}

TEST_F(PipelineTest, TheOutlineTakesThePlaceOfTheTrim) {
    openOne(sheetWithBlock());
    model.setTrimEnabled(true);
    const QSize trimmed = model.processedImage().size();
    model.setStickerEnabled(true);
    EXPECT_NE(model.processedImage().size(), trimmed) << "no trim stage while the outline is on";
    model.setStickerEnabled(false);
    EXPECT_EQ(model.processedImage().size(), trimmed) << "the trim comes back";
}

TEST_F(PipelineTest, AStageThatCannotAllocateIsSkipped) {
    openOne(coordinates(30, 20));
    model.setResizeLockAspect(false);
    model.setResizeEnabled(true);
    model.setResizeWidth(1e9);
    model.setResizeHeight(1e9);
    EXPECT_EQ(model.processedImage().size(), QSize(30, 20)) << "the pipeline goes on with the image it had";
    model.setResizeCanvas(true);
    EXPECT_EQ(model.processedImage().size(), QSize(30, 20));
    model.setPaddingEnabled(true);
    model.setPadAmount(1e12);
    EXPECT_EQ(model.processedImage().size(), QSize(30, 20));
}

TEST_F(PipelineTest, AnImageWithNothingToTrimStaysWhole) {
    openOne(solid(16, 9, Qt::white));
    model.setTrimEnabled(true);
    EXPECT_EQ(model.processedImage().size(), QSize(16, 9));
}

TEST_F(PipelineTest, AHandCropIsTrimmedAndWrittenLikeAnyPicture) {
    // An opaque sheet (held as RGBX) with a dark block: the hand crop is a view inside the source,
    // and every later stage and every encoder must take it as a picture of its own.
    QImage sheet = solid(400, 300, Qt::white);
    for (int y = 100; y < 200; ++y)
        for (int x = 120; x < 260; ++x)
            sheet.setPixelColor(x, y, QColor(20, 30, 40));
    openOne(sheet.convertToFormat(QImage::Format_RGB32));
    model.setManualCropRect(QRectF(0, 0, 0.9, 0.9));
    model.setManualCropEnabled(true);
    model.setTrimEnabled(true);
    EXPECT_EQ(model.processedImage().size(), QSize(140, 100)) << "the trim finds the block inside the crop";
    model.setTrimEnabled(false);
    ASSERT_EQ(model.processedImage().size(), QSize(360, 270));
    for (const char* type : {"image/png", "image/jpeg", "image/webp", "image/tiff", "image/heic"}) {
        const QByteArray bytes = ImageFile::encode(model.processedImage(), QString::fromLatin1(type));
        ASSERT_FALSE(bytes.isEmpty()) << type;
        const auto back = ImageFile::loadFromData(bytes);
        ASSERT_TRUE(back) << type;
        EXPECT_EQ(back->image.size(), QSize(360, 270)) << type;
    }
}

TEST_F(PipelineTest, AResizeAloneStartsFromThePictureBeforeItAndAnythingElseRebuilds) {
    openOne(sheetWithBlock());
    model.setKeyWhiteEnabled(true);
    model.setTrimEnabled(true);
    model.setPaddingEnabled(true);
    model.setPadAmount(5);
    const QImage beforeResize = model.processedImage();
    ASSERT_EQ(beforeResize.size(), QSize(30, 20));
    // The resize and the trace read the picture before the resize as it is: turning the resize on
    // and off again gives back that very picture, not a copy made anew.
    model.setResizeEnabled(true);
    model.setResizeWidth(90);
    EXPECT_EQ(model.processedImage().size(), QSize(90, 60));
    model.setVectorizeEnabled(true);
    model.setVectorizeEnabled(false);
    model.setResizeEnabled(false);
    EXPECT_EQ(model.processedImage().cacheKey(), beforeResize.cacheKey());

    // Any earlier stage's setting, the same pixels or not, and each result is what a fresh model with
    // the final settings makes.
    const auto freshResult = [&] {
        CropModel fresh;
        fresh.open({model.active()->path});
        fresh.applySettings(model.snapshotCurrentSettings());
        return fresh.processedImage();
    };
    model.setResizeEnabled(true);
    model.setPadAmount(7);
    EXPECT_EQ(model.preResizeSize(), QSizeF(34, 24));
    EXPECT_EQ(model.processedImage().size(), QSize(30, 20)) << "seeded from 30 × 20 when turned on again";
    EXPECT_EQ(model.processedImage(), freshResult());
    model.setBackgroundEnabled(true);
    model.setBackgroundColor(QColor(0, 0, 255));
    EXPECT_EQ(model.processedImage().pixel(0, 0), qRgb(0, 0, 255));
    EXPECT_EQ(model.processedImage(), freshResult());
    model.setQuarterTurns(1);
    EXPECT_EQ(model.processedImage(), freshResult());
    // A source that changes under the same settings (written over and read back) is built anew.
    const QImage beforeSave = model.processedImage();
    model.setResizeEnabled(false);
    const QImage unresized = model.processedImage();
    saveAndWait(model);
    ASSERT_FALSE(model.errorMessage());
    ASSERT_TRUE(model.active());
    EXPECT_NE(model.processedImage().size(), unresized.size())
        << "the turned and padded result is the source now";
    EXPECT_EQ(model.processedImage(), freshResult());
    EXPECT_FALSE(beforeSave.isNull());
}

TEST_F(PipelineTest, ADeferredResizeWaitsForItsSwitchAndThumbnailsCanBeLeftOut) {
    // The command line's way: settings and a size written after them build without the resize, the
    // locked aspect following the picture before it; then one build resizes.
    model.setDefersResize(true);
    openOne(sheetWithBlock());
    Settings s;
    s.keyWhiteEnabled = s.trimEnabled = s.paddingEnabled = true;
    s.padAmount = 5;
    s.resizeEnabled = true;
    s.resizeWidth = 90;
    model.applySettings(s);
    model.writeSetting(QStringLiteral("resizeWidth"), s);
    EXPECT_EQ(model.preResizeSize(), QSizeF(30, 20));
    EXPECT_EQ(model.processedImage().size(), QSize(30, 20)) << "not resized yet";
    EXPECT_EQ(model.snapshotCurrentSettings().resizeHeight, 60) << "the height follows the width";
    model.setDefersResize(false);
    model.writeSetting(QStringLiteral("resizeEnabled"), s);
    EXPECT_EQ(model.processedImage().size(), QSize(90, 60));
    EXPECT_FALSE(model.active()->thumbnail.isNull());

    CropModel bare;
    bare.setMakesThumbnails(false);
    bare.open({model.active()->path});
    ASSERT_TRUE(bare.active());
    EXPECT_TRUE(bare.active()->thumbnail.isNull());
}

TEST_F(PipelineTest, ADragShowsDraftsAndItsEndIsTheFullPictureByteForByte) {
    // A product shot bigger than a view: white sheet, a coloured block, every section a shot uses.
    QImage sheet = solid(3200, 2000, Qt::white);
    for (int y = 500; y < 1500; ++y)
        for (int x = 700; x < 2500; ++x)
            sheet.setPixel(x, y, qRgb((x * 7) & 255, (y * 3) & 255, 90));
    const QString path = savePng(m_dir, QStringLiteral("shot.png"), sheet);
    const auto lookOf = [](CropModel& m, double padding) {
        m.setKeyWhiteEnabled(true);
        m.setBgRemovalMode(BGRemovalMode::white);
        m.setTrimEnabled(true);
        m.setStickerEnabled(true);
        m.setPaddingEnabled(true);
        m.setBackgroundEnabled(true);
        m.setBackgroundKind(BackgroundKind::gradient);
        m.setPadAmount(padding);
    };
    model.open({path});
    lookOf(model, 40);
    model.setDraft(true);
    model.setPadAmount(90); // a step of the drag
    ASSERT_TRUE(model.processedIsDraft());
    const QImage draft = model.processedImage();
    EXPECT_LE(std::max(draft.width(), draft.height()), CropModel::kDraftLongSide);

    // What a build without drafts makes of the same settings.
    CropModel whole;
    whole.open({path});
    lookOf(whole, 90);
    ASSERT_FALSE(whole.processedIsDraft());
    const QImage full = whole.processedImage();
    EXPECT_NEAR(model.resultSize().width(), full.width(), 3) << "the size said during the drag";
    EXPECT_NEAR(model.resultSize().height(), full.height(), 3);

    // A save in the middle of the drag writes the full picture, never the draft.
    saveAndWait(model, &CropModel::saveAsNewFile); // no panels: nothing written, nothing broken
    model.setDraft(false);
    EXPECT_FALSE(model.processedIsDraft());
    EXPECT_EQ(model.resultSize(), full.size());
    const QImage released = model.processedImage();
    ASSERT_EQ(released.size(), full.size());
    ASSERT_EQ(released.format(), full.format());
    for (int y = 0; y < full.height(); ++y)
        ASSERT_EQ(std::memcmp(released.constScanLine(y), full.constScanLine(y), size_t(full.bytesPerLine())),
                  0)
            << "row " << y;

    // Saving while held writes what a build without drafts writes.
    model.setDraft(true);
    model.setPadAmount(40);
    ASSERT_TRUE(model.processedIsDraft());
    saveAndWait(model);
    EXPECT_TRUE(model.items().front().saved);
    whole.setPadAmount(40);
    const auto written = ImageFile::load(path);
    ASSERT_TRUE(written);
    EXPECT_EQ(written->image.size(), whole.processedImage().size());

    // A picture no bigger than a view is never drafted.
    CropModel small;
    small.open({savePng(m_dir, QStringLiteral("small.png"), coordinates(800, 600))});
    small.setDraft(true);
    small.setPaddingEnabled(true);
    EXPECT_FALSE(small.processedIsDraft());
}
