#include "TestSupport.h"

#include "engines/VisionEngine.h"

#include "support/PrivateDir.h"
#include "ui/ContentView.h"
#include "ui/FileOpenInbox.h"
#include "ui/ImagePreview.h"
#include "ui/MainWindow.h"
#include "ui/QtPanels.h"
#include "ui/QueueDrawer.h"
#include "ui/SettingsSidebar.h"

#include <QAbstractButton>
#include <QApplication>
#include <QCheckBox>
#include <QDir>
#include <QFileInfo>
#include <QListWidget>
#include <QMenuBar>
#include <QMimeData>
#include <QProgressDialog>
#include <QPushButton>
#include <QSlider>
#include <QStackedWidget>
#include <QTest>
#include <QTimer>

#include <gtest/gtest.h>

using namespace cutlark;
using namespace cutlark::test;

namespace {

class WindowTest : public ::testing::Test {
protected:
    void SetUp() override {
        window.resize(720, 540);
        window.show();
        QApplication::setActiveWindow(&window);
        view = window.content();
        model = &view->model();
        model->setPanels(&panels);
    }
    QStringList images(int n) {
        QStringList paths;
        for (int i = 0; i < n; ++i)
            paths << savePng(m_dir, QStringLiteral("img%1.png").arg(i + 1), coordinates(60 + i, 40));
        return paths;
    }
    bool visible(QWidget* w) const { return w && w->isVisibleTo(&window); }

    QTemporaryDir m_dir;
    ScriptedPanels panels;
    MainWindow window;
    ContentView* view = nullptr;
    CropModel* model = nullptr;
};

} // namespace

TEST_F(WindowTest, RegionsFollowTheQueue) {
    // Empty: the drop zone, no queue column, no header; buttons present and disabled.
    EXPECT_FALSE(visible(view->queueDrawer()));
    EXPECT_EQ(view->findChild<QStackedWidget*>()->currentIndex(), 0);
    EXPECT_TRUE(view->nameText().isEmpty());
    EXPECT_TRUE(visible(view->sidebar()->primaryButton()));
    EXPECT_FALSE(view->sidebar()->primaryButton()->isEnabled());
    EXPECT_EQ(view->sidebar()->primaryButton()->text(), QStringLiteral("Save Over Original"));

    model->open(images(1));
    EXPECT_FALSE(visible(view->queueDrawer())) << "one image: no queue column";
    EXPECT_EQ(view->findChild<QStackedWidget*>()->currentIndex(), 1);
    EXPECT_EQ(view->nameText(), QStringLiteral("img1.png"));
    EXPECT_EQ(view->dimsText(), QStringLiteral("60×40 → 60×40"));
    EXPECT_TRUE(view->sidebar()->primaryButton()->isEnabled());

    model->open(images(2));
    EXPECT_TRUE(visible(view->queueDrawer()));
    EXPECT_EQ(view->queueDrawer()->countText(), QStringLiteral("0/3"));
    EXPECT_EQ(view->queueDrawer()->list()->count(), 3);

    // Removing down to one takes the drawer away again.
    model->remove(model->items()[0].id);
    model->remove(model->items()[0].id);
    EXPECT_TRUE(visible(view->queueDrawer())) << "it slides out over 0.18 s";
    EXPECT_TRUE(waitUntil([&] { return !visible(view->queueDrawer()); }, 5000));
}

TEST_F(WindowTest, StatusRowFirstMatchWins) {
    model->open(images(2));
    EXPECT_EQ(SettingsSidebar::statusText(*model), QString());
    bool warning = false;
    model->open({m_dir.filePath(QStringLiteral("missing.png"))});
    EXPECT_EQ(SettingsSidebar::statusText(*model, &warning), QStringLiteral("1 file couldn’t be opened."));
    EXPECT_TRUE(warning);
    model->select(model->items()[1].id);
    saveAndWait(*model);
    EXPECT_EQ(SettingsSidebar::statusText(*model), QStringLiteral("Saved img2.png — next image ready."));
    saveAndWait(*model);
    EXPECT_EQ(SettingsSidebar::statusText(*model), QStringLiteral("All 2 images saved."))
        << "before the saved lines";
    model->open({m_dir.filePath(QStringLiteral("missing.png"))});
    EXPECT_EQ(SettingsSidebar::statusText(*model), QStringLiteral("1 file couldn’t be opened."))
        << "an error comes first";
    model->select(model->items()[1].id); // switching clears the error
    EXPECT_EQ(SettingsSidebar::statusText(*model), QStringLiteral("All 2 images saved."));

    CropModel single;
    single.open({images(1).first()});
    saveAndWait(single);
    EXPECT_EQ(SettingsSidebar::statusText(single), QStringLiteral("All 1 images saved."));
}

TEST_F(WindowTest, CtrlSFollowsTheVectorizeSwitch) {
    model->open(images(1));
    QTest::keyClick(&window, Qt::Key_S, Qt::ControlModifier);
    waitUntil([&] { return !model->savingMessage(); });
    EXPECT_EQ(model->saveConfirmation(), QStringLiteral("img1.png")) << "Ctrl+S saved over the original";
    model->setVectorizeEnabled(true);
    EXPECT_EQ(view->sidebar()->primaryButton()->text(), QStringLiteral("Export SVG"));
    EXPECT_FALSE(view->sidebar()->primaryButton()->isEnabled()) << "nothing traced yet";
}

TEST_F(WindowTest, DeleteRemovesTheActiveImageFromAnywhere) {
    model->open(images(3));
    const QUuid first = *model->activeID();
    QTest::keyClick(&window, Qt::Key_Delete);
    EXPECT_EQ(model->items().size(), 2u);
    EXPECT_NE(model->activeID(), first);
}

TEST_F(WindowTest, ThumbnailsAreDrawnOnceAndFollowTheSource) {
    model->open(images(3));
    QListWidget* list = view->queueDrawer()->list();
    const auto keys = [&] {
        QList<qint64> out;
        for (int i = 0; i < list->count(); ++i)
            out << list->item(i)->icon().cacheKey();
        return out;
    };
    const QList<qint64> before = keys();
    model->setMirrored(true);
    saveAndWait(*model); // the first item's source is now the mirrored picture
    const QList<qint64> after = keys();
    ASSERT_EQ(after.size(), 3);
    EXPECT_NE(after[0], before[0]) << "a new source, a new thumbnail";
    EXPECT_EQ(after[1], before[1]) << "the others aren't drawn again";
    EXPECT_EQ(after[2], before[2]);
    model->remove(model->items()[1].id);
    EXPECT_EQ(keys(), (QList<qint64>{after[0], after[2]}));
}

TEST_F(WindowTest, TheDrawerSelectionIsTheActiveItem) {
    model->open(images(3));
    QListWidget* list = view->queueDrawer()->list();
    EXPECT_EQ(list->currentRow(), 0);
    list->setCurrentRow(2);
    EXPECT_EQ(model->activeID(), model->items()[2].id);
    model->select(model->items()[1].id);
    EXPECT_EQ(list->currentRow(), 1);
    model->select(model->items()[0].id);
    saveAndWait(*model);
    EXPECT_EQ(view->queueDrawer()->countText(), QStringLiteral("1/3"));
    EXPECT_EQ(list->currentRow(), 1) << "the next unsaved image comes into the list's selection";
}

TEST_F(WindowTest, HeaderGoesToTwoLinesWhenNarrow) {
    model->open(images(2));
    window.resize(1400, 540);
    // The queue column slides in first; the header follows its own width.
    EXPECT_TRUE(waitUntil([&] { return view->headerIsOneRow(); }, 5000));
    window.resize(660, 540);
    EXPECT_TRUE(waitUntil([&] { return !view->headerIsOneRow(); }, 5000));
}

TEST_F(WindowTest, PreviewFitsAndRevealsOnlyOnAnotherImage) {
    EXPECT_EQ(ImagePreview::fittedRect(100, 50, QSizeF(200, 200)), QRectF(0, 50, 200, 100));
    EXPECT_EQ(ImagePreview::fittedRect(1, 1, QSizeF(300, 100)), QRectF(100, 0, 100, 100)) << "enlarged";
    EXPECT_EQ(ImagePreview::fittedRect(100, 50, QSizeF(0, 200)), QRectF());
    EXPECT_EQ(ImagePreview::fittedRect(0, 50, QSizeF(10, 200)), QRectF());

    model->open(images(2));
    const QString key = model->revealKey();
    EXPECT_TRUE(key.endsWith(QStringLiteral("#60x40")));
    model->setThreshold(10);
    model->setQuarterTurns(1);
    EXPECT_EQ(model->revealKey(), key) << "no setting changes it";
    model->select(model->items()[1].id);
    EXPECT_NE(model->revealKey(), key);
    EXPECT_FALSE(view->preview()->revealed()) << "the new picture starts out small and clear";
    EXPECT_TRUE(waitUntil([&] { return view->preview()->revealProgress() == 1.0; }, 5000))
        << "the reveal ends at 1";
    EXPECT_TRUE(view->preview()->revealed());
}

TEST_F(WindowTest, DropsOfFilesAndOfImageData) {
    const QStringList paths = images(2);
    QMimeData files;
    files.setUrls({QUrl::fromLocalFile(paths[0]), QUrl::fromLocalFile(paths[1])});
    QDragEnterEvent enter(QPoint(10, 10), Qt::CopyAction, &files, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(view, &enter);
    EXPECT_TRUE(view->isTargeted());
    QDropEvent drop(QPointF(10, 10), Qt::CopyAction, &files, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(view, &drop);
    EXPECT_FALSE(view->isTargeted());
    EXPECT_EQ(model->items().size(), 2u);

    QMimeData picture;
    picture.setImageData(coordinates(30, 20));
    QDragEnterEvent enterAgain(QPoint(10, 10), Qt::CopyAction, &picture, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(view, &enterAgain); // every drop comes after its drag enters
    QDropEvent imageDrop(QPointF(10, 10), Qt::CopyAction, &picture, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(view, &imageDrop);
    ASSERT_EQ(model->items().size(), 3u)
        << model->errorMessage().value_or(QString()).toStdString() << " image " << picture.hasImage();
    EXPECT_TRUE(model->items().back().path.contains(QStringLiteral("/CutlarkDrops-")));
    EXPECT_EQ(model->items().back().buffer.width(), 30);

    QMimeData nothing;
    nothing.setText(QStringLiteral("hello"));
    QDragEnterEvent enterText(QPoint(10, 10), Qt::CopyAction, &nothing, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(view, &enterText);
    EXPECT_TRUE(view->isTargeted()) << "any drag lights the target up";
    QDropEvent textDrop(QPointF(10, 10), Qt::CopyAction, &nothing, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(view, &textDrop);
    EXPECT_EQ(model->items().size(), 3u);
}

TEST_F(WindowTest, LongOpensShowProgressThatCanCancel) {
    QtPanels dialogs(&window);
    model->setPanels(&dialogs);
    const QStringList first = images(1);
    model->open(first);
    ASSERT_EQ(model->items().size(), 1u);
    EXPECT_EQ(window.findChild<QProgressDialog*>(), nullptr) << "a quick open shows nothing";

    // Shown at once (as a long open would be), then cancelled by a click while the files decode.
    dialogs.setProgressDelay(0);
    QString label;
    bool modal = false;
    QTimer::singleShot(0, &window, [&] {
        auto* dialog = window.findChild<QProgressDialog*>();
        ASSERT_NE(dialog, nullptr);
        label = dialog->labelText();
        modal = dialog->isVisible() && dialog->windowModality() == Qt::WindowModal;
        auto* cancel = dialog->findChild<QPushButton*>();
        ASSERT_NE(cancel, nullptr);
        QTest::mouseClick(cancel, Qt::LeftButton);
    });
    QStringList more;
    for (int i = 0; i < 3; ++i)
        more << savePng(m_dir, QStringLiteral("more%1.png").arg(i), coordinates(50, 40));
    model->open(more);
    EXPECT_EQ(label, QStringLiteral("Opening 3 images…"));
    EXPECT_TRUE(modal);
    EXPECT_EQ(model->items().size(), 1u) << "a cancelled open adds nothing";
    EXPECT_FALSE(model->errorMessage());
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    EXPECT_EQ(window.findChild<QProgressDialog*>(), nullptr) << "the dialog goes when the open ends";

    // Not cancelled: everything opens and the dialog goes away.
    model->open(more);
    EXPECT_EQ(model->items().size(), 4u);
    EXPECT_EQ(window.findChild<QProgressDialog*>(), nullptr);
}

TEST(Inbox, FilesWaitForTheWindowAndLaterOnesOpenAtOnce) {
    QTemporaryDir dir;
    const QString a = savePng(dir, QStringLiteral("a.png"), coordinates(10, 10));
    const QString b = savePng(dir, QStringLiteral("b.png"), coordinates(10, 10));
    const QString c = savePng(dir, QStringLiteral("c.png"), coordinates(10, 10));
    FileOpenInbox::instance().deliver({c});
    FileOpenInbox::instance().deliver({b, a}); // replaces the first delivery
    MainWindow window;
    EXPECT_TRUE(window.content()->model().items().empty()) << "nothing before the window appears";
    window.show();
    EXPECT_TRUE(window.content()->model().items().empty()) << "the window is up before anything decodes";
    QTest::qWait(0);
    QCoreApplication::processEvents();
    ASSERT_EQ(window.content()->model().items().size(), 2u);
    EXPECT_TRUE(window.content()->model().items()[0].path.endsWith(QStringLiteral("a.png")))
        << "in name order";
    EXPECT_TRUE(FileOpenInbox::instance().pending().isEmpty());

    FileOpenInbox::instance().deliver({c});
    EXPECT_EQ(window.content()->model().items().size(), 3u);
    EXPECT_TRUE(FileOpenInbox::instance().pending().isEmpty());

    window.content()->model().open({dir.filePath(QStringLiteral("missing.png"))});
    FileOpenInbox::instance().deliver({});
    EXPECT_TRUE(window.content()->model().errorMessage())
        << "an empty delivery opens nothing, the texts stay";
}

TEST_F(WindowTest, SectionsFollowTheirSwitchesAndModes) {
    model->open(images(1));
    // Vectorize off: save buttons; on: the export pair, and the status line says it is tracing.
    model->setVectorizeEnabled(true);
    EXPECT_EQ(view->sidebar()->secondaryButton()->text(), QStringLiteral("Copy SVG"));
    EXPECT_TRUE(model->isVectorizing());
    model->setVectorizeEnabled(false);
    EXPECT_EQ(view->sidebar()->secondaryButton()->text(), QStringLiteral("Save as New…"));

    // The collage callout comes with two pictures on one sheet.
    QImage sheet = solid(200, 100, Qt::white);
    for (int y = 10; y < 90; ++y)
        for (int x = 10; x < 90; ++x)
            sheet.setPixelColor(x, y, Qt::black), sheet.setPixelColor(x + 100, y, Qt::black);
    model->open({savePng(m_dir, QStringLiteral("pair.png"), sheet)});
    QWidget* callout = view->findChild<QWidget*>(QStringLiteral("collageCallout"));
    ASSERT_NE(callout, nullptr);
    EXPECT_TRUE(waitUntil([&] { return visible(callout); }, 5000));
    QPushButton* split = nullptr;
    for (QPushButton* b : callout->findChildren<QPushButton*>())
        split = b;
    ASSERT_NE(split, nullptr);
    EXPECT_EQ(split->text(), QStringLiteral("Split into 2 files"));
    model->select(model->items()[0].id);
    EXPECT_TRUE(waitUntil([&] { return !visible(callout); }, 5000));
}

TEST(Drops, ImageDataLandsInAPrivateFolderThatGoesWithTheWindow) {
    QString folder;
    {
        MainWindow window;
        window.show();
        ContentView* view = window.content();
        QMimeData picture;
        picture.setImageData(coordinates(30, 20));
        QDragEnterEvent enter(QPoint(10, 10), Qt::CopyAction, &picture, Qt::LeftButton, Qt::NoModifier);
        QApplication::sendEvent(view, &enter);
        QDropEvent drop(QPointF(10, 10), Qt::CopyAction, &picture, Qt::LeftButton, Qt::NoModifier);
        QApplication::sendEvent(view, &drop);
        ASSERT_EQ(view->model().items().size(), 1u);
        const QString file = view->model().items().front().path;
        folder = QFileInfo(file).absolutePath();
        EXPECT_TRUE(PrivateDir::isPrivate(folder)) << qPrintable(folder);
        EXPECT_EQ(QFileInfo(file).permissions() & (QFileDevice::ReadOther | QFileDevice::ReadGroup), 0);
        EXPECT_EQ(QFileInfo(folder).absolutePath(), QDir(PrivateDir::base()).absolutePath());
    }
    EXPECT_FALSE(QFileInfo::exists(folder)) << "the window took its drops with it";
}

TEST_F(WindowTest, EverySliderSpansItsSettingsRangeFromTheTable) {
    model->open(images(1));
    QStringList seen;
    for (QSlider* slider : view->sidebar()->findChildren<QSlider*>()) {
        const QString name = slider->objectName();
        const SettingInfo* row = Settings::info(name);
        ASSERT_TRUE(row && row->isNumber()) << qPrintable(name);
        seen << name;
        slider->setValue(slider->minimum());
        EXPECT_DOUBLE_EQ(model->snapshotCurrentSettings().toJson().value(name).toDouble(), row->minimum)
            << qPrintable(name);
        slider->setValue(slider->maximum());
        EXPECT_DOUBLE_EQ(model->snapshotCurrentSettings().toJson().value(name).toDouble(), row->maximum)
            << qPrintable(name);
    }
    seen.sort();
    EXPECT_EQ(seen, (QStringList{"gradientAngle", "keyThreshold", "padAmount", "padBottom", "padLeft",
                                 "padRight", "padTop", "strokeWidth", "threshold", "vectorDenoise",
                                 "vectorStrokeWidth", "vectorTolerance"}));
}

TEST_F(WindowTest, TheCurveAndGapSwitchesWriteTheirSettingsAndFollowThem) {
    model->open(images(1));
    auto* curves = view->sidebar()->findChild<QCheckBox*>(QStringLiteral("vectorCurves"));
    auto* stacked = view->sidebar()->findChild<QCheckBox*>(QStringLiteral("vectorStacked"));
    ASSERT_TRUE(curves && stacked);
    EXPECT_EQ(curves->text(), QStringLiteral("Smooth curves"));
    EXPECT_EQ(stacked->text(), QStringLiteral("No gaps between colors"));
    curves->setChecked(true);
    EXPECT_TRUE(model->vectorCurves());
    model->setVectorStacked(true);
    EXPECT_TRUE(stacked->isChecked());
    // The gap switch belongs to full colour and shows only with it.
    model->setVectorizeEnabled(true);
    view->show();
    model->setVectorFullColor(false);
    EXPECT_TRUE(stacked->isHidden());
    model->setVectorFullColor(true);
    EXPECT_FALSE(stacked->isHidden());
    EXPECT_FALSE(curves->isHidden());
    stacked->setChecked(false);
    EXPECT_FALSE(model->snapshotCurrentSettings().vectorStacked);
}

TEST_F(WindowTest, ControlsMoveOnlyForTheFieldsTheyShow) {
    model->open(images(1));
    auto* threshold = view->sidebar()->findChild<QSlider*>(QStringLiteral("threshold"));
    auto* keyThreshold = view->sidebar()->findChild<QSlider*>(QStringLiteral("keyThreshold"));
    ASSERT_TRUE(threshold && keyThreshold);
    model->setThreshold(100);
    EXPECT_EQ(threshold->value(), threshold->maximum());
    // Moved by hand where the model doesn't look, a control stays put until its own field changes.
    keyThreshold->blockSignals(true);
    keyThreshold->setValue(0);
    keyThreshold->blockSignals(false);
    model->setThreshold(0);
    EXPECT_EQ(keyThreshold->value(), 0) << "a change of threshold doesn't touch the key's slider";
    model->setKeyThreshold(model->keyThreshold());
    EXPECT_EQ(keyThreshold->value(), int(std::round(30.0 / 100 * keyThreshold->maximum())));
}

// The real network behind the window: the keying switch, clicked, cuts the cup out of a photograph
// off the main thread (tests/privacy-test.sh runs it to watch what the network's runtime does).
TEST(RealNetworkWindow, TheKeyingSwitchCutsOutTheSubjectOfAPhotograph) {
    ASSERT_TRUE(VisionEngine::isAvailable()) << "the set-up puts the network into the cache folder";
    MainWindow window;
    window.resize(900, 640);
    window.show();
    CropModel& model = window.content()->model();
    model.open({testPhoto(QStringLiteral("coffee.png"))});
    ASSERT_TRUE(model.active());
    auto* toggle = window.findChild<QAbstractButton*>(QStringLiteral("keyWhiteEnabled"));
    ASSERT_NE(toggle, nullptr);
    toggle->click();
    ASSERT_TRUE(model.keyWhiteEnabled());
    EXPECT_EQ(model.bgRemovalMode(), BGRemovalMode::subject) << "a photograph's edges aren't white";
    ASSERT_TRUE(waitUntil([&] { return !model.isDetectingSubject(); }, 180000));
    ASSERT_FALSE(model.subjectNotFound());
    EXPECT_FALSE(model.errorMessage()) << qPrintable(*model.errorMessage());
    EXPECT_NE(VisionEngine::loadedBackend(), VisionEngine::Backend::automatic);
    EXPECT_EQ(qAlpha(model.processedImage().pixel(5, 5)), 0) << "the table top is gone";
    EXPECT_EQ(qAlpha(model.processedImage().pixel(240, 110)), 255) << "the coffee stays";
}

TEST_F(WindowTest, AHeldSliderShowsDraftsAndItsReleaseTheFullPicture) {
    QTemporaryDir dir;
    model->open({savePng(dir, QStringLiteral("big.png"), coordinates(2400, 1600))});
    model->setPaddingEnabled(true);
    QApplication::processEvents();
    auto* padding = window.findChild<QSlider*>(QStringLiteral("padAmount"));
    ASSERT_TRUE(padding);
    const QSize before = model->processedImage().size();
    padding->setSliderDown(true); // a mouse drag holds the slider
    padding->setValue(padding->value() + 500);
    EXPECT_TRUE(model->processedIsDraft());
    EXPECT_LT(model->processedImage().width(), before.width()) << "drawn at the view's size";
    EXPECT_GT(model->resultSize().width(), before.width()) << "the size said is the full one, padding grown";
    EXPECT_EQ(view->dimsText(), QStringLiteral("2400×1600 → %1×%2")
                                    .arg(model->resultSize().width())
                                    .arg(model->resultSize().height()));
    padding->setSliderDown(false);
    EXPECT_FALSE(model->processedIsDraft());
    EXPECT_EQ(model->processedImage().size(), model->resultSize());
    // A key on the slider builds in full at once.
    padding->setValue(padding->value() + 100);
    EXPECT_FALSE(model->processedIsDraft());
}

TEST(NetworkMenu, ListsTheNetworksInTheFolderAndChoosesOne) {
    QTemporaryDir data;
    const QByteArray before = qgetenv("XDG_DATA_HOME");
    qputenv("XDG_DATA_HOME", QFile::encodeName(data.path()));
    const QString folder = data.filePath(QStringLiteral("cutlark/networks"));
    ASSERT_TRUE(QDir().mkpath(folder));
    ASSERT_TRUE(writeBytes(folder + QStringLiteral("/u2net.onnx"), QByteArray("graph")));
    ASSERT_TRUE(writeBytes(folder + QStringLiteral("/BiRefNet.onnx"), QByteArray("graph")));
    ASSERT_TRUE(writeBytes(folder + QStringLiteral("/BiRefNet.json"), QByteArray(R"({"sigmoid": true})")));
    ASSERT_TRUE(writeBytes(folder + QStringLiteral("/broken.onnx"), QByteArray("graph")));
    ASSERT_TRUE(writeBytes(folder + QStringLiteral("/broken.json"), QByteArray(R"({"std": -1})")));
    ASSERT_TRUE(writeBytes(folder + QStringLiteral("/notes.txt"), QByteArray("not a network")));

    MainWindow window;
    QMenu* menu = nullptr;
    for (QAction* a : window.menuBar()->actions())
        if (a->text().remove(QLatin1Char('&')) == QStringLiteral("Subject network")) menu = a->menu();
    ASSERT_TRUE(menu);
    emit menu->aboutToShow();
    QStringList names;
    for (QAction* a : menu->actions())
        if (!a->isSeparator()) names << a->text();
    EXPECT_EQ(names, (QStringList{QStringLiteral("IS-Net (installed)"), QStringLiteral("BiRefNet"),
                                  QStringLiteral("broken"), QStringLiteral("u2net")}));
    EXPECT_TRUE(menu->actions().first()->isChecked()) << "the installed network is the default";

    CropModel& model = window.content()->model();
    const auto action = [&](const QString& text) {
        for (QAction* a : menu->actions())
            if (a->text() == text) return a;
        return static_cast<QAction*>(nullptr);
    };
    action(QStringLiteral("BiRefNet"))->trigger();
    EXPECT_EQ(model.subjectNetwork().path, folder + QStringLiteral("/BiRefNet.onnx"));
    EXPECT_TRUE(model.subjectNetwork().sigmoid) << "its descriptor was read";
    EXPECT_EQ(VisionEngine::chosenNetwork(), model.subjectNetwork());
    emit menu->aboutToShow();
    EXPECT_TRUE(action(QStringLiteral("BiRefNet"))->isChecked());

    // A descriptor that isn't one: said, naming the file, and the choice stays.
    action(QStringLiteral("broken"))->trigger();
    ASSERT_TRUE(model.errorMessage());
    EXPECT_TRUE(model.errorMessage()->contains(folder + QStringLiteral("/broken.json")))
        << model.errorMessage()->toStdString();
    EXPECT_EQ(model.subjectNetwork().path, folder + QStringLiteral("/BiRefNet.onnx"));

    action(QStringLiteral("IS-Net (installed)"))->trigger();
    EXPECT_EQ(model.subjectNetwork(), SubjectNetwork{});
    EXPECT_EQ(VisionEngine::chosenNetwork(), SubjectNetwork{});
    if (before.isNull())
        qunsetenv("XDG_DATA_HOME");
    else
        qputenv("XDG_DATA_HOME", before);
}
