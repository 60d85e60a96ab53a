#include "TestSupport.h"

#include "ui/ColorPickerPopover.h"

#include <QApplication>
#include <QLineEdit>
#include <QTest>

#include <gtest/gtest.h>

using namespace cutlark;

namespace {

// A bound colour the test holds, counting the writes that reach it.
struct Binding {
    QColor color = QColor::fromRgbF(1, 0, 0, 1);
    int writes = 0;
    std::function<QColor()> get() {
        return [this] { return color; };
    }
    std::function<void(const QColor&)> set() {
        return [this](const QColor& c) {
            color = c;
            ++writes;
        };
    }
};

} // namespace

TEST(ColorPicker, HexFormsAcceptedAndRefused) {
    const auto reference = ColorPickerPopover::parseHex(QStringLiteral("FF8800"));
    ASSERT_TRUE(reference);
    for (const char* text : {"ff8800", "#FF8800", "FF#8800", "  ff8800 \n", "\t#ff8800\n"}) {
        const auto parsed = ColorPickerPopover::parseHex(QLatin1String(text));
        ASSERT_TRUE(parsed) << text;
        EXPECT_DOUBLE_EQ(parsed->hue, reference->hue);
        EXPECT_DOUBLE_EQ(parsed->sat, reference->sat);
        EXPECT_DOUBLE_EQ(parsed->bri, reference->bri);
    }
    for (const char* text :
         {"F80", "FF88000", "GG8800", "", "FF 880", "0x12AB", "+FFFFF", "-00001", "ＦＦ８８００"})
        EXPECT_FALSE(ColorPickerPopover::parseHex(QLatin1String(text))) << text;
    EXPECT_NEAR(reference->hue, 32.0 / 360, 1e-3);
}

TEST(ColorPicker, PercentRounding) {
    EXPECT_EQ(ColorPickerPopover::percentText(0.125), QStringLiteral("13%"));
    EXPECT_EQ(ColorPickerPopover::percentText(0.124), QStringLiteral("12%"));
    EXPECT_EQ(ColorPickerPopover::percentText(1), QStringLiteral("100%"));
}

TEST(ColorPicker, SyncAndPushOutDoNotFight) {
    Binding bound;
    bound.color = QColor::fromRgbF(0.2f, 0.4f, 0.6f, 0.5f);
    ColorPickerPopover picker(bound.get(), bound.set());
    EXPECT_EQ(bound.writes, 0) << "opening reads the colour and writes nothing back";
    EXPECT_EQ(picker.hexText(), QStringLiteral("336699"));
    EXPECT_NEAR(picker.alpha(), 0.5, 1e-3);

    // One step of 1/255 in one channel stays local; two steps are written.
    bound.color = QColor::fromRgbF(0.2f, 0.4f, 0.6f + 1 / 255.0f, 0.5f);
    picker.colorChanged();
    EXPECT_EQ(bound.writes, 0);
    picker.dragAlpha(0.5 * ColorPickerPopover::kWidth + 0.0039 * ColorPickerPopover::kWidth);
    EXPECT_EQ(bound.writes, 0) << "a change under 0.004 isn't passed on";
    picker.dragAlpha(0.51 * ColorPickerPopover::kWidth);
    EXPECT_EQ(bound.writes, 1);
    EXPECT_TRUE(picker.suppressingInbound()) << "our own write's notification is ignored";
    picker.colorChanged();
    EXPECT_NEAR(picker.alpha(), 0.51, 1e-9);
    QApplication::processEvents();
    EXPECT_FALSE(picker.suppressingInbound());

    // A colour changed from elsewhere comes in.
    bound.color = QColor::fromRgbF(0, 1, 0, 1);
    picker.colorChanged();
    EXPECT_NEAR(picker.hue(), 1.0 / 3, 1e-9);
    EXPECT_EQ(picker.hexText(), QStringLiteral("00FF00"));
}

TEST(ColorPicker, PaletteClearHexAndStrips) {
    Binding bound;
    bound.color = QColor::fromRgbF(1, 0, 0, 0.4f);
    ColorPickerPopover picker(bound.get(), bound.set());
    picker.commitHex(QStringLiteral("#0000FF"));
    EXPECT_NEAR(bound.color.blueF(), 1, 1e-4);
    EXPECT_NEAR(bound.color.alphaF(), 0.4, 1e-3) << "a hex text leaves alpha alone";
    picker.commitHex(QStringLiteral("nonsense"));
    EXPECT_NEAR(bound.color.blueF(), 1, 1e-4) << "an invalid text changes nothing";

    picker.pickPalette(4, 2); // D1D5DB: a grey
    EXPECT_NEAR(bound.color.alphaF(), 1, 1e-4) << "a palette swatch sets alpha to 1";
    EXPECT_NEAR(picker.sat(), 0.04, 0.02);
    picker.pickPalette(4, 9); // 000000
    EXPECT_EQ(picker.bri(), 0);
    picker.pickPalette(0, 0); // FF1744
    const QString hex = picker.hexText();
    picker.pickPalette(4, 10); // CLEAR
    EXPECT_EQ(bound.color.alpha(), 0);
    EXPECT_EQ(bound.color.red(), 255) << "same red, green and blue";
    EXPECT_EQ(picker.hexText(), hex);

    picker.dragHue(ColorPickerPopover::kWidth * 3);
    EXPECT_DOUBLE_EQ(picker.hue(), 0.9999) << "the hue stops short of 1";
    picker.dragPad(-50, 1000);
    EXPECT_EQ(picker.sat(), 0);
    EXPECT_EQ(picker.bri(), 0);
    EXPECT_EQ(ColorPickerPopover::palette().size(), 5);
    for (const QStringList& row : ColorPickerPopover::palette())
        EXPECT_EQ(row.size(), 11);
}

TEST(ColorPicker, SwatchRowOpensThePicker) {
    Binding bound;
    ColorSwatchRow row(QStringLiteral("Background color"), bound.get(), bound.set());
    row.show();
    QTest::mouseClick(&row, Qt::LeftButton);
    ASSERT_NE(row.popover(), nullptr);
    row.popover()->pickPalette(0, 8);
    EXPECT_EQ(bound.color.name().toUpper(), QStringLiteral("#2979FF"));
}

TEST(ColorPicker, ThePopoverStaysWholeOnTheScreenAtEveryEdge) {
    const QRect screen(0, 0, 1280, 800);
    const QSize popover(244, 420);
    const auto place = [&](QPoint rowAt) {
        return QRect(ColorSwatchRow::popoverPosition(QRect(rowAt, QSize(150, 24)), popover, screen), popover);
    };
    // In the middle: to the row's left, centred on it.
    EXPECT_EQ(place(QPoint(800, 400)), QRect(QPoint(800 - 6 - 244, 411 - 210), popover));
    // Near the bottom: lifted so that its lower rows (Clear, the hex field) stay in reach.
    const QRect bottom = place(QPoint(800, 780));
    EXPECT_EQ(bottom.bottom(), screen.bottom());
    EXPECT_EQ(bottom.right(), 800 - 6 - 1);
    // Near the top: pushed down to the top edge.
    EXPECT_EQ(place(QPoint(800, 4)).top(), 0);
    // Near the left: no room there, so on the row's right.
    EXPECT_EQ(place(QPoint(100, 400)).left(), 100 + 150 + 6);
    // Near the right: to the left as always, whole.
    EXPECT_TRUE(screen.contains(place(QPoint(1130, 400))));
    // A screen smaller than the popover keeps its top-left in reach.
    const QRect tiny(0, 0, 200, 300);
    EXPECT_EQ(ColorSwatchRow::popoverPosition(QRect(20, 280, 150, 24), popover, tiny), QPoint(0, 0));
    // On a second screen to the right of the first, the same rules in its coordinates.
    const QRect second(1280, 0, 1920, 1080);
    const QRect there(ColorSwatchRow::popoverPosition(QRect(1290, 1060, 150, 20), popover, second), popover);
    EXPECT_TRUE(second.contains(there));
    EXPECT_EQ(there.left(), 1290 + 150 + 6);
}

TEST(ColorPicker, EveryPartWorksFromTheKeyboard) {
    Binding bound;
    bound.color = QColor::fromHsvF(0.5f, 0.5f, 0.5f, 1.0f);
    ColorPickerPopover picker(bound.get(), bound.set());
    picker.show();
    picker.setFocus();
    ASSERT_EQ(picker.keyArea(), ColorPickerPopover::KeyArea::pad);
    QTest::keyClick(&picker, Qt::Key_Right);
    EXPECT_NEAR(picker.sat(), 0.51, 1e-3);
    QTest::keyClick(&picker, Qt::Key_Up, Qt::ShiftModifier);
    EXPECT_NEAR(picker.bri(), 0.6, 1e-3);
    EXPECT_NEAR(bound.color.valueF(), 0.6, 0.01) << "each key writes the bound colour";

    QTest::keyClick(&picker, Qt::Key_Tab);
    EXPECT_EQ(picker.keyArea(), ColorPickerPopover::KeyArea::hue);
    EXPECT_EQ(picker.focusWidget(), &picker) << "Tab walks the picker's parts first";
    const double hue = picker.hue();
    QTest::keyClick(&picker, Qt::Key_Right);
    EXPECT_NEAR(picker.hue(), hue + 1.0 / 360, 1e-6);

    QTest::keyClick(&picker, Qt::Key_Tab);
    EXPECT_EQ(picker.keyArea(), ColorPickerPopover::KeyArea::alpha);
    QTest::keyClick(&picker, Qt::Key_Left, Qt::ShiftModifier);
    EXPECT_NEAR(bound.color.alphaF(), 0.9, 0.01);

    QTest::keyClick(&picker, Qt::Key_Tab);
    EXPECT_EQ(picker.keyArea(), ColorPickerPopover::KeyArea::palette);
    QTest::keyClick(&picker, Qt::Key_Right);
    QTest::keyClick(&picker, Qt::Key_Right);
    QTest::keyClick(&picker, Qt::Key_Down);
    EXPECT_EQ(picker.paletteCursor(), QPoint(2, 1));
    const QString entry = ColorPickerPopover::palette()[1][2];
    EXPECT_EQ(picker.accessibleDescription(), QLatin1Char('#') + entry.toUpper())
        << "the entry reached is said";
    QTest::keyClick(&picker, Qt::Key_Return);
    EXPECT_EQ(bound.color.name().toUpper(), QLatin1Char('#') + entry.toUpper());
    EXPECT_EQ(bound.color.alpha(), 255);
    // The cursor stops at the palette's edges.
    for (int i = 0; i < 20; ++i)
        QTest::keyClick(&picker, Qt::Key_Down);
    EXPECT_EQ(picker.paletteCursor(), QPoint(2, 4));

    QTest::keyClick(&picker, Qt::Key_Tab);
    EXPECT_TRUE(qobject_cast<QLineEdit*>(picker.focusWidget())) << "then the hex field has its turn";
    EXPECT_EQ(picker.toolTipAt(QPointF(ColorPickerPopover::kEdge + 5, ColorPickerPopover::kEdge + 5)),
              QString())
        << "the pad has no tooltip";
}
