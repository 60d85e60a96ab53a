// The window at the sizes and fonts people use: nothing overlaps, nothing is cut, and what is saved
// is what is shown.
#include "TestSupport.h"

#include "ui/ColorPickerPopover.h"
#include "ui/ContentView.h"
#include "ui/CropEditorSheet.h"
#include "ui/ImagePreview.h"
#include "ui/MainWindow.h"
#include "ui/QueueDrawer.h"
#include "ui/SettingsSidebar.h"
#include "ui/Widgets.h"

#include <QAbstractButton>
#include <QApplication>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QScrollArea>
#include <QScrollBar>
#include <QTest>

#include <gtest/gtest.h>

using namespace cutlark;
using namespace cutlark::test;

namespace {

/// Sets the application's font for the life of the object.
struct ScopedFont {
    explicit ScopedFont(double points) : m_saved(QApplication::font()) {
        QFont f = m_saved;
        f.setPointSizeF(points);
        QApplication::setFont(f);
    }
    ~ScopedFont() { QApplication::setFont(m_saved); }
    QFont m_saved;
};

QRect within(const QWidget* w, const QWidget* ancestor) {
    return QRect(w->mapTo(ancestor, QPoint(0, 0)), w->size());
}

/// What is cut or squeezed among the visible widgets under `root`: a widget reaching past its
/// parent's right edge, or a label, button or checkbox narrower than it can be drawn whole. Widgets
/// that cut their own text on purpose (the eliding labels and checkboxes) only have to fit.
QStringList cutWidgets(QWidget* root) {
    QStringList out;
    for (QWidget* w : root->findChildren<QWidget*>()) {
        if (!w->isVisibleTo(root) || qobject_cast<QScrollBar*>(w) || !w->parentWidget()) continue;
        if (w->parentWidget()->inherits("QScrollArea") ||
            w->parentWidget()->objectName() == "qt_scrollarea_viewport")
            continue;
        const QString what = QStringLiteral("%1 “%2”").arg(
            QString::fromLatin1(w->metaObject()->className()),
            w->objectName().isEmpty() ? w->property("text").toString() : w->objectName());
        if (w->geometry().right() > w->parentWidget()->width() - 1 + 1 || w->x() < 0)
            out << what + QStringLiteral(" runs past its parent");
        const bool texty = qobject_cast<QLabel*>(w) || qobject_cast<QAbstractButton*>(w);
        if (texty && w->width() + 1 < w->minimumSizeHint().width())
            out << what + QStringLiteral(" is squeezed");
    }
    return out;
}

// Nested layouts pass a change up one level per round of posted events; on a slow machine the last
// step of an animation can leave a few rounds pending. Runs them all, so what is checked is the
// arrangement the window settles in.
void settleLayouts() {
    for (int round = 0; round < 16; ++round) {
        QApplication::sendPostedEvents(nullptr, QEvent::LayoutRequest);
        QApplication::processEvents();
    }
}

} // namespace

TEST(WindowLayout, NothingOverlapsOrIsCutAtTheSizesAndFontsPeopleUse) {
    QTemporaryDir dir;
    // A long name, so that the header has something to cut.
    const QStringList paths = {savePng(dir, QStringLiteral("a-rather-long-product-photo-name-2026-final.png"),
                                       coordinates(700, 520)),
                               savePng(dir, QStringLiteral("b.png"), coordinates(640, 480))};
    for (const double points : {10.0, 12.0, 14.0}) {
        ScopedFont font(points);
        for (const int width : {660, 683, 720, 1366}) {
            SCOPED_TRACE(QStringLiteral("%1 pt, %2 px").arg(points).arg(width).toStdString());
            MainWindow window;
            window.resize(width, 768);
            window.show();
            ContentView* view = window.content();
            view->model().open(paths);
            // The queue column slides in; the header must be right at every step, and at the end.
            QueueDrawer* queue = view->queueDrawer();
            ASSERT_TRUE(waitUntil([&] { return queue->width() == queue->fullWidth(); }, 5000));
            settleLayouts();

            // The sidebar grows with the font; the queue too while the picture keeps 320 pixels,
            // else it gives back what the sidebar took (down to 150).
            SettingsSidebar* sidebar = view->sidebar();
            EXPECT_LE(within(sidebar, &window).right(), window.width() - 1) << "the sidebar is cut";
            EXPECT_EQ(sidebar->width(), int(252 * points / 10));
            EXPECT_GE(queue->width(), 150);
            const int picture = view->width() - sidebar->width() - queue->width();
            EXPECT_TRUE(picture >= 320 || picture >= view->width() - 252 - 208 - 1 || queue->width() == 150)
                << picture;
            if (width == 1366) {
                EXPECT_EQ(queue->width(), int(208 * points / 10)) << "all the growth the font asks";
                // Then no section title, no queue name is cut.
                for (ElidedLabel* title : sidebar->findChildren<ElidedLabel*>()) {
                    if (title->isVisible()) {
                        EXPECT_FALSE(title->isElided()) << title->text().toStdString();
                    }
                }
            }
            const QStringList cut = cutWidgets(sidebar);
            EXPECT_TRUE(cut.isEmpty()) << cut.join(QStringLiteral("; ")).toStdString();

            // The header: the name, the badge and the sizes never overlap, and the sizes are whole.
            QWidget* header = view->header();
            auto* name = header->findChildren<ElidedLabel*>().value(0);
            QList<QLabel*> labels;
            for (QLabel* l : header->findChildren<QLabel*>())
                if (l != name && l->isVisible()) labels << l;
            ASSERT_TRUE(name);
            ASSERT_EQ(labels.size(), 2) << "the badge and the sizes";
            QLabel* badge = labels[0]->text().contains(QStringLiteral(" of ")) ? labels[0] : labels[1];
            QLabel* dims = badge == labels[0] ? labels[1] : labels[0];
            EXPECT_FALSE(name->geometry().intersects(badge->geometry()));
            EXPECT_FALSE(name->geometry().intersects(dims->geometry()));
            EXPECT_FALSE(badge->geometry().intersects(dims->geometry()));
            EXPECT_GE(badge->width(), badge->sizeHint().width()) << "the badge is never squeezed";
            if (view->headerIsOneRow())
                EXPECT_GE(dims->width(), dims->sizeHint().width());
            else
                EXPECT_GE(dims->height(), dims->heightForWidth(dims->width())) << "wrapped sizes shown whole";
            EXPECT_LE(within(dims, header).bottom(), header->height() - 1);
            EXPECT_LE(within(dims, header).right(), header->width() - 1);
            EXPECT_TRUE(name->isElided() ||
                        name->width() >= name->fontMetrics().horizontalAdvance(name->text()));
            if (width == 1366) {
                EXPECT_TRUE(view->headerIsOneRow());
            }
            if (width == 660) {
                EXPECT_FALSE(view->headerIsOneRow());
                // The name over the sizes, and no third line: the sizes never wrap.
                EXPECT_LT(dims->heightForWidth(dims->width()), 2 * dims->fontMetrics().lineSpacing());
            }
        }
    }
}

TEST(WindowLayout, TheHeaderChoosesItsArrangementWhenTheQueueSlidesIn) {
    QTemporaryDir dir;
    MainWindow window;
    window.resize(720, 540);
    window.show();
    ContentView* view = window.content();
    view->model().open({savePng(dir, QStringLiteral("one.png"), coordinates(451, 300))});
    ASSERT_TRUE(view->headerIsOneRow());
    // A second image brings the queue column, which takes 208 of the header's width as it slides.
    view->model().open({savePng(dir, QStringLiteral("two.png"), coordinates(451, 300))});
    ASSERT_TRUE(waitUntil([&] { return view->queueDrawer()->width() == 208; }, 5000));
    QApplication::processEvents();
    const int oneRowNeeds = 16 + 110 + 8 + 60 + 12 + 16; // at the least, before the sizes
    if (view->header()->width() < oneRowNeeds) {
        EXPECT_FALSE(view->headerIsOneRow());
    }
    for (QLabel* l : view->header()->findChildren<QLabel*>()) {
        if (l->isVisible() && !qobject_cast<ElidedLabel*>(l)) {
            EXPECT_LE(within(l, view->header()).right(), view->header()->width() - 1)
                << l->text().toStdString();
        }
    }
}

TEST(WindowLayout, CtrlSSavesTheSizeJustTypedWithoutReturn) {
    QTemporaryDir dir;
    MainWindow window;
    window.resize(900, 700);
    window.show();
    QApplication::setActiveWindow(&window);
    CropModel& model = window.content()->model();
    const QString path = savePng(dir, QStringLiteral("photo.png"), coordinates(100, 50));
    model.open({path});
    model.setResizeEnabled(true);
    QLineEdit* width = nullptr;
    for (QLineEdit* e : window.findChildren<QLineEdit*>(QStringLiteral("pixelField")))
        if (!width) width = e; // the first is the width
    ASSERT_TRUE(width);
    width->setFocus();
    width->selectAll();
    QTest::keyClicks(width, QStringLiteral("200"));
    EXPECT_EQ(model.resizeWidth(), 100) << "nothing is written while typing";
    QTest::keyClick(&window, Qt::Key_S, Qt::ControlModifier);
    waitUntil([&] { return !model.savingMessage(); });
    EXPECT_EQ(model.saveConfirmation(), QStringLiteral("photo.png"));
    const auto saved = ImageFile::load(path);
    ASSERT_TRUE(saved);
    EXPECT_EQ(saved->image.size(), QSize(200, 100)) << "what was shown was saved";
    EXPECT_EQ(width->text(), QStringLiteral("200"));
}

TEST(WindowLayout, BadgeHandlesAndThumbsAreDrawnWhole) {
    QTemporaryDir dir;
    MainWindow window;
    window.resize(720, 540);
    window.show();
    ContentView* view = window.content();
    // A tall picture fills the preview's height, its top edge at the top of the picture area.
    view->model().open({savePng(dir, QStringLiteral("tall.png"), coordinates(100, 250))});
    ASSERT_TRUE(waitUntil([&] { return view->preview()->revealProgress() == 1.0; }, 5000));
    const QRectF badge = view->preview()->badgeRect();
    ASSERT_FALSE(badge.isEmpty());
    EXPECT_TRUE(QRectF(view->preview()->rect()).contains(badge)) << "the size badge is whole";

    // Handles on the picture's edges, the selected one with its glow.
    CropEditorOverlay overlay(coordinates(300, 200));
    overlay.resize(700, 480);
    overlay.setCrop(QRectF(0, 0, 1, 1));
    const QRectF crop = overlay.cropRect();
    const QRectF room = QRectF(overlay.rect());
    for (const QPointF corner : {crop.topLeft(), crop.topRight(), crop.bottomLeft(), crop.bottomRight()})
        EXPECT_TRUE(room.contains(QRectF(corner - QPointF(11, 11), QSizeF(22, 22))));

    // The picker's thumbs at the ends of the pad and the strips.
    QColor colour = Qt::black;
    ColorPickerPopover picker([&] { return colour; }, [&](const QColor& c) { colour = c; }, {});
    for (double at : {0.0, 1.0}) {
        picker.dragPad(at * ColorPickerPopover::kWidth, at * 200);
        picker.dragHue(at * ColorPickerPopover::kWidth);
        picker.dragAlpha(at * ColorPickerPopover::kWidth);
        for (const QRectF& thumb : picker.thumbRects())
            EXPECT_TRUE(QRectF(picker.rect()).contains(thumb)) << at;
    }
}

TEST(WindowLayout, QueueRowsCutNamesInTheMiddleAndMarkSavedOnesWithACheck) {
    QTemporaryDir dir;
    MainWindow window;
    window.resize(720, 540);
    window.show();
    CropModel& model = window.content()->model();
    const QString longName = QStringLiteral("summer-catalogue-2026-product-shot-number-0042-retouched.png");
    model.open({savePng(dir, longName, coordinates(20, 20)),
                savePng(dir, QStringLiteral("b.png"), coordinates(20, 20))});
    QueueDrawer* queue = window.content()->queueDrawer();
    ASSERT_TRUE(waitUntil([&] { return queue->width() == 208; }, 5000));
    QApplication::processEvents();
    // In name order "b.png" comes first.
    ASSERT_EQ(queue->list()->item(1)->text(), longName);
    const QString shown = queue->shownName(1);
    EXPECT_TRUE(shown.contains(QStringLiteral("…"))) << shown.toStdString();
    EXPECT_TRUE(shown.endsWith(QStringLiteral(".png"))) << "the extension stays readable";
    EXPECT_TRUE(shown.startsWith(QStringLiteral("summer"))) << "cut in the middle";
    EXPECT_FALSE(queue->list()->horizontalScrollBar()->isVisible()) << "no sideways scrolling";
    EXPECT_EQ(queue->shownName(0), QStringLiteral("b.png"));
    EXPECT_FALSE(queue->showsSavedMark(1));
    model.select(model.items()[1].id);
    saveAndWait(model);
    EXPECT_TRUE(queue->showsSavedMark(1));
    EXPECT_FALSE(queue->showsSavedMark(0));
    EXPECT_EQ(queue->list()->item(1)->text(), longName) << "the mark is drawn, not appended to the name";
    bool saysDelete = false;
    for (QAbstractButton* b : queue->findChildren<QAbstractButton*>())
        saysDelete |= b->toolTip() == QStringLiteral("Remove the selected image (Delete)");
    EXPECT_TRUE(saysDelete);
}

TEST(WindowLayout, MenusHoldTheCommandsWithTheirKeysAndStates) {
    QTemporaryDir dir;
    MainWindow window;
    window.show();
    CropModel& model = window.content()->model();
    QAction* save = window.command(QStringLiteral("Save Over Original"));
    QAction* saveAs = window.command(QStringLiteral("Save as New…"));
    QAction* exportSvg = window.command(QStringLiteral("Export SVG…"));
    QAction* copySvg = window.command(QStringLiteral("Copy SVG"));
    QAction* split = window.command(QStringLiteral("Split into Files…"));
    ASSERT_TRUE(save && saveAs && exportSvg && copySvg && split);
    EXPECT_EQ(save->shortcut(), QKeySequence(QKeySequence::Save));
    EXPECT_EQ(exportSvg->shortcut(), QKeySequence(QKeySequence::Save));
    EXPECT_FALSE(save->isEnabled()) << "nothing to save yet";

    model.open({savePng(dir, QStringLiteral("a.png"), coordinates(40, 30))});
    EXPECT_TRUE(save->isEnabled());
    EXPECT_TRUE(saveAs->isEnabled());
    EXPECT_FALSE(exportSvg->isEnabled());
    EXPECT_FALSE(split->isEnabled());
    model.setVectorizeEnabled(true);
    EXPECT_FALSE(save->isEnabled()) << "Ctrl+S moves to the export";
    ASSERT_TRUE(waitUntil([&] { return !model.isVectorizing(); }));
    EXPECT_EQ(exportSvg->isEnabled(), model.hasVectorOutput());
    EXPECT_EQ(copySvg->isEnabled(), model.hasVectorOutput());

    QImage sheet = solid(200, 100, Qt::white);
    for (int y = 10; y < 90; ++y)
        for (int x = 10; x < 90; ++x)
            sheet.setPixelColor(x, y, Qt::black), sheet.setPixelColor(x + 100, y, Qt::black);
    model.setVectorizeEnabled(false);
    model.open({savePng(dir, QStringLiteral("pair.png"), sheet)});
    EXPECT_TRUE(split->isEnabled());
}

TEST(WindowLayout, ALockedAspectShowsTheLinkedSizeInTheFieldTabMovesTo) {
    QTemporaryDir dir;
    MainWindow window;
    window.resize(900, 700);
    window.show();
    QApplication::setActiveWindow(&window);
    CropModel& model = window.content()->model();
    model.open({savePng(dir, QStringLiteral("photo.png"), coordinates(400, 300))});
    model.setResizeEnabled(true);
    ASSERT_TRUE(model.resizeLockAspect());
    const QList<QLineEdit*> fields = window.findChildren<QLineEdit*>(QStringLiteral("pixelField"));
    ASSERT_EQ(fields.size(), 2);
    QLineEdit* width = fields[0];
    QLineEdit* height = fields[1];
    width->setFocus();
    width->selectAll();
    QTest::keyClicks(width, QStringLiteral("120"));
    QTest::keyClick(width, Qt::Key_Tab);
    ASSERT_TRUE(height->hasFocus());
    EXPECT_EQ(model.resizeWidth(), 120);
    EXPECT_EQ(model.resizeHeight(), 90);
    EXPECT_EQ(height->text(), QStringLiteral("90")) << "the field Tab moved to shows the linked height";
    // Return on the height as it stands writes nothing back: the size stays the one typed.
    QTest::keyClick(height, Qt::Key_Return);
    EXPECT_EQ(model.resizeWidth(), 120);
    EXPECT_EQ(model.resizeHeight(), 90);
    EXPECT_EQ(width->text(), QStringLiteral("120"));
    // Typing there still counts, and the width follows.
    height->selectAll();
    QTest::keyClicks(height, QStringLiteral("150"));
    QTest::keyClick(height, Qt::Key_Return);
    EXPECT_EQ(model.resizeHeight(), 150);
    EXPECT_EQ(model.resizeWidth(), 200);
    EXPECT_EQ(height->text(), QStringLiteral("150"));
    EXPECT_EQ(width->text(), QStringLiteral("200"));
}
