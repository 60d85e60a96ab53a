#include "CliProgram.h"

#include "io/ImageCodecs.h"
#include "io/ImageFile.h"
#include "support/AvailableCores.h"

#include <QBuffer>
#include <QDir>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMap>
#include <QProcess>
#include <QStandardPaths>

#include <gtest/gtest.h>

#include <exiv2/exiv2.hpp>

#include <csignal>

#include <sys/resource.h>

using namespace cutlark;
using namespace cutlark::test;

namespace {

class CliTest : public CliFixture {};

} // namespace

TEST_F(CliTest, SettingsListsTheDefaultsInOrder) {
    const CliRun run = cli({QStringLiteral("settings")});
    ASSERT_EQ(run.exitCode, 0);
    const QJsonObject all = QJsonDocument::fromJson(run.out).object();
    EXPECT_EQ(all.size(), 43);
    EXPECT_EQ(all.value(QStringLiteral("maskEdits")).toString(QStringLiteral("?")), QString());
    EXPECT_FALSE(all.value(QStringLiteral("vectorCurves")).toBool(true));
    EXPECT_EQ(all.value(QStringLiteral("threshold")).toDouble(), 25);
    EXPECT_EQ(all.value(QStringLiteral("bgRemovalMode")).toString(), QStringLiteral("white"));
    EXPECT_EQ(all.value(QStringLiteral("backgroundColor")).toString(), QStringLiteral("#FFFFFF"));
    EXPECT_TRUE(run.out.indexOf("quarterTurns") < run.out.indexOf("vectorCleanup")) << "table order";
}

TEST_F(CliTest, InfoDescribesEachImage) {
    const QString a = savePng(m_dir, QStringLiteral("a.png"), coordinates(30, 20));
    writeBytes(path(QStringLiteral("bad.png")), "nope");
    const CliRun run = cli({QStringLiteral("info"), a, path(QStringLiteral("bad.png"))});
    EXPECT_EQ(run.exitCode, 1);
    ASSERT_EQ(run.lines.size(), 2);
    const QJsonObject& info = run.lines[0];
    EXPECT_EQ(info.value(QStringLiteral("input")).toString(), a);
    EXPECT_EQ(info.value(QStringLiteral("width")).toInt(), 30);
    EXPECT_EQ(info.value(QStringLiteral("height")).toInt(), 20);
    EXPECT_EQ(info.value(QStringLiteral("type")).toString(), QStringLiteral("image/png"));
    // The coordinates picture has no white and no transparency: all of it is content.
    EXPECT_EQ(info.value(QStringLiteral("contentRect")).toArray(), (QJsonArray{0, 0, 30, 20}));
    EXPECT_FALSE(info.value(QStringLiteral("mostlyWhite")).toBool());
    EXPECT_TRUE(info.value(QStringLiteral("collageRects")).isArray());
    EXPECT_EQ(run.lines[1].value(QStringLiteral("error")).toString(),
              QStringLiteral("1 file couldn’t be opened."));
    EXPECT_TRUE(run.err.contains(QStringLiteral("bad.png")));
}

TEST_F(CliTest, InfoFindsTheArtworkOnAWhiteSheet) {
    QImage sheet = solid(50, 40, Qt::white);
    for (int y = 5; y < 9; ++y)
        for (int x = 10; x < 13; ++x)
            sheet.setPixelColor(x, y, Qt::black);
    const CliRun run = cli({QStringLiteral("info"), savePng(m_dir, QStringLiteral("sheet.png"), sheet)});
    ASSERT_EQ(run.exitCode, 0);
    EXPECT_EQ(run.lines[0].value(QStringLiteral("contentRect")).toArray(), (QJsonArray{10, 5, 3, 4}));
    EXPECT_TRUE(run.lines[0].value(QStringLiteral("mostlyWhite")).toBool());
}

TEST_F(CliTest, ProcessAppliesTheEngines) {
    QImage sheet = solid(50, 40, Qt::white);
    for (int y = 5; y < 25; ++y)
        for (int x = 10; x < 40; ++x)
            sheet.setPixelColor(x, y, Qt::black);
    const QString in = savePng(m_dir, QStringLiteral("logo.png"), sheet);
    const CliRun run =
        cli({QStringLiteral("process"), QStringLiteral("--set"), QStringLiteral("keyWhiteEnabled=true"),
             QStringLiteral("--set"), QStringLiteral("trimEnabled=true"), QStringLiteral("--set"),
             QStringLiteral("resizeEnabled=true"), QStringLiteral("--set"), QStringLiteral("resizeWidth=15"),
             in});
    ASSERT_EQ(run.exitCode, 0) << qPrintable(run.err);
    EXPECT_EQ(run.lines[0].value(QStringLiteral("width")).toInt(), 15);
    EXPECT_EQ(run.lines[0].value(QStringLiteral("height")).toInt(), 10)
        << "the lock keeps the trimmed 30 × 20 aspect";
    const auto written = ImageFile::load(path(QStringLiteral("logo-out.png")));
    ASSERT_TRUE(written);
    EXPECT_EQ(written->image.size(), QSize(15, 10));
}

TEST_F(CliTest, InPlaceFollowsTheSaveRules) {
    const QString photo = path(QStringLiteral("photo.jpg"));
    writeImage(coordinates(16, 8), photo, "jpeg");
    const QByteArray before = readBytes(photo);
    const CliRun run = cli({QStringLiteral("process"), QStringLiteral("--in-place"), QStringLiteral("--set"),
                            QStringLiteral("paddingEnabled=true"), photo});
    ASSERT_EQ(run.exitCode, 0) << qPrintable(run.err);
    ASSERT_EQ(run.lines.size(), 1);
    EXPECT_EQ(run.lines[0].value(QStringLiteral("output")).toString(), path(QStringLiteral("photo.png")));
    EXPECT_EQ(run.lines[0].value(QStringLiteral("type")).toString(), QStringLiteral("image/png"));
    EXPECT_EQ(readBytes(photo), before) << "the JPEG stays";
}

TEST_F(CliTest, PresetsAndSetsCombineAndJobsDoNotChangeResults) {
    QStringList inputs;
    for (int i = 0; i < 4; ++i)
        inputs << savePng(m_dir, QStringLiteral("p%1.png").arg(i), coordinates(20 + i, 12));
    writeBytes(path(QStringLiteral("preset.json")), R"({"quarterTurns": 2, "mirrored": true})");
    const QStringList common = {QStringLiteral("process"), QStringLiteral("--preset"),
                                path(QStringLiteral("preset.json")), QStringLiteral("--set"),
                                QStringLiteral("quarterTurns=1")};
    QStringList first = common, second = common;
    first << QStringLiteral("-o") << path(QStringLiteral("one")) << inputs;
    second << QStringLiteral("--jobs") << QStringLiteral("2") << QStringLiteral("-o")
           << path(QStringLiteral("two")) << inputs;
    const CliRun one = cli(first);
    const CliRun two = cli(second);
    ASSERT_EQ(one.exitCode, 0) << qPrintable(one.err);
    ASSERT_EQ(two.exitCode, 0) << qPrintable(two.err);
    ASSERT_EQ(one.lines.size(), 4);
    ASSERT_EQ(two.lines.size(), 4);
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(two.lines[i].value(QStringLiteral("input")).toString(), inputs[i])
            << "printed in input order";
        const QString name = QStringLiteral("p%1-out.png").arg(i);
        EXPECT_EQ(readBytes(path(QStringLiteral("one/") + name)),
                  readBytes(path(QStringLiteral("two/") + name)));
    }
    const QImage result = ImageFile::load(path(QStringLiteral("one/p0-out.png")))->image;
    ASSERT_EQ(result.size(), QSize(12, 20));
    // Mirrored, then one clockwise turn: the top left shows the source's bottom-right pixel.
    EXPECT_EQ(qRed(result.pixel(0, 0)), 19);
    EXPECT_EQ(qGreen(result.pixel(0, 0)), 11);
}

TEST_F(CliTest, SubjectModeCutsOutBeforeWriting) {
    const QString photo = QStandardPaths::writableLocation(QStandardPaths::GenericCacheLocation) +
                          QStringLiteral("/cutlark/testdata/coffee.png");
    ASSERT_TRUE(QFileInfo::exists(photo)) << "the set-up fetches the photographs";
    const CliRun run =
        cli({QStringLiteral("process"), QStringLiteral("--set"), QStringLiteral("keyWhiteEnabled=true"),
             QStringLiteral("--set"), QStringLiteral("bgRemovalMode=subject"), QStringLiteral("-o"),
             m_dir.path(), photo});
    ASSERT_EQ(run.exitCode, 0) << qPrintable(run.err);
    EXPECT_FALSE(run.lines[0].contains(QStringLiteral("subjectNotFound")));
    const auto written = ImageFile::load(path(QStringLiteral("coffee-out.png")));
    ASSERT_TRUE(written);
    EXPECT_EQ(qAlpha(written->image.pixel(5, 5)), 0) << "the background is gone";
    EXPECT_EQ(qAlpha(written->image.pixel(240, 110)), 255) << "the cup stays";
}

TEST_F(CliTest, TraceWritesTheSvgTheSettingsChoose) {
    QImage page = solid(300, 200, Qt::white);
    for (int y = 50; y < 150; ++y)
        for (int x = 100; x < 200; ++x)
            page.setPixelColor(x, y, Qt::black);
    const QString in = savePng(m_dir, QStringLiteral("shape.png"), page);
    CliRun run = cli({QStringLiteral("trace"), QStringLiteral("-o"), path(QStringLiteral("s.svg")), in});
    ASSERT_EQ(run.exitCode, 0) << qPrintable(run.err);
    EXPECT_EQ(QString::fromUtf8(readBytes(path(QStringLiteral("s.svg")))),
              QStringLiteral("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                             "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"300\" height=\"200\" "
                             "viewBox=\"0 0 300 200\">\n"
                             "<path fill=\"#111111\" fill-rule=\"evenodd\" d=\"M100.0 50.0L100.0 150.0L200.0 "
                             "150.0L200.0 50.0Z\"/>\n"
                             "</svg>"));
    run = cli({QStringLiteral("trace"), QStringLiteral("--set"), QStringLiteral("vectorizeStyle=outline"),
               QStringLiteral("-o"), path(QStringLiteral("o.svg")), in});
    ASSERT_EQ(run.exitCode, 0);
    EXPECT_TRUE(readBytes(path(QStringLiteral("o.svg"))).contains("stroke-width=\"0.9\""));
    run = cli({QStringLiteral("trace"), QStringLiteral("--set"), QStringLiteral("vectorFullColor=true"),
               QStringLiteral("-o"), path(QStringLiteral("c.svg")), in});
    ASSERT_EQ(run.exitCode, 0);
    EXPECT_EQ(run.lines[0].value(QStringLiteral("layers")).toInt(), 2);
    EXPECT_TRUE(readBytes(path(QStringLiteral("c.svg"))).contains("<path fill=\"#000000\""));
}

TEST_F(CliTest, ErrorsSayWhyAndWhere) {
    const QString good = savePng(m_dir, QStringLiteral("good.png"), coordinates(200, 200));
    writeBytes(path(QStringLiteral("notes.png")), "just some words, not a picture\n");
    writeBytes(path(QStringLiteral("empty.jpg")), "");
    const CliRun run = cli({QStringLiteral("process"), QStringLiteral("-o"), path(QStringLiteral("out")),
                            path(QStringLiteral("missing.png")), path(QStringLiteral("notes.png")),
                            path(QStringLiteral("empty.jpg")), good});
    EXPECT_EQ(run.exitCode, 1);
    ASSERT_EQ(run.lines.size(), 4);
    EXPECT_EQ(run.lines[0].value(QStringLiteral("error")).toString(),
              QStringLiteral("1 file couldn’t be opened."))
        << "the model's own message stays the error";
    QString err = run.err;
    EXPECT_EQ(takeSummary(err), QStringLiteral("1 written, 0 skipped, 3 failed"));
    EXPECT_EQ(err, QStringLiteral("cutlark-cli: %1: no such file\n"
                                  "cutlark-cli: %2: not an image type cutlark opens (text/plain)\n"
                                  "cutlark-cli: %3: an empty file\n")
                       .arg(path(QStringLiteral("missing.png")), path(QStringLiteral("notes.png")),
                            path(QStringLiteral("empty.jpg"))));

    // A preset's JSON error points at its line and column; a key that can't be used is named.
    writeBytes(path(QStringLiteral("bad.json")), "{\n  \"threshold\": 30\n  \"trimEnabled\": true\n}\n");
    EXPECT_EQ(
        cli({QStringLiteral("process"), QStringLiteral("--preset"), path(QStringLiteral("bad.json")), good})
            .err,
        QStringLiteral("cutlark-cli: %1:3:4: unterminated object\n").arg(path(QStringLiteral("bad.json"))));
    writeBytes(path(QStringLiteral("picture.json")), "{\"backgroundImage\": \"sky.png\"}");
    const CliRun picture = cli(
        {QStringLiteral("process"), QStringLiteral("--preset"), path(QStringLiteral("picture.json")), good});
    EXPECT_EQ(picture.exitCode, 2);
    EXPECT_TRUE(
        picture.err.contains(QStringLiteral("“backgroundImage” can’t be given: name the picture’s file as "
                                            "backgroundImageURL")))
        << picture.err.toStdString();
    EXPECT_EQ(
        cli({QStringLiteral("process"), QStringLiteral("--set=backgroundImage=sky.png"), good}).exitCode, 2);

    // A full disk (here a file size limit) names the file and the system's reason. Noise, so that
    // the result can't be compressed under the limit.
    QImage noise(200, 200, QImage::Format_RGB32);
    quint32 seed = 12345;
    for (int y = 0; y < 200; ++y)
        for (int x = 0; x < 200; ++x)
            noise.setPixel(x, y, (seed = seed * 1664525u + 1013904223u) >> 8);
    const QString big = savePng(m_dir, QStringLiteral("big.png"), noise);
    QProcess p;
    p.setChildProcessModifier([] {
        signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{2048, 2048};
        setrlimit(RLIMIT_FSIZE, &limit);
    });
    p.start(QStringLiteral(CUTLARK_CLI_PATH),
            {QStringLiteral("process"), QStringLiteral("-o"), path(QStringLiteral("full")), big});
    ASSERT_TRUE(p.waitForFinished(120000));
    EXPECT_EQ(p.exitCode(), 1);
    err = QString::fromUtf8(p.readAllStandardError());
    EXPECT_EQ(takeSummary(err), QStringLiteral("0 written, 0 skipped, 1 failed"));
    EXPECT_EQ(err, QStringLiteral("cutlark-cli: %1: can’t write %2: File too large\n")
                       .arg(big, path(QStringLiteral("full/big-out.png"))));
    EXPECT_FALSE(QFileInfo::exists(path(QStringLiteral("full/big-out.png"))));
}

TEST_F(CliTest, FormatAndQualityAreTheUsersToChoose) {
    QImage photo(160, 120, QImage::Format_RGB32);
    quint32 seed = 7;
    for (int y = 0; y < 120; ++y)
        for (int x = 0; x < 160; ++x)
            photo.setPixel(x, y, qRgb(x, y * 2, int((seed = seed * 1103515245u + 12345u) >> 24)));
    const QString in = savePng(m_dir, QStringLiteral("photo.png"), photo);
    const auto run = [&](const QStringList& extra, const QString& folder) {
        return cli(QStringList{QStringLiteral("process")} + extra +
                   QStringList{QStringLiteral("-o"), path(folder), in});
    };
    const CliRun low =
        run({QStringLiteral("--format=jpeg"), QStringLiteral("--quality=20")}, QStringLiteral("low"));
    const CliRun high = run({QStringLiteral("--format"), QStringLiteral("jpg"), QStringLiteral("--quality"),
                             QStringLiteral("95")},
                            QStringLiteral("high"));
    ASSERT_EQ(low.exitCode, 0) << low.err.toStdString();
    ASSERT_EQ(high.exitCode, 0);
    EXPECT_EQ(low.lines[0].value(QStringLiteral("output")).toString(),
              path(QStringLiteral("low/photo-out.jpg")));
    EXPECT_EQ(low.lines[0].value(QStringLiteral("type")).toString(), QStringLiteral("image/jpeg"));
    const auto lowFile = ImageFile::load(path(QStringLiteral("low/photo-out.jpg")));
    ASSERT_TRUE(lowFile);
    EXPECT_EQ(lowFile->type, QStringLiteral("image/jpeg"));
    EXPECT_LT(readBytes(path(QStringLiteral("low/photo-out.jpg"))).size() * 2,
              readBytes(path(QStringLiteral("high/photo-out.jpg"))).size())
        << "quality 20 is far smaller than 95";
    // WebP at 100 is lossless: the pixels come back as they went.
    ASSERT_EQ(run({QStringLiteral("--format=webp"), QStringLiteral("--quality=100")}, QStringLiteral("webp"))
                  .exitCode,
              0);
    const auto webp = ImageFile::load(path(QStringLiteral("webp/photo-out.webp")));
    ASSERT_TRUE(webp);
    const QImage back = webp->image.convertToFormat(QImage::Format_RGB32);
    ASSERT_EQ(back.size(), photo.size());
    int worst = 0;
    for (int y = 0; y < 120; ++y)
        for (int x = 0; x < 160; ++x)
            worst = std::max({worst, std::abs(qRed(back.pixel(x, y)) - qRed(photo.pixel(x, y))),
                              std::abs(qGreen(back.pixel(x, y)) - qGreen(photo.pixel(x, y))),
                              std::abs(qBlue(back.pixel(x, y)) - qBlue(photo.pixel(x, y)))});
    EXPECT_EQ(worst, 0);
    // Transparency into a type without it is refused, not flattened behind the user's back.
    const CliRun keyed = run({QStringLiteral("--format=jpeg"), QStringLiteral("--set=paddingEnabled=true")},
                             QStringLiteral("keyed"));
    EXPECT_EQ(keyed.exitCode, 1);
    EXPECT_FALSE(QFileInfo::exists(path(QStringLiteral("keyed/photo-out.jpg"))));
    EXPECT_TRUE(keyed.err.contains(QStringLiteral("can’t hold the result’s transparency")));
    for (const char* bad : {"--format=pdf", "--quality=0", "--quality=101", "--format="})
        EXPECT_EQ(run({QLatin1String(bad)}, QStringLiteral("bad")).exitCode, 2) << bad;
}

namespace {

/// What exiv2 reads back from a file: every EXIF and XMP key with its value as text, and whether
/// an EXIF thumbnail is there.
struct ReadBack {
    QMap<QString, QString> tags;
    bool thumbnail = false;
};

ReadBack readMetadata(const QString& file) {
    Exiv2::ExifData exif;
    Exiv2::XmpData xmp;
    if (file.endsWith(QLatin1String(".heic"))) {
        // HEIF's items through libheif (exiv2 0.27 misreads libheif's grid layout), parsed by exiv2.
        const ImageMetadata::Blocks blocks = ImageCodecs::heifMetadata(readBytes(file));
        if (!blocks.exif.isEmpty())
            Exiv2::ExifParser::decode(exif, reinterpret_cast<const Exiv2::byte*>(blocks.exif.constData()),
                                      uint32_t(blocks.exif.size()));
        if (!blocks.xmp.isEmpty()) Exiv2::XmpParser::decode(xmp, blocks.xmp.toStdString());
    } else {
        auto image = Exiv2::ImageFactory::open(QFile::encodeName(file).toStdString(), false);
        image->readMetadata();
        exif = image->exifData();
        xmp = image->xmpData();
    }
    ReadBack back;
    for (const auto& datum : exif)
        back.tags.insert(QString::fromStdString(datum.key()), QString::fromStdString(datum.toString()));
    for (const auto& datum : xmp)
        back.tags.insert(QString::fromStdString(datum.key()), QString::fromStdString(datum.toString()));
    back.thumbnail = Exiv2::ExifThumbC(exif).copy().size_ > 0;
    return back;
}

/// The size the command line opens a file at. Read by `cutlark-cli info` rather than here:
/// decoding HEIC would start libheif's threads in this process, and the race checker can't follow
/// a process that starts programs after that.
QSize openedSize(const QString& file) {
    const CliRun info = cli({QStringLiteral("info"), file});
    if (info.lines.size() != 1) return {};
    return {info.lines[0].value(QStringLiteral("width")).toInt(),
            info.lines[0].value(QStringLiteral("height")).toInt()};
}

} // namespace

TEST_F(CliTest, MetadataIsCarriedOverUprightAndResizedOrStripped) {
    // A phone photo stored sideways: 120×80 pixels with "turn right" in its EXIF, a thumbnail, a
    // camera, a date, a place and an XMP title.
    QImage photo(120, 80, QImage::Format_RGB32);
    for (int y = 0; y < 80; ++y)
        for (int x = 0; x < 120; ++x)
            photo.setPixel(x, y, qRgb(x * 2, y * 3, 90));
    const QString in = path(QStringLiteral("phone.jpg"));
    ASSERT_TRUE(photo.save(in, "JPEG", 95));
    {
        auto image = Exiv2::ImageFactory::open(QFile::encodeName(in).toStdString(), false);
        image->readMetadata();
        Exiv2::ExifData& exif = image->exifData();
        exif["Exif.Image.Make"] = std::string("TestCam");
        exif["Exif.Image.Orientation"] = uint16_t(6);
        exif["Exif.Photo.DateTimeOriginal"] = std::string("2026:05:04 10:11:12");
        exif["Exif.Photo.PixelXDimension"] = uint32_t(120);
        exif["Exif.Photo.PixelYDimension"] = uint32_t(80);
        exif["Exif.Photo.ColorSpace"] = uint16_t(65535);
        exif["Exif.GPSInfo.GPSLatitudeRef"] = std::string("N");
        const QByteArray thumb = readBytes(in);
        Exiv2::ExifThumb(exif).setJpegThumbnail(reinterpret_cast<const Exiv2::byte*>(thumb.constData()),
                                                long(thumb.size()));
        image->xmpData()["Xmp.dc.title"] = std::string("Red shoe");
        image->xmpData()["Xmp.tiff.Orientation"] = std::string("6");
        image->writeMetadata();
    }
    ASSERT_TRUE(readMetadata(in).thumbnail);

    // Upright it is 80×120; resized to 40 wide, 40×60.
    const auto run = [&](const QString& folder, const QStringList& extra) {
        return cli(QStringList{QStringLiteral("process"), QStringLiteral("--set=resizeEnabled=true"),
                               QStringLiteral("--set=resizeWidth=40"), QStringLiteral("-o"), path(folder)} +
                   extra + QStringList{in});
    };
    const QStringList carried{QStringLiteral("jpg"), QStringLiteral("png"), QStringLiteral("webp"),
                              QStringLiteral("tif"), QStringLiteral("heic")};
    for (const QString& type : carried) {
        const CliRun r = run(type, {QStringLiteral("--format=") + type});
        ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
        const QString out = path(type + QStringLiteral("/phone-out.") + type);
        const ReadBack back = readMetadata(out);
        SCOPED_TRACE(type.toStdString());
        EXPECT_EQ(back.tags.value(QStringLiteral("Exif.Image.Make")), QStringLiteral("TestCam"));
        EXPECT_EQ(back.tags.value(QStringLiteral("Exif.Photo.DateTimeOriginal")),
                  QStringLiteral("2026:05:04 10:11:12"));
        EXPECT_EQ(back.tags.value(QStringLiteral("Exif.GPSInfo.GPSLatitudeRef")), QStringLiteral("N"));
        EXPECT_EQ(back.tags.value(QStringLiteral("Exif.Image.Orientation")), QStringLiteral("1"));
        EXPECT_EQ(back.tags.value(QStringLiteral("Exif.Photo.PixelXDimension")), QStringLiteral("40"));
        EXPECT_EQ(back.tags.value(QStringLiteral("Exif.Photo.PixelYDimension")), QStringLiteral("60"));
        EXPECT_EQ(back.tags.value(QStringLiteral("Exif.Photo.ColorSpace")), QStringLiteral("1"));
        EXPECT_EQ(back.tags.value(QStringLiteral("Xmp.dc.title")),
                  QStringLiteral("lang=\"x-default\" Red shoe"));
        EXPECT_EQ(back.tags.value(QStringLiteral("Xmp.tiff.Orientation")), QStringLiteral("1"));
        EXPECT_FALSE(back.thumbnail) << "the thumbnail shows the picture before the work";
        // Read as any viewer reads it: upright once, not turned a second time.
        EXPECT_EQ(openedSize(out), QSize(40, 60));
    }
    // The metadata doesn't disturb the pixels, even where it sits inside the picture's own
    // structure (TIFF).
    ASSERT_EQ(
        run(QStringLiteral("tif-bare"), {QStringLiteral("--format=tif"), QStringLiteral("--strip")}).exitCode,
        0);
    EXPECT_EQ(ImageFile::load(path(QStringLiteral("tif/phone-out.tif")))->image,
              ImageFile::load(path(QStringLiteral("tif-bare/phone-out.tif")))->image);
    // A TIFF's own storage tags and colour profile are its encoder's, not the source's.
    const ReadBack tiff = readMetadata(path(QStringLiteral("tif/phone-out.tif")));
    const ReadBack bareTiff = readMetadata(path(QStringLiteral("tif-bare/phone-out.tif")));
    for (const char* key :
         {"Exif.Image.InterColorProfile", "Exif.Image.StripByteCounts", "Exif.Image.ImageWidth"})
        EXPECT_EQ(tiff.tags.value(QLatin1String(key)), bareTiff.tags.value(QLatin1String(key))) << key;
    // A HEIC source's metadata is read too: the HEIC result made into a JPEG (read by exiv2 alone)
    // still names the camera and stays upright.
    {
        const CliRun r =
            cli({QStringLiteral("process"), QStringLiteral("--format=jpg"), QStringLiteral("-o"),
                 path(QStringLiteral("from-heic")), path(QStringLiteral("heic/phone-out.heic"))});
        ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
        const ReadBack back = readMetadata(path(QStringLiteral("from-heic/phone-out-out.jpg")));
        EXPECT_EQ(back.tags.value(QStringLiteral("Exif.Image.Make")), QStringLiteral("TestCam"));
        EXPECT_EQ(back.tags.value(QStringLiteral("Exif.Image.Orientation")), QStringLiteral("1"));
        EXPECT_EQ(back.tags.value(QStringLiteral("Xmp.dc.title")),
                  QStringLiteral("lang=\"x-default\" Red shoe"));
        EXPECT_EQ(openedSize(path(QStringLiteral("from-heic/phone-out-out.jpg"))), QSize(40, 60));
    }
    // A TIFF source's storage isn't carried into a JPEG.
    {
        const QString tifIn = path(QStringLiteral("tif/phone-out.tif"));
        const CliRun r = cli({QStringLiteral("process"), QStringLiteral("--format=jpg"), QStringLiteral("-o"),
                              path(QStringLiteral("from-tif")), tifIn});
        ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
        const ReadBack back = readMetadata(path(QStringLiteral("from-tif/phone-out-out.jpg")));
        EXPECT_EQ(back.tags.value(QStringLiteral("Exif.Image.Make")), QStringLiteral("TestCam"));
        for (const char* key :
             {"Exif.Image.InterColorProfile", "Exif.Image.StripOffsets", "Exif.Image.BitsPerSample"})
            EXPECT_FALSE(back.tags.contains(QLatin1String(key))) << key;
    }

    // --strip drops it; the later of --strip and --keep-metadata wins.
    ASSERT_EQ(run(QStringLiteral("stripped"), {QStringLiteral("--strip")}).exitCode, 0);
    EXPECT_TRUE(readMetadata(path(QStringLiteral("stripped/phone-out.jpg"))).tags.isEmpty());
    ASSERT_EQ(
        run(QStringLiteral("kept"), {QStringLiteral("--strip"), QStringLiteral("--keep-metadata")}).exitCode,
        0);
    EXPECT_EQ(readMetadata(path(QStringLiteral("kept/phone-out.jpg")))
                  .tags.value(QStringLiteral("Exif.Image.Make")),
              QStringLiteral("TestCam"));
    // HEIC stripped holds none; types that can't hold it are written without it.
    ASSERT_EQ(run(QStringLiteral("heic-bare"), {QStringLiteral("--format=heic"), QStringLiteral("--strip")})
                  .exitCode,
              0);
    EXPECT_TRUE(readMetadata(path(QStringLiteral("heic-bare/phone-out.heic"))).tags.isEmpty());
    for (const QString& type : {QStringLiteral("gif"), QStringLiteral("bmp")}) {
        const CliRun r = run(type, {QStringLiteral("--format=") + type});
        EXPECT_EQ(r.exitCode, 0) << type.toStdString() << r.err.toStdString();
        EXPECT_EQ(openedSize(path(type + QStringLiteral("/phone-out.") + type)), QSize(40, 60));
    }

    // Damaged EXIF (a TIFF header pointing far outside its segment) never fails the result.
    QImage plain(30, 20, QImage::Format_RGB32);
    plain.fill(qRgb(10, 200, 30));
    QByteArray jpeg;
    {
        QBuffer buffer(&jpeg);
        buffer.open(QIODevice::WriteOnly);
        ASSERT_TRUE(plain.save(&buffer, "JPEG"));
    }
    const QByteArray payload = QByteArray("Exif\0\0II*\0\xff\xff\xff\x7f", 14) + QByteArray(40, '\xee');
    QByteArray app1("\xff\xe1", 2);
    app1.append(char((payload.size() + 2) >> 8)).append(char((payload.size() + 2) & 0xff)).append(payload);
    const QString damaged = path(QStringLiteral("damaged.jpg"));
    writeBytes(damaged, jpeg.left(2) + app1 + jpeg.mid(2));
    const CliRun r =
        cli({QStringLiteral("process"), QStringLiteral("-o"), path(QStringLiteral("damaged")), damaged});
    EXPECT_EQ(r.exitCode, 0) << r.err.toStdString();
    EXPECT_EQ(ImageFile::load(path(QStringLiteral("damaged/damaged-out.jpg")))->image.size(), QSize(30, 20));

    EXPECT_EQ(cli({QStringLiteral("info"), QStringLiteral("--strip"), in}).exitCode, 2);
}

TEST_F(CliTest, TraceFailsWithTheStatusText) {
    const QString blank = savePng(m_dir, QStringLiteral("blank.png"), solid(100, 100, Qt::white));
    CliRun run = cli({QStringLiteral("trace"), QStringLiteral("-o"), path(QStringLiteral("b.svg")), blank});
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_TRUE(
        run.err.contains(QStringLiteral("No clear shape to trace. Try turning on Remove background first.")));
    EXPECT_FALSE(QFileInfo::exists(path(QStringLiteral("b.svg"))));
    QImage checker(200, 200, QImage::Format_RGBA8888_Premultiplied);
    for (int y = 0; y < 200; ++y)
        for (int x = 0; x < 200; ++x)
            checker.setPixelColor(x, y, ((x + y) & 1) ? Qt::black : Qt::white);
    const QString busy = savePng(m_dir, QStringLiteral("busy.png"), checker);
    run = cli({QStringLiteral("trace"), QStringLiteral("-o"), path(QStringLiteral("b.svg")), busy});
    EXPECT_TRUE(run.err.contains(QStringLiteral("Too detailed for a single color — turn on Full color.")));
    run = cli({QStringLiteral("trace"), QStringLiteral("--set"), QStringLiteral("vectorFullColor=true"),
               QStringLiteral("-o"), path(QStringLiteral("b.svg")), busy});
    EXPECT_TRUE(run.err.contains(QStringLiteral("No colors found to trace.")));
    // Without -o, beside the input.
    EXPECT_EQ(cli({QStringLiteral("trace"), busy, QStringLiteral("--set=vectorFullColor=true")}).exitCode, 1);
    EXPECT_FALSE(QFileInfo::exists(path(QStringLiteral("busy.svg"))));
}

TEST_F(CliTest, SplitWritesThePiecesAndInfoListsThem) {
    QImage collage = solid(200, 100, Qt::white);
    for (int y = 10; y < 90; ++y)
        for (int x = 10; x < 90; ++x)
            collage.setPixelColor(x, y, Qt::black), collage.setPixelColor(x + 100, y, Qt::black);
    const QString in = savePng(m_dir, QStringLiteral("pair.png"), collage);
    CliRun info = cli({QStringLiteral("info"), in});
    ASSERT_EQ(info.exitCode, 0);
    EXPECT_EQ(info.lines[0].value(QStringLiteral("collageRects")).toArray(),
              (QJsonArray{QJsonArray{99, 10, 91, 80}, QJsonArray{10, 10, 89, 80}}));

    const QString single = savePng(m_dir, QStringLiteral("single.png"), coordinates(40, 40));
    const QString other = savePng(m_dir, QStringLiteral("other.png"), coordinates(30, 40));
    const CliRun run = cli(
        {QStringLiteral("split"), QStringLiteral("-o"), path(QStringLiteral("pieces")), in, single, other});
    EXPECT_EQ(run.exitCode, 0) << "every input was read; pictures that are whole aren't failures";
    ASSERT_EQ(run.lines.size(), 3);
    EXPECT_EQ(
        run.lines[0].value(QStringLiteral("pieces")).toArray(),
        (QJsonArray{path(QStringLiteral("pieces/pair-1.png")), path(QStringLiteral("pieces/pair-2.png"))}));
    EXPECT_EQ(ImageFile::load(path(QStringLiteral("pieces/pair-1.png")))->image.size(), QSize(91, 80));
    EXPECT_EQ(run.lines[1].value(QStringLiteral("notice")).toString(), QStringLiteral("not a collage"));
    EXPECT_FALSE(run.lines[1].contains(QStringLiteral("error")));
    QString err = run.err;
    EXPECT_EQ(takeSummary(err), QStringLiteral("1 written, 2 skipped, 0 failed"));
    EXPECT_EQ(err, QStringLiteral("cutlark-cli: not collages, left as they are: %1, %2\n").arg(single, other))
        << "listed once, together";
    writeBytes(path(QStringLiteral("broken.png")), "\x89PNG\r\n\x1a\n");
    const CliRun broken = cli({QStringLiteral("split"), path(QStringLiteral("broken.png")), single});
    EXPECT_EQ(broken.exitCode, 1) << "an input that can't be read is a failure";
}

TEST_F(CliTest, IdleSettingsAreWarnedAboutAndNoted) {
    // A setting whose switch is off: a warning, and the same words as the result's notice; the
    // result is still written. Switched on, or a switch itself, says nothing.
    const QString a = savePng(m_dir, QStringLiteral("a.png"), coordinates(40, 30));
    const CliRun idle =
        cli({QStringLiteral("process"), QStringLiteral("--set"), QStringLiteral("resizeWidth=20"),
             QStringLiteral("--set"), QStringLiteral("vectorTolerance=3"), QStringLiteral("--set"),
             QStringLiteral("vectorizeEnabled=true"), QStringLiteral("-o"), path(QStringLiteral("idle")), a});
    ASSERT_EQ(idle.exitCode, 0) << idle.err.toStdString();
    QString err = idle.err;
    EXPECT_EQ(takeSummary(err), QStringLiteral("1 written, 0 skipped, 0 failed"));
    EXPECT_EQ(err,
              QStringLiteral("cutlark-cli: warning: resizeWidth has no effect while resizeEnabled is false\n"
                             "cutlark-cli: warning: vectorTolerance has no effect while vectorFullColor is "
                             "false\n"));
    ASSERT_EQ(idle.lines.size(), 1);
    EXPECT_EQ(idle.lines[0].value(QStringLiteral("notice")).toString(),
              QStringLiteral("resizeWidth has no effect while resizeEnabled is false; vectorTolerance has no "
                             "effect while vectorFullColor is false"));
    EXPECT_EQ(idle.lines[0].value(QStringLiteral("width")).toInt(), 40);
    const CliRun busy =
        cli({QStringLiteral("process"), QStringLiteral("--set=resizeEnabled=true"),
             QStringLiteral("--set=resizeWidth=20"), QStringLiteral("-o"), path(QStringLiteral("busy")), a});
    err = busy.err;
    EXPECT_EQ(takeSummary(err), QStringLiteral("1 written, 0 skipped, 0 failed"));
    EXPECT_EQ(err, QString());
    ASSERT_EQ(busy.lines.size(), 1);
    EXPECT_FALSE(busy.lines[0].contains(QStringLiteral("notice")));
    EXPECT_EQ(busy.lines[0].value(QStringLiteral("width")).toInt(), 20);
    // Tracing turns tracing on: only full colour's own settings can be idle there.
    const CliRun trace = cli({QStringLiteral("trace"), QStringLiteral("--set=vectorizeStyle=outline"),
                              QStringLiteral("--set=vectorCleanup=1"), QStringLiteral("-o"),
                              path(QStringLiteral("a.svg")), a});
    err = trace.err;
    EXPECT_EQ(takeSummary(err), QStringLiteral("1 written, 0 skipped, 0 failed"));
    EXPECT_EQ(err, QStringLiteral(
                       "cutlark-cli: warning: vectorCleanup has no effect while vectorFullColor is false\n"));
}
