#include "TestSupport.h"

#include "ui/ContentView.h"
#include "ui/CropEditorSheet.h"
#include "ui/FileOpenInbox.h"
#include "ui/MainWindow.h"

#include <QApplication>
#include <QTest>

#include <gtest/gtest.h>

using namespace cutlark;
using namespace cutlark::test;
namespace G = CropGeometry;

namespace {

void expectRect(const QRectF& actual, const QRectF& expected, double tolerance = 1e-9) {
    EXPECT_NEAR(actual.x(), expected.x(), tolerance);
    EXPECT_NEAR(actual.y(), expected.y(), tolerance);
    EXPECT_NEAR(actual.width(), expected.width(), tolerance);
    EXPECT_NEAR(actual.height(), expected.height(), tolerance);
}

// A sheet on a 200 × 100 image laid out in a 700 × 480 work area.
class SheetTest : public ::testing::Test {
protected:
    void SetUp() override {
        sheet = std::make_unique<CropEditorSheet>(coordinates(200, 100), QRectF(0, 0, 1, 1));
        sheet->overlay()->setFixedSize(700, 480);
        sheet->show();
        QApplication::setActiveWindow(sheet.get());
        QApplication::processEvents();
    }
    // Presses at a point of the overlay and drags by `by` in steps, then releases.
    void drag(const QPointF& from, const QPointF& by) {
        CropEditorOverlay* o = sheet->overlay();
        QTest::mousePress(o, Qt::LeftButton, Qt::NoModifier, from.toPoint());
        for (int i = 1; i <= 4; ++i) {
            QMouseEvent move(QEvent::MouseMove, from + by * (i / 4.0), o->mapToGlobal(from + by * (i / 4.0)),
                             Qt::NoButton, Qt::LeftButton, Qt::NoModifier);
            QApplication::sendEvent(o, &move);
        }
        QTest::mouseRelease(o, Qt::LeftButton, Qt::NoModifier, (from + by).toPoint());
    }
    std::unique_ptr<CropEditorSheet> sheet;
};

} // namespace

TEST(CropGeometryTest, AspectFitSanitizeAndClamp) {
    EXPECT_EQ(G::aspectFit(QSizeF(200, 100), QSizeF(700, 480)), QRectF(0, 65, 700, 350));
    EXPECT_EQ(G::aspectFit(QSizeF(100, 1000), QSizeF(700, 480)), QRectF(326, 0, 48, 480))
        << "a tall image is letterboxed";
    expectRect(G::sanitized(QRectF(1, 0.5, 0.3, 0.9)), QRectF(1, 0.5, 0.02, 0.5));
    expectRect(G::sanitized(QRectF(-0.2, 0.1, 2, 0.01)), QRectF(0, 0.1, 1, 0.02));
    expectRect(G::edgeClamp(0.9, 0.2, 0.5, 0.8),
               QRectF(0.48, 0.2, 0.02, 0.6)); // stops 0.02 short, never crosses
    expectRect(G::edgeClamp(-0.1, -0.5, 1.4, 2), QRectF(0, 0, 1, 1));
}

TEST(CropGeometryTest, DragsSnapAndNudgesDoNot) {
    const QRectF img(0, 65, 700, 350);
    const QSize pixels(200, 100);
    // nw dragged right past the right edge: 0.02 wide, the right edge where it was.
    expectRect(G::dragged(QRectF(0, 0, 1, 1), CropHandle::nw, QPointF(2000, 0), img, pixels),
               QRectF(0.98, 0, 0.02, 1));
    // A drag snaps to whole pixels: 17.5 points is 5 pixels of 200.
    const QRectF snapped = G::dragged(QRectF(0, 0, 1, 1), CropHandle::w, QPointF(17.6, 0), img, pixels);
    EXPECT_NEAR(snapped.left() * 200, 5, 1e-9);
    // The body stops at the edges and keeps its size.
    expectRect(G::dragged(QRectF(0.2, 0.2, 0.5, 0.5), CropHandle::body, QPointF(5000, -5000), img, pixels),
               QRectF(0.5, 0, 0.5, 0.5));
    // A nudge moves one pixel (ten with Shift) and keeps an offset it had; down is +y.
    const QRectF offset(0.1234, 0.2, 0.5, 0.5);
    expectRect(G::nudged(offset, CropHandle::w, -1, 0, 1, pixels), QRectF(0.1184, 0.2, 0.505, 0.5));
    expectRect(G::nudged(offset, CropHandle::s, 0, 1, 10, pixels), QRectF(0.1234, 0.2, 0.5, 0.6));
    // A handle against the image's edge stays there.
    expectRect(G::nudged(QRectF(0, 0, 0.5, 0.5), CropHandle::nw, -1, -1, 10, pixels), QRectF(0, 0, 0.5, 0.5));
}

TEST(CropGeometryTest, LoupeZoomAndPlacement) {
    // A small image shown large: zoom 3, cells of 3 × scale points.
    const auto small = G::loupe(QPointF(350, 240), QRectF(0, 65, 700, 350), QSize(200, 100));
    EXPECT_DOUBLE_EQ(small.zoom, 3.0);
    EXPECT_DOUBLE_EQ(small.cell, 3.5 * 3);
    // A large image: one pixel becomes 10 points.
    const auto large = G::loupe(QPointF(350, 240), QRectF(0, 65, 700, 350), QSize(7000, 3500));
    EXPECT_DOUBLE_EQ(large.cell, 10.0);
    // 28 above the point (98 to its centre), kept 8 from the image's edges.
    EXPECT_EQ(small.centre, QPointF(350, 143)) << "98 up would leave the image: held 78 below its top";
    const auto corner = G::loupe(QPointF(0, 65), QRectF(0, 65, 700, 350), QSize(200, 100));
    EXPECT_EQ(corner.centre, QPointF(138, 143));
    EXPECT_DOUBLE_EQ(corner.u, 0);
    EXPECT_DOUBLE_EQ(corner.v, 0);
}

TEST_F(SheetTest, HandlesSelectDragAndNudge) {
    CropEditorOverlay* o = sheet->overlay();
    const QRectF c = o->cropRect();
    EXPECT_FALSE(sheet->selectedHandle());
    EXPECT_FALSE(o->loupePoint()) << "no loupe at first";
    // A click on a handle selects it and shows the loupe.
    QTest::mouseClick(o, Qt::LeftButton, Qt::NoModifier, QPoint(int(c.right()), int(c.center().y())));
    EXPECT_EQ(sheet->selectedHandle(), CropHandle::e);
    EXPECT_TRUE(o->loupePoint());
    // Arrow keys move the selected edge a pixel, ten with Shift; Esc and Return still work.
    QTest::keyClick(sheet.get(), Qt::Key_Left);
    EXPECT_NEAR(sheet->crop().right(), 199.0 / 200, 1e-9);
    QTest::keyClick(sheet.get(), Qt::Key_Left, Qt::ShiftModifier);
    EXPECT_NEAR(sheet->crop().right(), 189.0 / 200, 1e-9);
    // A click inside takes the selection away; then the arrows do nothing.
    QTest::mouseClick(o, Qt::LeftButton, Qt::NoModifier, c.center().toPoint());
    EXPECT_FALSE(sheet->selectedHandle());
    const QRectF before = sheet->crop();
    QTest::keyClick(sheet.get(), Qt::Key_Down);
    EXPECT_EQ(sheet->crop(), before);

    // Dragging the top-left corner: edges land on whole pixels and the handle stays selected.
    drag(o->cropRect().topLeft(), QPointF(52.3, 41.7));
    EXPECT_EQ(sheet->selectedHandle(), CropHandle::nw);
    EXPECT_NEAR(sheet->crop().left() * 200, std::round(sheet->crop().left() * 200), 1e-9);
    EXPECT_NEAR(sheet->crop().top() * 100, std::round(sheet->crop().top() * 100), 1e-9);
    EXPECT_GT(sheet->crop().left(), 0.05);
    // Dragging the body selects it: the arrows move the crop, and no loupe shows.
    drag(o->cropRect().center(), QPointF(-30, 0));
    EXPECT_EQ(sheet->selectedHandle(), CropHandle::body);
    EXPECT_FALSE(o->loupePoint());
    const double width = sheet->crop().width();
    QTest::keyClick(sheet.get(), Qt::Key_Right);
    EXPECT_NEAR(sheet->crop().width(), width, 1e-12);
}

TEST_F(SheetTest, AutoFindsTheArtworkOrBeeps) {
    sheet->reset();
    sheet->runAutoDetect(); // the coordinates picture is all content
    EXPECT_EQ(sheet->crop(), QRectF(0, 0, 1, 1));

    QImage sheetImage = solid(100, 50, Qt::white);
    for (int y = 10; y < 20; ++y)
        for (int x = 30; x < 60; ++x)
            sheetImage.setPixelColor(x, y, Qt::black);
    CropEditorSheet onWhite(sheetImage, QRectF(0, 0, 1, 1));
    onWhite.runAutoDetect();
    expectRect(onWhite.crop(), QRectF(0.3, 0.2, 0.3, 0.2));
    CropEditorSheet blank(solid(40, 40, Qt::white), QRectF(0.1, 0.1, 0.5, 0.5));
    blank.runAutoDetect(); // nothing to find: a beep, and the crop stays
    EXPECT_EQ(blank.crop(), QRectF(0.1, 0.1, 0.5, 0.5));
}

TEST(CropSheetInWindow, TurningTheCropOnOpensTheSheetAndDoneCommits) {
    QTemporaryDir dir;
    MainWindow window;
    window.show();
    CropModel& model = window.content()->model();
    model.open({savePng(dir, QStringLiteral("a.png"), coordinates(200, 100))});
    model.setManualCropEnabled(true);
    ASSERT_NE(window.content()->cropEditor(), nullptr) << "the switch opens the sheet";
    window.content()->cropEditor()->reject(); // Cancel
    QApplication::processEvents();
    EXPECT_TRUE(model.manualCropEnabled()) << "cancel leaves the crop on";
    window.content()->openCropEditor();
    ASSERT_NE(window.content()->cropEditor(), nullptr);
    window.content()->cropEditor()->overlay()->setCrop(QRectF(0.5, 0, 0.5, 1));
    window.content()->cropEditor()->accept(); // Done
    EXPECT_EQ(model.manualCropRect(), QRectF(0.5, 0, 0.5, 1));
    EXPECT_EQ(model.processedImage().size(), QSize(100, 100));
}

TEST(CropSheetInWindow, FilesHandedOverWhileTheSheetIsOpenWaitForIt) {
    QTemporaryDir dir;
    MainWindow window;
    window.show();
    CropModel& model = window.content()->model();
    model.open({savePng(dir, QStringLiteral("a.png"), coordinates(200, 100))});
    const auto cropped = model.activeID();
    model.setManualCropEnabled(true);
    CropEditorSheet* sheet = window.content()->cropEditor();
    ASSERT_NE(sheet, nullptr);
    // A second start hands a file over while the sheet is open.
    FileOpenInbox::instance().deliver({savePng(dir, QStringLiteral("other.png"), coordinates(80, 80))});
    QApplication::processEvents();
    EXPECT_EQ(model.items().size(), 1u) << "nothing opens behind the sheet";
    EXPECT_EQ(model.activeID(), cropped);
    sheet->overlay()->setCrop(QRectF(0.5, 0, 0.5, 1));
    sheet->accept(); // Done
    EXPECT_EQ(model.manualCropRect(), QRectF(0.5, 0, 0.5, 1));
    EXPECT_EQ(model.processedImage().size(), QSize(100, 100))
        << "the crop went to the picture it was drawn on";
    QTest::qWait(0);
    QApplication::processEvents();
    ASSERT_EQ(model.items().size(), 2u) << "then the file opens";
    EXPECT_TRUE(FileOpenInbox::instance().pending().isEmpty());
}
