// The refine sheet: strokes drawn in code land where the pointer was, in the source's coordinates
// whatever the turn; what the sheet shows while drawing is exactly what the finished edit gives;
// its own undo and keys; and the window hands the touch-ups to the item only on Done.
#include "FakeCutouts.h"
#include "TestSupport.h"

#include "ui/ContentView.h"
#include "ui/RefineCanvas.h"
#include "ui/RefineSheet.h"

#include <QApplication>
#include <QTest>

#include <gtest/gtest.h>

#include <cstring>

using namespace cutlark;
using namespace cutlark::test;

namespace {

// The source with its left half cleared, as a network might have cut it.
QImage halfCut(const QImage& s) {
    QImage c = s.copy();
    for (int y = 0; y < c.height(); ++y)
        std::memset(c.scanLine(y), 0, size_t(c.width() / 2) * 4);
    return c;
}

void stroke(RefineCanvas* canvas, const QList<QPointF>& oriented) {
    canvas->beginStroke(oriented.first());
    for (const QPointF& p : oriented.mid(1))
        canvas->extendStroke(p);
    canvas->endStroke();
}

} // namespace

TEST(RefineSheet, WhatTheSheetShowsWhileDrawingIsWhatTheEditGives) {
    const QImage src = coordinates(300, 200);
    const QImage cut = halfCut(src);
    RefineSheet sheet(src, cut, {}, 0, false);
    RefineCanvas* canvas = sheet.canvas();
    sheet.setBrushSize(0.05);
    sheet.setSoftness(0.3);
    sheet.setTool(MaskEdit::Kind::restore);
    stroke(canvas, {{0.1, 0.2}, {0.2, 0.3}, {0.3, 0.35}, {0.4, 0.5}});
    sheet.setTool(MaskEdit::Kind::erase);
    stroke(canvas, {{0.7, 0.7}, {0.9, 0.6}});
    ASSERT_EQ(sheet.edits().size(), 2);
    EXPECT_EQ(sheet.edits()[0].kind, MaskEdit::Kind::restore);
    EXPECT_EQ(sheet.edits()[0].points.size(), 4);
    EXPECT_DOUBLE_EQ(sheet.edits()[1].size, 0.05);
    EXPECT_DOUBLE_EQ(sheet.edits()[1].softness, 0.3);
    // Segment by segment while drawing, all at once when applied: the same bytes.
    EXPECT_TRUE(canvas->preview() == MaskEditing::apply(cut, src, sheet.edits()));
    EXPECT_EQ(qAlpha(canvas->preview().pixel(int(0.2 * 300), int(0.3 * 200))), 255) << "restored";
    EXPECT_EQ(qAlpha(canvas->preview().pixel(int(0.8 * 300), int(0.65 * 200))), 0) << "erased";
}

TEST(RefineSheet, StrokesAreKeptInTheSourcesCoordinatesWhateverTheTurn) {
    const QImage src = coordinates(300, 200);
    for (bool mirrored : {false, true})
        for (int turns = 0; turns < 4; ++turns) {
            RefineSheet sheet(src, halfCut(src), {}, turns, mirrored);
            stroke(sheet.canvas(), {{0.25, 0.4}, {0.3, 0.45}});
            ASSERT_EQ(sheet.edits().size(), 1);
            const QPointF first = sheet.edits()[0].points.first();
            const QPointF expected = MaskEditing::toSource({0.25, 0.4}, turns, mirrored);
            EXPECT_NEAR(first.x(), expected.x(), 1e-12) << turns << mirrored;
            EXPECT_NEAR(first.y(), expected.y(), 1e-12) << turns << mirrored;
        }
    // And the widget's points map onto the turned picture: its centre is the picture's centre.
    RefineSheet sheet(src, halfCut(src), {}, 1, false);
    sheet.resize(800, 600);
    sheet.show();
    const QPointF centre = sheet.canvas()->toOriented(sheet.canvas()->imageRect().center());
    EXPECT_NEAR(centre.x(), 0.5, 1e-9);
    EXPECT_NEAR(centre.y(), 0.5, 1e-9);
    EXPECT_NEAR(sheet.canvas()->imageRect().width() / sheet.canvas()->imageRect().height(), 200.0 / 300, 1e-6)
        << "a quarter turn shows the picture upright";
}

TEST(RefineSheet, UndoRedoClearKeysAndDroppingAnIsland) {
    const QImage src = coordinates(200, 100);
    QImage cut(200, 100, QImage::Format_RGBA8888_Premultiplied);
    cut.fill(Qt::transparent);
    for (int y = 40; y < 60; ++y) // two opaque islands
        for (int x = 0; x < 200; ++x)
            if ((x >= 20 && x < 50) || (x >= 140 && x < 160)) cut.setPixel(x, y, src.pixel(x, y));
    RefineSheet sheet(src, cut, {}, 0, false);
    sheet.show();
    EXPECT_FALSE(sheet.canUndo());

    QTest::keyClick(&sheet, Qt::Key_D);
    EXPECT_EQ(sheet.tool(), MaskEdit::Kind::dropIsland);
    sheet.canvas()->beginStroke({0.75, 0.5}); // a click on the right island
    ASSERT_EQ(sheet.edits().size(), 1);
    EXPECT_EQ(qAlpha(sheet.canvas()->preview().pixel(150, 50)), 0) << "the island is gone";
    EXPECT_EQ(qAlpha(sheet.canvas()->preview().pixel(30, 50)), 255) << "the other stays";

    QTest::keyClick(&sheet, Qt::Key_R);
    EXPECT_EQ(sheet.tool(), MaskEdit::Kind::restore);
    const double size = sheet.brushSize();
    QTest::keyClick(&sheet, Qt::Key_BracketRight);
    EXPECT_NEAR(sheet.brushSize(), size * 1.25, 1e-9);
    QTest::keyClick(&sheet, Qt::Key_BracketLeft);
    EXPECT_NEAR(sheet.brushSize(), size, 1e-9);
    stroke(sheet.canvas(), {{0.5, 0.2}, {0.5, 0.8}});
    EXPECT_EQ(sheet.edits().size(), 2);
    EXPECT_EQ(qAlpha(sheet.canvas()->preview().pixel(100, 50)), 255);

    QTest::keyClick(&sheet, Qt::Key_Z, Qt::ControlModifier);
    EXPECT_EQ(sheet.edits().size(), 1);
    EXPECT_EQ(qAlpha(sheet.canvas()->preview().pixel(100, 50)), 0) << "the stroke is taken back";
    QTest::keyClick(&sheet, Qt::Key_Z, Qt::ControlModifier | Qt::ShiftModifier);
    EXPECT_EQ(sheet.edits().size(), 2);
    EXPECT_TRUE(sheet.canvas()->preview() == MaskEditing::apply(cut, src, sheet.edits()));
    sheet.clear();
    EXPECT_TRUE(sheet.edits().isEmpty());
    EXPECT_TRUE(sheet.canvas()->preview() == cut);
    sheet.undo();
    EXPECT_EQ(sheet.edits().size(), 2) << "clearing is one step to undo";
    QTest::keyClick(&sheet, Qt::Key_E);
    EXPECT_EQ(sheet.tool(), MaskEdit::Kind::erase);
}

class RefineWindowTest : public FakeCutoutsTest {};

TEST_F(RefineWindowTest, DoneHandsTheTouchUpsToTheItemAndCancelKeepsNothing) {
    ContentView view;
    view.model().setCutoutService(fake.service());
    fake.open = true;
    CropModel& m = view.model();
    m.open({savePng(m_dir, QStringLiteral("a.png"), coordinates(80, 60))});
    m.setBgRemovalMode(BGRemovalMode::subject);
    m.setKeyWhiteEnabled(true);
    ASSERT_TRUE(waitUntil([&] { return !m.activeCutout().isNull(); }));
    m.setQuarterTurns(1);
    view.openRefineSheet();
    RefineSheet* sheet = view.refineSheet();
    ASSERT_TRUE(sheet);
    sheet->setBrushSize(0.1);
    sheet->setSoftness(0);
    stroke(sheet->canvas(), {{0.5, 0.8}, {0.5, 0.9}}); // in the turned picture's lower middle
    sheet->reject();
    QApplication::processEvents();
    EXPECT_TRUE(m.maskEdits().isEmpty()) << "Cancel keeps nothing";

    view.openRefineSheet();
    sheet = view.refineSheet();
    ASSERT_TRUE(sheet);
    sheet->setBrushSize(0.1);
    sheet->setSoftness(0);
    stroke(sheet->canvas(), {{0.5, 0.8}, {0.5, 0.9}});
    const MaskEdits drawn = sheet->edits();
    sheet->accept();
    QApplication::processEvents();
    EXPECT_EQ(m.maskEdits(), drawn);
    // The turned result (60 × 80) is erased under the stroke, and nothing is open any more.
    const QImage result = m.processedImage();
    ASSERT_EQ(result.size(), QSize(60, 80));
    EXPECT_EQ(qAlpha(result.pixel(30, 68)), 0);
    EXPECT_FALSE(view.refineSheet());
}
