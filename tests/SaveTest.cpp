#include "TestSupport.h"

#include "io/ImageFile.h"
#include "model/CropModel.h"
#include "support/AtomicFile.h"

#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QPainter>
#include <QProcess>

#include <cmath>

#include <gtest/gtest.h>

using namespace cutlark;
using namespace cutlark::test;

namespace {

class SaveTest : public ::testing::Test {
protected:
    void SetUp() override { model.setPanels(&panels); }
    void TearDown() override { AtomicFile::setFaultInjector({}); }

    QString jpeg(const QString& name, int w = 20, int h = 10) {
        const QString p = m_dir.filePath(name);
        writeImage(coordinates(w, h), p, "jpeg", 95);
        return p;
    }
    QString png(const QString& name, int w = 20, int h = 10) {
        return savePng(m_dir, name, coordinates(w, h));
    }

    QTemporaryDir m_dir;
    ScriptedPanels panels;
    CropModel model;
};

} // namespace

TEST_F(SaveTest, NothingToSave) {
    saveAndWait(model);
    EXPECT_EQ(model.errorMessage(), QStringLiteral("Nothing to save."));
    saveAndWait(model, &CropModel::saveAsNewFile);
    EXPECT_EQ(model.errorMessage(), QStringLiteral("Nothing to save."));
    EXPECT_EQ(panels.saveCalls, 0);
}

TEST_F(SaveTest, TransparencyInAJpegGoesToAPngBesideIt) {
    const QString source = jpeg(QStringLiteral("photo.jpg"), 200, 150);
    const QByteArray before = readBytes(source);
    model.open({source});
    model.setPaddingEnabled(true);
    const QImage result = model.processedImage();
    saveAndWait(model);
    const QString written = m_dir.filePath(QStringLiteral("photo.png"));
    EXPECT_EQ(model.saveConfirmation(), QStringLiteral("photo.png"));
    EXPECT_FALSE(model.errorMessage());
    ASSERT_TRUE(QFileInfo::exists(written));
    // At the window's PNG effort, which the user waits for: not the save rules' slower default.
    EXPECT_EQ(readBytes(written),
              ImageFile::encode(result, QStringLiteral("image/png"), ImageFile::kUnknownSource,
                                ImageFile::kInteractivePngEffort));
    EXPECT_EQ(readBytes(source), before) << "the JPEG stays on disk";
    const auto& item = model.items().front();
    EXPECT_EQ(item.path, written);
    EXPECT_EQ(item.type, QStringLiteral("image/png"));
    EXPECT_TRUE(item.saved);
    EXPECT_TRUE(model.allSaved());
}

TEST_F(SaveTest, AnOpaqueBackgroundKeepsTheJpeg) {
    const QString source = jpeg(QStringLiteral("photo.jpg"));
    model.open({source});
    model.setPaddingEnabled(true);
    model.setBackgroundEnabled(true);
    const QImage result = model.processedImage();
    saveAndWait(model);
    EXPECT_EQ(model.items().front().path, source);
    EXPECT_EQ(model.items().front().type, QStringLiteral("image/jpeg"));
    EXPECT_EQ(ImageFile::load(source)->type, QStringLiteral("image/jpeg"));
    EXPECT_EQ(readBytes(source), ImageFile::encode(result, QStringLiteral("image/jpeg"))) << "quality 0.92";
}

TEST_F(SaveTest, ABiggerCanvasStillForcesPng) {
    model.open({jpeg(QStringLiteral("photo.jpg"))});
    model.setBackgroundEnabled(true);
    model.setResizeLockAspect(false);
    model.setResizeCanvas(true);
    model.setResizeEnabled(true);
    model.setResizeWidth(50);
    ASSERT_TRUE(model.producesTransparency());
    EXPECT_EQ(model.saveTypeChoice(*model.active()).type, QStringLiteral("image/png"));
    EXPECT_EQ(model.proposedNewFileName(*model.active()), QStringLiteral("photo-out.png"));
}

TEST_F(SaveTest, APngWithKeyingStaysPng) {
    model.open({png(QStringLiteral("logo.png"))});
    model.setKeyWhiteEnabled(true);
    const auto choice = model.saveTypeChoice(*model.active());
    EXPECT_EQ(choice.type, QStringLiteral("image/png"));
    EXPECT_FALSE(choice.forcedPng);
}

TEST_F(SaveTest, ProposedNamesKeepTheExtensionAsWritten) {
    const QString upper = m_dir.filePath(QStringLiteral("Holiday.JPG"));
    writeImage(coordinates(8, 8), upper, "jpeg");
    model.open({upper});
    saveAndWait(model, &CropModel::saveAsNewFile); // cancelled: nothing changes
    EXPECT_EQ(panels.proposedNames.last(), QStringLiteral("Holiday-out.JPG"));
    EXPECT_EQ(panels.saveTypes.last(), QStringLiteral("image/jpeg"));
    EXPECT_FALSE(model.items().front().saved);
    EXPECT_FALSE(model.saveConfirmation());
    EXPECT_FALSE(model.errorMessage());

    model.setPaddingEnabled(true);
    saveAndWait(model, &CropModel::saveAsNewFile);
    EXPECT_EQ(panels.proposedNames.last(), QStringLiteral("Holiday-out.png"));
    EXPECT_EQ(panels.saveTypes.last(), QStringLiteral("image/png"));
}

TEST_F(SaveTest, AFileWithoutExtensionGetsTheTypesOwn) {
    const QString bare = m_dir.filePath(QStringLiteral("Scan.png"));
    writeImage(coordinates(8, 8), bare, "jpeg");
    const QString noExt = m_dir.filePath(QStringLiteral("Scan"));
    QFile::rename(bare, noExt);
    // Opening refuses a name without extension, so the item is made by hand.
    CropModel::Item item{QUuid::createUuid(),
                         noExt,
                         QStringLiteral("image/jpeg"),
                         *CropEngine::Buffer::make(ImageFile::load(noExt)->image),
                         false,
                         {},
                         nullptr,
                         {},
                         {},
                         {}};
    EXPECT_EQ(model.proposedNewFileName(item),
              QStringLiteral("Scan-out.") + ImageFile::preferredExtension(item.type));
    EXPECT_TRUE(model.proposedNewFileName(item).endsWith(QStringLiteral(".jpg")) ||
                model.proposedNewFileName(item).endsWith(QStringLiteral(".jpeg")));
}

TEST_F(SaveTest, SaveAsNewWritesWhereThePanelSaysAndLeavesTheSourceAlone) {
    const QString source = png(QStringLiteral("a.png"));
    const QByteArray before = readBytes(source);
    model.open({source});
    model.setQuarterTurns(1);
    const QString target = m_dir.filePath(QStringLiteral("elsewhere.png"));
    panels.saveAnswers.push_back(target);
    saveAndWait(model, &CropModel::saveAsNewFile);
    EXPECT_EQ(model.saveConfirmation(), QStringLiteral("elsewhere.png"));
    EXPECT_EQ(ImageFile::load(target)->image.size(), QSize(10, 20));
    EXPECT_EQ(readBytes(source), before);
    EXPECT_EQ(model.items().front().path, source);
    EXPECT_TRUE(model.items().front().saved);
}

TEST_F(SaveTest, TheQueueMovesOnToTheNextUnsavedItemWrappingAround) {
    QStringList paths;
    for (int i = 1; i <= 4; ++i)
        paths << png(QStringLiteral("%1.png").arg(i));
    model.open(paths);
    const auto id = [&](int i) { return model.items()[size_t(i)].id; };
    // Item 4 saved first; then item 3 is saved and the search wraps to item 1.
    model.select(id(3));
    saveAndWait(model);
    EXPECT_EQ(model.activeID(), id(0)) << "after the last item the search wraps to the first";
    model.select(id(2));
    model.setMirrored(true);
    saveAndWait(model);
    EXPECT_EQ(model.activeID(), id(0));
    EXPECT_EQ(model.saveConfirmation(), QStringLiteral("3.png"))
        << "the confirmation names the file just written";
    EXPECT_TRUE(model.items()[2].settingsSnapshot.mirrored) << "the item left keeps its settings";
    saveAndWait(model);
    EXPECT_EQ(model.activeID(), id(1));
    saveAndWait(model);
    EXPECT_EQ(model.activeID(), id(1)) << "the last unsaved item stays active";
    EXPECT_TRUE(model.allSaved());
}

TEST_F(SaveTest, SavingOverTheOriginalMakesTheWrittenPixelsTheSource) {
    const QString source = png(QStringLiteral("a.png"), 20, 10);
    model.open({source});
    model.setQuarterTurns(1);
    saveAndWait(model);
    const auto& item = model.items().front();
    EXPECT_EQ(item.buffer.width(), 10);
    EXPECT_EQ(item.buffer.height(), 20);
    EXPECT_EQ(model.processedImage().size(), QSize(20, 10)) << "the turn applies again to the new source";
}

TEST_F(SaveTest, FailedWritesReportAndLoseNothing) {
    const QString source = png(QStringLiteral("keep.png"));
    const QString other = png(QStringLiteral("other.png"));
    model.open({source, other});
    model.setMirrored(true);
    const QByteArray before = readBytes(source);
    const QUuid active = *model.activeID();

    AtomicFile::setFaultInjector(
        [](AtomicFile::Step step, const QString&) { return step != AtomicFile::Step::rename; });
    saveAndWait(model);
    EXPECT_EQ(model.errorMessage(), QStringLiteral("Couldn’t write to “keep.png”."));
    EXPECT_EQ(readBytes(source), before);
    EXPECT_EQ(model.activeID(), active) << "no advance";
    EXPECT_FALSE(model.items().front().saved);
    EXPECT_FALSE(model.saveConfirmation());
    AtomicFile::setFaultInjector({});

    // Into a folder that doesn't exist, and over a path that is a folder.
    panels.saveAnswers.push_back(m_dir.filePath(QStringLiteral("missing/x.png")));
    saveAndWait(model, &CropModel::saveAsNewFile);
    EXPECT_EQ(model.errorMessage(), QStringLiteral("Couldn’t write to “x.png”."));
    QDir(m_dir.path()).mkdir(QStringLiteral("taken.png"));
    panels.saveAnswers.push_back(m_dir.filePath(QStringLiteral("taken.png")));
    saveAndWait(model, &CropModel::saveAsNewFile);
    EXPECT_EQ(model.errorMessage(), QStringLiteral("Couldn’t write to “taken.png”."));
    EXPECT_TRUE(QFileInfo(m_dir.filePath(QStringLiteral("taken.png"))).isDir());
    EXPECT_EQ(model.activeID(), active);
    EXPECT_EQ(model.items().size(), 2u);

    // And then a save goes through and clears the message.
    saveAndWait(model);
    EXPECT_FALSE(model.errorMessage());
    EXPECT_EQ(model.saveConfirmation(), QStringLiteral("keep.png"));
}

TEST_F(SaveTest, AWebPStaysLossyOrLosslessAsItCame) {
    // Something like a photo: smooth light, texture and edges.
    QImage photo(480, 320, QImage::Format_RGB32);
    for (int y = 0; y < photo.height(); ++y)
        for (int x = 0; x < photo.width(); ++x) {
            const int texture =
                int(37 * std::sin(x * 0.21) * std::cos(y * 0.17)) + ((x * 7919 + y * 104729) % 13);
            const bool mug = (x - 240) * (x - 240) + (y - 170) * (y - 170) < 90 * 90;
            photo.setPixel(x, y,
                           mug ? qRgb(qBound(0, 180 + texture, 255), qBound(0, 90 + texture / 2, 255), 60)
                               : qRgb(qBound(0, 120 + x / 8 + texture, 255), qBound(0, 140 + y / 6, 255),
                                      qBound(0, 200 - x / 5 + texture, 255)));
        }
    const auto chunk = [](const QByteArray& webp) { return webp.mid(12, 4); };

    // A lossy web picture that nothing changed comes back lossy, about its own size.
    for (int quality : {75, 80, 90}) {
        const QString lossy = m_dir.filePath(QStringLiteral("web-%1.webp").arg(quality));
        ASSERT_TRUE(writeImage(photo, lossy, "webp", quality));
        const qint64 before = readBytes(lossy).size();
        ASSERT_EQ(chunk(readBytes(lossy)), "VP8 ");
        CropModel one;
        one.open({lossy});
        saveAndWait(one);
        ASSERT_FALSE(one.errorMessage()) << one.errorMessage()->toStdString();
        const QByteArray after = readBytes(lossy);
        EXPECT_TRUE(after.contains("VP8 ") && !after.contains("VP8L")) << quality;
        EXPECT_LE(after.size(), before * 3 / 2)
            << "quality " << quality << ": " << before << " → " << after.size();
        const ImageFile::Storage storage = one.items().front().storage;
        EXPECT_FALSE(storage.lossless) << "and stays lossy on the next save";
        EXPECT_NEAR(storage.quality, quality, 4) << "at the quality it had";
    }

    // A lossless one stays lossless, also with transparency made on the way.
    const QString exact = m_dir.filePath(QStringLiteral("logo.webp"));
    ASSERT_TRUE(writeImage(coordinates(60, 40), exact, "webp", 100));
    ASSERT_EQ(chunk(readBytes(exact)), "VP8L");
    model.open({exact});
    model.setPaddingEnabled(true);
    saveAndWait(model);
    const QByteArray written = readBytes(exact);
    EXPECT_TRUE(written.mid(12, 4) == "VP8L" || (written.mid(12, 4) == "VP8X" && written.contains("VP8L")));
    EXPECT_FALSE(written.contains("VP8 ")) << "no lossy data";
    EXPECT_TRUE(model.items().front().storage.lossless);

    // A lossy WebP saved with transparency keeps its alpha beside lossy data.
    const QString cut = m_dir.filePath(QStringLiteral("cut.webp"));
    ASSERT_TRUE(writeImage(photo, cut, "webp", 80));
    CropModel keyed;
    keyed.open({cut});
    keyed.setPaddingEnabled(true);
    saveAndWait(keyed);
    const QByteArray withAlpha = readBytes(cut);
    EXPECT_TRUE(withAlpha.contains("ALPH") && withAlpha.contains("VP8 "));
    const auto back = ImageFile::load(cut);
    ASSERT_TRUE(back);
    EXPECT_TRUE(back->image.hasAlphaChannel());
    EXPECT_FALSE(back->storage.lossless);
}

// The command line builds each picture once, with its settings all applied, and writes it itself;
// the window rebuilds at every write. Both must give the same bytes, for pictures of every size and
// type in one batch (pooled stores of other sizes reused in between). (Here rather than among the
// command line's tests: those run under ThreadSanitizer, which can't follow a process that starts
// programs after the engines' threads have started in it.)
TEST_F(SaveTest, TheCommandLineWritesWhatTheWindowBuildsSettingBySetting) {
    QStringList inputs;
    const QList<QPair<QSize, const char*>> kinds = {{{310, 200}, "png"},  {{200, 310}, "jpg"},
                                                    {{333, 251}, "webp"}, {{96, 420}, "png"},
                                                    {{512, 384}, "jpg"},  {{301, 300}, "tif"}};
    for (qsizetype i = 0; i < kinds.size(); ++i) {
        const QSize size = kinds[i].first;
        QImage art(size, QImage::Format_RGB32);
        art.fill(Qt::white);
        QPainter painter(&art);
        painter.setBrush(QColor::fromHsv(int(i) * 50, 220, 170));
        painter.drawEllipse(QRect(size.width() / 6, size.height() / 5, size.width() / 2, size.height() / 2));
        painter.end();
        const QString name =
            m_dir.filePath(QStringLiteral("in%1.%2").arg(i).arg(QLatin1String(kinds[i].second)));
        ASSERT_TRUE(art.save(name, nullptr, 95));
        inputs << name;
    }
    const QList<QPair<QString, QString>> look = {
        {QStringLiteral("keyWhiteEnabled"), QStringLiteral("true")},
        {QStringLiteral("trimEnabled"), QStringLiteral("true")},
        {QStringLiteral("paddingEnabled"), QStringLiteral("true")},
        {QStringLiteral("padAmount"), QStringLiteral("12")},
        {QStringLiteral("backgroundEnabled"), QStringLiteral("true")},
        {QStringLiteral("backgroundColor"), QStringLiteral("#3366CC")},
        {QStringLiteral("resizeEnabled"), QStringLiteral("true")},
        {QStringLiteral("resizeWidth"), QStringLiteral("150")}};
    QStringList arguments{QStringLiteral("process"), QStringLiteral("--jobs=2"), QStringLiteral("-o"),
                          m_dir.filePath(QStringLiteral("out"))};
    for (const auto& [name, value] : look)
        arguments << QStringLiteral("--set=%1=%2").arg(name, value);
    QProcess cli;
    cli.start(QStringLiteral(CUTLARK_CLI_PATH), arguments + inputs);
    ASSERT_TRUE(cli.waitForFinished(120000));
    ASSERT_EQ(cli.exitCode(), 0) << cli.readAllStandardError().toStdString();
    QList<QJsonObject> lines;
    for (const QByteArray& line : cli.readAllStandardOutput().split('\n'))
        if (!line.trimmed().isEmpty()) lines << QJsonDocument::fromJson(line).object();
    ASSERT_EQ(lines.size(), inputs.size());

    for (qsizetype i = 0; i < inputs.size(); ++i) {
        CropModel window;
        window.open({inputs[i]});
        ASSERT_TRUE(window.active());
        // As a person sets them, one at a time, each write rebuilding.
        window.setKeyWhiteEnabled(true);
        window.setTrimEnabled(true);
        window.setPaddingEnabled(true);
        window.setPadAmount(12);
        window.setBackgroundEnabled(true);
        window.setBackgroundColor(QColor(0x33, 0x66, 0xCC));
        window.setResizeEnabled(true);
        window.setResizeWidth(150);
        const auto choice = window.saveTypeChoice(*window.active());
        const QByteArray expected =
            ImageFile::encode(window.processedImage(), choice.type, window.active()->storage);
        const QString output = lines[i].value(QStringLiteral("output")).toString();
        if (output.endsWith(QLatin1String(".tif"))) {
            // A TIFF states its resolution, which the result carries as any metadata: the same
            // pixels in another file.
            EXPECT_EQ(ImageFile::load(output)->image, ImageFile::loadFromData(expected)->image);
        } else {
            EXPECT_EQ(readBytes(output), expected) << output.toStdString();
        }
        EXPECT_EQ(ImageFile::load(output)->image.width(), 150);
    }
}

// A look built in the window, exported as settings, runs on the command line with the same bytes;
// imported into another window it is the same look. (Here for the reason given above.)
TEST_F(SaveTest, ExportedSettingsGiveTheCommandLineTheWindowsBytes) {
    QImage art(320, 240, QImage::Format_RGB32);
    art.fill(Qt::white);
    {
        QPainter painter(&art);
        painter.setBrush(QColor(200, 60, 40));
        painter.drawEllipse(QRect(60, 40, 170, 130));
    }
    const QString input = m_dir.filePath(QStringLiteral("shot.jpg"));
    ASSERT_TRUE(art.save(input, nullptr, 92));
    CropModel window;
    window.open({input});
    ASSERT_TRUE(window.active());
    window.setQuarterTurns(1);
    window.setKeyWhiteEnabled(true);
    window.setStickerEnabled(true);
    window.setStrokeWidth(9);
    window.setPaddingEnabled(true);
    window.setPadAmount(20);
    window.setBackgroundEnabled(true);
    window.setBackgroundKind(BackgroundKind::gradient);
    window.setGradientAngle(33);
    window.setGradientEnd(QColor::fromHsvF(0.61f, 0.83f, 0.77f)); // as the picker's pad gives it
    window.setResizeEnabled(true);
    window.setResizeWidth(200);
    const QString preset = m_dir.filePath(QStringLiteral("look.json"));
    ASSERT_TRUE(window.exportSettings(preset));
    EXPECT_EQ(window.noticeMessage(), QStringLiteral("Settings exported to “look.json”."));

    QProcess cli;
    cli.start(QStringLiteral(CUTLARK_CLI_PATH),
              {QStringLiteral("process"), QStringLiteral("--preset"), preset, QStringLiteral("-o"),
               m_dir.filePath(QStringLiteral("out")), input});
    ASSERT_TRUE(cli.waitForFinished(120000));
    ASSERT_EQ(cli.exitCode(), 0) << cli.readAllStandardError().toStdString();
    const QJsonObject line = QJsonDocument::fromJson(cli.readAllStandardOutput().trimmed()).object();
    const auto choice = window.saveTypeChoice(*window.active());
    const QByteArray expected =
        ImageFile::encode(window.processedImage(), choice.type, window.active()->storage);
    EXPECT_FALSE(expected.isEmpty());
    EXPECT_EQ(readBytes(line.value(QStringLiteral("output")).toString()), expected);

    // Imported into another window, over settings of its own: the same look, and its picture.
    CropModel other;
    other.open({input});
    other.setTrimEnabled(true);
    ASSERT_TRUE(other.importSettings(preset));
    EXPECT_TRUE(other.snapshotCurrentSettings() == window.snapshotCurrentSettings());
    EXPECT_EQ(other.processedImage(), window.processedImage());
    EXPECT_EQ(other.noticeMessage(), QStringLiteral("Settings imported from “look.json”."));

    // What isn't settings is named and changes nothing.
    const Settings before = other.snapshotCurrentSettings();
    const QList<QPair<QByteArray, QString>> bad = {
        {"{\"padAmount\": 20,\n \"strokWidth\": 3}",
         QStringLiteral("“bad.json” isn’t settings Cutlark can use: unknown setting “strokWidth”")},
        {"{\"padAmount\": 20,\n  oops}", QStringLiteral("“bad.json” isn’t settings: ")},
        {"[1, 2]", QStringLiteral("“bad.json” isn’t settings: they are a JSON object")},
        {"{\"padAmount\": 9000}", QStringLiteral("“bad.json” isn’t settings Cutlark can use: ")},
    };
    for (const auto& [text, says] : bad) {
        ASSERT_TRUE(writeBytes(m_dir.filePath(QStringLiteral("bad.json")), text));
        EXPECT_FALSE(other.importSettings(m_dir.filePath(QStringLiteral("bad.json"))));
        ASSERT_TRUE(other.errorMessage());
        EXPECT_TRUE(other.errorMessage()->startsWith(says)) << other.errorMessage()->toStdString();
        EXPECT_TRUE(other.snapshotCurrentSettings() == before);
    }
    EXPECT_TRUE(other.errorMessage()->contains(QStringLiteral("line 2")) || !other.errorMessage()->isEmpty());
    EXPECT_FALSE(other.importSettings(m_dir.filePath(QStringLiteral("missing.json"))));
    EXPECT_EQ(*other.errorMessage(), QStringLiteral("“missing.json” can’t be read as settings"));
}

TEST_F(SaveTest, SettingsAreExportedAndImportedWhereThePanelsSay) {
    ScriptedPanels panels;
    CropModel model;
    model.setPanels(&panels);
    model.open({png(QStringLiteral("a.png"), 40, 30), png(QStringLiteral("b.png"), 30, 40)});
    model.setSyncSettingsAcrossQueue(true);
    model.setPaddingEnabled(true);
    model.setPadAmount(7);
    const QString file = m_dir.filePath(QStringLiteral("chosen.json"));
    panels.saveAnswers.push_back(file);
    model.exportSettingsAs();
    EXPECT_EQ(panels.proposedNames, QStringList{QStringLiteral("cutlark-settings.json")});
    EXPECT_EQ(panels.saveTypes, QStringList{QStringLiteral("application/json")});
    ASSERT_TRUE(QFileInfo::exists(file));
    EXPECT_FALSE(readBytes(file).contains("\"backgroundImage\"")) << "the picture comes with its file";

    model.exportSettingsAs(); // cancelled: nothing asked of the model
    model.setPaddingEnabled(false);
    model.setPadAmount(40);
    panels.fileAnswers.push_back(file);
    model.importSettingsFrom();
    EXPECT_TRUE(model.paddingEnabled());
    EXPECT_EQ(model.padAmount(), 7);
    // Synced, the imported look is every item's.
    model.select(model.items()[1].id);
    EXPECT_EQ(model.padAmount(), 7);
    EXPECT_EQ(model.processedImage().size(), QSize(44, 54));
}
