// What assistive technology and the keyboard meet in the window: names, the order Tab takes, and
// text that reads on the window's colour.
#include "TestSupport.h"

#include "ui/ContentView.h"
#include "ui/MainWindow.h"
#include "ui/Widgets.h"

#include <QAccessible>
#include <QApplication>
#include <QLineEdit>
#include <QSlider>
#include <QTest>

#include <gtest/gtest.h>

using namespace cutlark;
using namespace cutlark::test;

namespace {

QString spoken(QWidget* w) {
    QAccessibleInterface* face = QAccessible::queryAccessibleInterface(w);
    return face ? face->text(QAccessible::Name) : QString();
}

// Every section on, so that every control exists and shows.
void everySectionOn(CropModel& model);

void showWithEverySectionOn(MainWindow& window, const QTemporaryDir& dir) {
    window.resize(1100, 800);
    window.show();
    CropModel& model = window.content()->model();
    model.open({savePng(dir, QStringLiteral("photo.png"), coordinates(120, 80))});
    everySectionOn(model);
    QApplication::processEvents();
}

void everySectionOn(CropModel& model) {
    model.setTrimEnabled(true);
    model.setKeyWhiteEnabled(true);
    model.setStickerEnabled(true);
    model.setPaddingEnabled(true);
    model.setBackgroundEnabled(true);
    model.setBackgroundKind(BackgroundKind::gradient);
    model.setResizeEnabled(true);
}

} // namespace

TEST(Accessibility, EverySliderAndPixelFieldHasAName) {
    QTemporaryDir dir;
    MainWindow window;
    showWithEverySectionOn(window, dir);
    const QList<QSlider*> sliders = window.findChildren<QSlider*>();
    EXPECT_GE(sliders.size(), 12);
    QStringList names;
    for (QSlider* s : sliders) {
        EXPECT_FALSE(spoken(s).isEmpty()) << s->objectName().toStdString();
        names << spoken(s);
    }
    EXPECT_TRUE(names.contains(QStringLiteral("Padding on every side")));
    EXPECT_TRUE(names.contains(QStringLiteral("Width of the sticker outline")));
    const QList<QLineEdit*> fields = window.findChildren<QLineEdit*>(QStringLiteral("pixelField"));
    ASSERT_EQ(fields.size(), 2);
    EXPECT_EQ(spoken(fields[0]), QStringLiteral("Width of the result"));
    EXPECT_EQ(spoken(fields[1]), QStringLiteral("Height of the result"));
}

TEST(Accessibility, TabReachesEachSectionsSwitchBeforeItsControls) {
    QTemporaryDir dir;
    MainWindow window;
    showWithEverySectionOn(window, dir);
    // The order Tab takes, from the window's first widget round to it again.
    QList<QWidget*> order;
    QWidget* w = &window;
    do {
        if (w->focusPolicy() & Qt::TabFocus) order << w;
        w = w->nextInFocusChain();
    } while (w && w != &window && order.size() < 2000);
    int sections = 0;
    for (ToggleSwitch* toggle : window.findChildren<ToggleSwitch*>()) {
        // The switch sits in its section's title row; the section holds the row and the controls.
        QWidget* section = toggle->parentWidget() ? toggle->parentWidget()->parentWidget() : nullptr;
        ASSERT_TRUE(section);
        const qsizetype at = order.indexOf(toggle);
        ASSERT_GE(at, 0) << toggle->objectName().toStdString();
        for (QWidget* control : section->findChildren<QWidget*>()) {
            if (control == toggle || !(control->focusPolicy() & Qt::TabFocus)) continue;
            EXPECT_GT(order.indexOf(control), at) << toggle->objectName().toStdString() << " comes after "
                                                  << control->objectName().toStdString();
        }
        ++sections;
    }
    EXPECT_GE(sections, 8);
}

TEST(Accessibility, AccentTextReadsOnLightAndDarkWindows) {
    EXPECT_NEAR(contrastRatio(Qt::black, Qt::white), 21.0, 1e-9);
    EXPECT_NEAR(contrastRatio(Qt::white, Qt::white), 1.0, 1e-9);
    // A dark scheme with a mid blue highlight: about 2.4:1 as it is.
    QPalette dark;
    dark.setColor(QPalette::Window, QColor(0x35, 0x35, 0x35));
    dark.setColor(QPalette::Highlight, QColor(0x2a, 0x5d, 0xb0));
    ASSERT_LT(contrastRatio(dark.color(QPalette::Highlight), dark.color(QPalette::Window)), 3.0);
    const QColor onDark = readableAccent(dark);
    EXPECT_GE(contrastRatio(onDark, dark.color(QPalette::Window)), 4.5);
    EXPECT_NEAR(onDark.hslHueF(), dark.color(QPalette::Highlight).hslHueF(), 0.01) << "the same hue";
    EXPECT_GT(onDark.lightnessF(), dark.color(QPalette::Highlight).lightnessF());
    // A light scheme with a pale highlight is darkened instead.
    QPalette light;
    light.setColor(QPalette::Window, QColor(0xf5, 0xf5, 0xf5));
    light.setColor(QPalette::Highlight, QColor(0x7a, 0xb8, 0xff));
    const QColor onLight = readableAccent(light);
    EXPECT_GE(contrastRatio(onLight, light.color(QPalette::Window)), 4.5);
    EXPECT_LT(onLight.lightnessF(), light.color(QPalette::Highlight).lightnessF());
    // One that reads already is left as it is.
    QPalette fine;
    fine.setColor(QPalette::Window, Qt::white);
    fine.setColor(QPalette::Highlight, QColor(0x00, 0x4a, 0xad));
    EXPECT_EQ(readableAccent(fine), QColor(0x00, 0x4a, 0xad));
}
