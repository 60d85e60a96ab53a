// Whatever a folder holds, opening and saving never crash, hang or touch a byte the user didn't ask
// to replace: damaged files of every accepted type, odd entries, odd names, and files that change
// under our feet between open and save.

#include "TestSupport.h"

#include "io/ImageFile.h"
#include "model/CropModel.h"
#include "support/NativePath.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSet>

#include <atomic>
#include <fcntl.h>
#include <random>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

using namespace cutlark;
using namespace cutlark::test;

namespace {

const QString kOneBad = QStringLiteral("1 file couldn’t be opened.");

/// A small picture with colour, an alpha edge and detail, so every encoder has work to do.
QImage sample() {
    QImage image(37, 23, QImage::Format_RGBA8888);
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width(); ++x)
            image.setPixelColor(x, y,
                                QColor(x * 7 % 256, y * 11 % 256, (x ^ y) * 5 % 256, x == 0 ? 128 : 255));
    return image;
}

/// One valid file of each of the eight accepted types, as bytes, with its usual extension.
QList<QPair<QString, QByteArray>> everyType() {
    QList<QPair<QString, QByteArray>> files;
    const QImage image = sample();
    for (const QString& type : ImageFile::acceptedTypes()) {
        if (type == QLatin1String("image/gif")) {
            files.append({QStringLiteral("gif"), animatedGif()}); // Qt writes no GIF
            continue;
        }
        QByteArray bytes = ImageFile::encode(
            image, type == QLatin1String("image/heif") ? QStringLiteral("image/heic") : type);
        if (bytes.isEmpty()) continue; // no encoder for it on this machine
        if (type == QLatin1String("image/heif")) bytes.replace(8, 4, "mif1"); // the generic brand
        files.append({ImageFile::preferredExtension(type), bytes});
    }
    return files;
}

class BadInputTest : public ::testing::Test {
protected:
    QString path(const QString& name) const { return m_dir.filePath(name); }
    QTemporaryDir m_dir;
    ScriptedPanels panels;
    CropModel model;
};

} // namespace

TEST_F(BadInputTest, AMutationRunOverEveryTypeOpensOrIsRefusedCleanly) {
    const auto originals = everyType();
    ASSERT_GE(originals.size(), 7) << "PNG, JPEG, TIFF, BMP, GIF, WebP and at least one HEIF flavour";
    std::mt19937 random(20261123);
    int opened = 0, refused = 0;
    const auto tryOpen = [&](const QString& name, const QByteArray& bytes) {
        SCOPED_TRACE(name.toStdString());
        CropModel fresh;
        ASSERT_TRUE(writeBytes(path(name), bytes));
        fresh.open({path(name)});
        if (fresh.items().empty()) {
            // A header that claims far more pixels than the file could hold also says so.
            ASSERT_TRUE(fresh.errorMessage());
            EXPECT_TRUE(fresh.errorMessage() == kOneBad ||
                        fresh.errorMessage()->startsWith(kOneBad + QStringLiteral(" “")))
                << qPrintable(*fresh.errorMessage());
            ++refused;
        } else {
            ASSERT_EQ(fresh.items().size(), 1u);
            const auto& buffer = fresh.items().front().buffer;
            EXPECT_TRUE(buffer.width() > 0 && buffer.height() > 0 &&
                        buffer.width() * buffer.height() <= 1 << 26);
            EXPECT_FALSE(fresh.processedImage().isNull()) << "what opens can be shown";
            ++opened;
        }
        EXPECT_EQ(readBytes(path(name)), bytes) << "opening never writes";
        QFile::remove(path(name));
    };

    for (const auto& [extension, bytes] : originals) {
        const qsizetype n = bytes.size();
        // Cut short anywhere, from nothing to one byte short.
        for (qsizetype length : {qsizetype(0), qsizetype(1), qsizetype(4), qsizetype(12), qsizetype(32),
                                 n / 4, n / 2, n * 3 / 4, n - 1})
            tryOpen(QStringLiteral("cut%1.%2").arg(length).arg(extension), bytes.left(length));
        // Bytes flipped: a few at random places, then runs of them.
        for (int round = 0; round < 40; ++round) {
            QByteArray damaged = bytes;
            const int flips = 1 + round % 8;
            for (int f = 0; f < flips; ++f)
                damaged[qsizetype(random() % quint32(n))] ^= char(1 + random() % 255);
            if (round >= 30) {
                const qsizetype at = qsizetype(random() % quint32(n));
                for (qsizetype i = at; i < std::min(n, at + 16); ++i)
                    damaged[i] = char(random());
            }
            tryOpen(QStringLiteral("flip%1.%2").arg(round).arg(extension), damaged);
        }
        // Named as another type: the content decides, so it opens as what it is.
        const QString wrong =
            extension == QLatin1String("png") ? QStringLiteral("jpg") : QStringLiteral("png");
        ASSERT_TRUE(writeBytes(path(QStringLiteral("named.") + wrong), bytes));
        model.open({path(QStringLiteral("named.") + wrong)});
        EXPECT_FALSE(model.errorMessage())
            << extension.toStdString() << " bytes named ." << wrong.toStdString();
    }
    EXPECT_GT(opened, 0);
    EXPECT_GT(refused, 0);
    EXPECT_EQ(model.items().size(), size_t(originals.size()));
}

TEST_F(BadInputTest, OddEntriesInAnOpenedFolder) {
    QDir root(m_dir.path());
    ASSERT_TRUE(root.mkdir(QStringLiteral("f")));
    ASSERT_TRUE(writeImage(sample(), path(QStringLiteral("f/good.png")), "png"));
    ASSERT_TRUE(writeBytes(path(QStringLiteral("f/empty.png")), QByteArray()));
    ASSERT_TRUE(root.mkdir(QStringLiteral("f/folder.jpg")));
    ASSERT_TRUE(writeImage(sample(), path(QStringLiteral("f/folder.jpg/inside.png")), "png"));
    // A folder that links to itself and two links that point at each other.
    ASSERT_EQ(symlink(qPrintable(path(QStringLiteral("f"))), qPrintable(path(QStringLiteral("f/loop")))), 0);
    ASSERT_EQ(symlink("b.png", qPrintable(path(QStringLiteral("f/a.png")))), 0);
    ASSERT_EQ(symlink("a.png", qPrintable(path(QStringLiteral("f/b.png")))), 0);

    model.open({path(QStringLiteral("f"))});
    ASSERT_EQ(model.items().size(), 1u);
    EXPECT_EQ(QFileInfo(model.items().front().path).fileName(), QStringLiteral("good.png"));
    EXPECT_EQ(model.errorMessage(), QStringLiteral("4 files couldn’t be opened."))
        << "the empty file, the two links that lead nowhere, and the folder named like a picture";

    // A folder named like an image, opened on its own, is a folder: its images open.
    model.open({path(QStringLiteral("f/folder.jpg"))});
    EXPECT_EQ(QFileInfo(model.active()->path).fileName(), QStringLiteral("inside.png"));
    // The loop, opened on its own, is the same folder again, and nothing goes round in circles.
    model.open({path(QStringLiteral("f/loop"))});
    EXPECT_EQ(model.items().size(), 3u);
}

TEST_F(BadInputTest, AFolderOfTenThousandEntries) {
    QDir root(m_dir.path());
    ASSERT_TRUE(root.mkdir(QStringLiteral("many")));
    const QByteArray png = ImageFile::encode(QImage(4, 3, QImage::Format_RGB32), QStringLiteral("image/png"));
    for (int i = 0; i < 10000; ++i) {
        // One in five an image, the rest notes; written in an order that isn't the name order.
        const int n = (i * 7919) % 10000;
        const QString name =
            n % 5 == 0 ? QStringLiteral("many/img%1.png").arg(n) : QStringLiteral("many/note%1.txt").arg(n);
        ASSERT_TRUE(writeBytes(path(name), n % 5 == 0 ? png : QByteArray("x")));
    }
    model.open({path(QStringLiteral("many"))});
    ASSERT_EQ(model.items().size(), 2000u);
    EXPECT_FALSE(model.errorMessage());
    EXPECT_EQ(QFileInfo(model.items()[0].path).fileName(), QStringLiteral("img0.png"));
    EXPECT_EQ(QFileInfo(model.items()[1].path).fileName(), QStringLiteral("img5.png"));
    EXPECT_EQ(QFileInfo(model.items()[2].path).fileName(), QStringLiteral("img10.png"))
        << "numbers in name order";
    EXPECT_EQ(QFileInfo(model.items().back().path).fileName(), QStringLiteral("img9995.png"));
}

TEST_F(BadInputTest, OddNamesOpenAndSaveUnderTheirOwnName) {
    model.setPanels(&panels);
    const QStringList names = {QStringLiteral("with space.png"), QStringLiteral("quote\"and'apostrophe.png"),
                               QStringLiteral("new\nline.png"), QStringLiteral("ünïcödé ✂.png"),
                               QStringLiteral("-dash.png")};
    for (const QString& name : names)
        ASSERT_TRUE(writeImage(sample(), path(name), "png"));
    // A name that isn't UTF-8 at all (Latin-1 "café") is held by its bytes: it opens and saves too.
    const QByteArray latin1Name = QFile::encodeName(m_dir.path()) + "/caf\xe9.png";
    const QByteArray pngBytes = ImageFile::encode(sample(), QStringLiteral("image/png"));
    {
        const int fd = ::open(latin1Name.constData(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(::write(fd, pngBytes.constData(), size_t(pngBytes.size())), pngBytes.size());
        ::close(fd);
    }

    model.open({m_dir.path()});
    ASSERT_EQ(model.items().size(), size_t(names.size()) + 1);
    EXPECT_FALSE(model.errorMessage());
    int latin1 = 0;
    for (const auto& item : model.items()) {
        if (NativePath::toBytes(item.path) == latin1Name)
            ++latin1;
        else
            EXPECT_TRUE(names.contains(QFileInfo(item.path).fileName())) << qPrintable(item.path);
    }
    EXPECT_EQ(latin1, 1);

    // Each saves over itself, under exactly its name, and nothing else appears in the folder.
    model.setMirrored(true);
    model.setSyncSettingsAcrossQueue(true);
    for (qsizetype i = 0; i <= names.size(); ++i)
        saveAndWait(model);
    EXPECT_FALSE(model.errorMessage());
    for (const auto& item : model.items())
        EXPECT_TRUE(item.saved) << item.path.toStdString();
    EXPECT_EQ(NativePath::children(m_dir.path()).size(), names.size() + 1) << "no temporary file left";
    QFile raw;
    ASSERT_TRUE(
        raw.open(::open(latin1Name.constData(), O_RDONLY), QIODevice::ReadOnly, QFile::AutoCloseHandle));
    const auto saved = ImageFile::loadFromData(raw.readAll());
    ASSERT_TRUE(saved);
    EXPECT_EQ(saved->image.pixel(0, 0), sample().mirrored(true, false).pixel(0, 0))
        << "saved mirrored, in place";
}

TEST_F(BadInputTest, FilesThatChangeBetweenOpenAndSave) {
    model.setPanels(&panels);
    const QString vanished = path(QStringLiteral("vanished.png"));
    const QString replaced = path(QStringLiteral("replaced.png"));
    ASSERT_TRUE(writeImage(sample(), vanished, "png"));
    ASSERT_TRUE(writeImage(sample(), replaced, "png"));
    model.open({replaced, vanished});
    model.setSyncSettingsAcrossQueue(true);
    model.setMirrored(true);

    // Replaced by a folder: refused with the message, the folder and what it holds untouched.
    ASSERT_TRUE(QFile::remove(replaced));
    ASSERT_TRUE(QDir(m_dir.path()).mkdir(QStringLiteral("replaced.png")));
    ASSERT_TRUE(writeBytes(replaced + QStringLiteral("/keep.txt"), "mine"));
    ASSERT_EQ(QFileInfo(model.active()->path).fileName(), QStringLiteral("replaced.png"));
    saveAndWait(model);
    EXPECT_EQ(model.errorMessage(), QStringLiteral("Couldn’t write to “replaced.png”."));
    EXPECT_EQ(readBytes(replaced + QStringLiteral("/keep.txt")), QByteArray("mine"));
    EXPECT_FALSE(model.items().front().saved);
    EXPECT_EQ(QFileInfo(model.active()->path).fileName(), QStringLiteral("replaced.png")) << "no advance";

    // Gone: the edited image is written where it was, since the item still holds every pixel.
    ASSERT_TRUE(QFile::remove(vanished));
    model.select(model.items().back().id);
    saveAndWait(model);
    EXPECT_FALSE(model.errorMessage());
    const auto back = ImageFile::load(vanished);
    ASSERT_TRUE(back);
    EXPECT_EQ(back->image.size(), sample().size());
}

TEST_F(BadInputTest, ASaveRacingAnotherWriterLeavesOneWholeFile) {
    // Another program rewrites the file in place over and over while we save over it: at every
    // moment a reader sees whole files, and at the end the file is wholly one writer's.
    const QString target = path(QStringLiteral("raced.png"));
    ASSERT_TRUE(writeImage(sample(), target, "png"));
    const QByteArray theirs =
        ImageFile::encode(QImage(64, 64, QImage::Format_RGB32), QStringLiteral("image/png"));
    model.setPanels(&panels);
    model.open({target});
    model.setMirrored(true); // each save mirrors what the last one wrote: two pictures, in turn
    QSet<QByteArray> ours;

    std::atomic<bool> stop{false};
    std::thread other([&] {
        const QByteArray native = QFile::encodeName(target);
        while (!stop) {
            const int fd = ::open(native.constData(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            if (fd < 0) continue;
            (void)!::write(fd, theirs.constData(), size_t(theirs.size()));
            ::close(fd);
        }
    });
    for (int i = 0; i < 20; ++i) {
        ours.insert(ImageFile::encode(model.processedImage(), QStringLiteral("image/png"),
                                      ImageFile::kUnknownSource, ImageFile::kInteractivePngEffort));
        saveAndWait(model);
        EXPECT_FALSE(model.errorMessage());
    }
    stop = true;
    other.join();
    const QByteArray end = readBytes(target);
    EXPECT_TRUE(ours.contains(end) || end == theirs) << "never a mixture (" << end.size() << " bytes)";
    EXPECT_TRUE(ImageFile::load(target));
}

TEST_F(BadInputTest, AJpegThatEndsEarlyOpensAndIsSaidToBeDamaged) {
    QImage photo(320, 240, QImage::Format_RGB32);
    for (int y = 0; y < 240; ++y)
        for (int x = 0; x < 320; ++x)
            photo.setPixel(x, y, qRgb(x % 256, y, (x * y) % 256));
    const QString whole = m_dir.filePath(QStringLiteral("whole.jpg"));
    ASSERT_TRUE(writeImage(photo, whole, "jpeg", 90));
    const QByteArray bytes = readBytes(whole);
    const auto sound = ImageFile::loadFromData(bytes);
    ASSERT_TRUE(sound);
    EXPECT_TRUE(sound->damage.isEmpty());

    const QString cut = m_dir.filePath(QStringLiteral("cut.jpg"));
    ASSERT_TRUE(writeBytes(cut, bytes.left(bytes.size() * 6 / 10)));
    const auto partial = ImageFile::load(cut);
    ASSERT_TRUE(partial) << "what the file holds still shows";
    EXPECT_EQ(partial->damage, QStringLiteral("ends early"));
    EXPECT_EQ(partial->image.size(), QSize(320, 240));

    CropModel model;
    model.open({whole});
    EXPECT_FALSE(model.errorMessage());
    model.open({cut});
    EXPECT_EQ(
        model.errorMessage(),
        QStringLiteral("“cut.jpg” is damaged: the file ends early, and the rest of the picture shows grey."));
    EXPECT_EQ(model.items().size(), 2u);
    EXPECT_EQ(model.active()->path, cut);
}
