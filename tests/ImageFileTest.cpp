#include "TestSupport.h"

#include "engines/CropEngine.h"
#include "io/ImageCodecs.h"
#include "io/ImageFile.h"
#include "support/AtomicFile.h"

#include <QBuffer>
#include <QColorSpace>
#include <QImageWriter>
#include <QTransform>

#include <cstring>

#include <gtest/gtest.h>

using namespace cutlark;
using namespace cutlark::test;

namespace {

const QString png = QStringLiteral("image/png");

// Four solid quarters, so that lossy coding leaves each quarter's centre recognisable.
QImage quarters(int w, int h) {
    QImage image(w, h, QImage::Format_RGB32);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const bool right = x >= w / 2, bottom = y >= h / 2;
            image.setPixel(x, y,
                           !bottom ? (right ? qRgb(0, 255, 0) : qRgb(255, 0, 0))
                                   : (right ? qRgb(255, 255, 255) : qRgb(0, 0, 255)));
        }
    return image;
}

// The upright picture for each EXIF orientation, by the definitions of the tag.
QImage uprightOracle(const QImage& stored, int orientation) {
    const QTransform r90 = QTransform().rotate(90), r180 = QTransform().rotate(180),
                     r270 = QTransform().rotate(270);
    switch (orientation) {
    case 2:
        return stored.mirrored(true, false);
    case 3:
        return stored.transformed(r180);
    case 4:
        return stored.mirrored(false, true);
    case 5:
        return stored.transformed(r90).mirrored(true, false); // transpose
    case 6:
        return stored.transformed(r90);
    case 7:
        return stored.transformed(r90).mirrored(false, true); // transverse
    case 8:
        return stored.transformed(r270);
    default:
        return stored;
    }
}

bool near(QRgb a, QRgb b, int tolerance = 24) {
    return std::abs(qRed(a) - qRed(b)) <= tolerance && std::abs(qGreen(a) - qGreen(b)) <= tolerance &&
           std::abs(qBlue(a) - qBlue(b)) <= tolerance;
}

class ImageFileTest : public ::testing::Test {
protected:
    QString path(const QString& name) const { return m_dir.filePath(name); }
    QTemporaryDir m_dir;
};

} // namespace

TEST_F(ImageFileTest, OrientationTagsOneToEightComeOutUpright) {
    const QImage stored = quarters(16, 8);
    for (int orientation = 1; orientation <= 8; ++orientation) {
        SCOPED_TRACE(orientation);
        const QString file = path(QStringLiteral("o%1.jpg").arg(orientation));
        ASSERT_TRUE(writeBytes(file, jpegWithOrientation(stored, orientation)));
        const auto loaded = ImageFile::load(file);
        ASSERT_TRUE(loaded);
        EXPECT_EQ(loaded->type, QStringLiteral("image/jpeg"));
        const QImage expected = uprightOracle(stored, orientation);
        ASSERT_EQ(loaded->image.size(), expected.size());
        const int w = expected.width(), h = expected.height();
        for (const QPoint p : {QPoint(w / 4, h / 4), QPoint(3 * w / 4, h / 4), QPoint(w / 4, 3 * h / 4),
                               QPoint(3 * w / 4, 3 * h / 4)})
            EXPECT_TRUE(near(loaded->image.pixel(p), expected.pixel(p))) << p.x() << "," << p.y();
    }
}

TEST_F(ImageFileTest, OrientationSixTurnsFortyByThirtyUpright) {
    const QString file = path(QStringLiteral("six.jpg"));
    ASSERT_TRUE(writeBytes(file, jpegWithOrientation(quarters(40, 30), 6)));
    const auto loaded = ImageFile::load(file);
    ASSERT_TRUE(loaded);
    EXPECT_EQ(loaded->image.size(), QSize(30, 40));
}

TEST_F(ImageFileTest, AllEightTypesDecodeAndReportTheirType) {
    const QImage image = quarters(12, 10);
    const struct {
        const char* name;
        const char* format;
        const char* type;
    } qtWritten[] = {{"a.png", "png", "image/png"},
                     {"a.jpg", "jpeg", "image/jpeg"},
                     {"a.tiff", "tiff", "image/tiff"},
                     {"a.bmp", "bmp", "image/bmp"},
                     {"a.webp", "webp", "image/webp"}};
    for (const auto& c : qtWritten) {
        SCOPED_TRACE(c.name);
        ASSERT_TRUE(writeImage(image, path(QLatin1String(c.name)), c.format));
        const auto loaded = ImageFile::load(path(QLatin1String(c.name)));
        ASSERT_TRUE(loaded);
        EXPECT_EQ(loaded->type, QLatin1String(c.type));
        EXPECT_EQ(loaded->image.size(), QSize(12, 10));
        EXPECT_TRUE(near(loaded->image.pixel(2, 2), qRgb(255, 0, 0), 40));
    }

    ASSERT_TRUE(writeBytes(path(QStringLiteral("a.gif")), animatedGif()));
    const auto gif = ImageFile::load(path(QStringLiteral("a.gif")));
    ASSERT_TRUE(gif);
    EXPECT_EQ(gif->type, QStringLiteral("image/gif"));
    EXPECT_EQ(gif->image.size(), QSize(5, 3));
    EXPECT_TRUE(near(gif->image.pixel(1, 1), qRgb(0, 0, 255), 0)) << "the first frame, not the second";

    // HEIC through libheif, both directions; HEIF is the same container under its generic brand.
    ASSERT_TRUE(ImageFile::save(image, path(QStringLiteral("a.heic")), QStringLiteral("image/heic")));
    const auto heic = ImageFile::load(path(QStringLiteral("a.heic")));
    ASSERT_TRUE(heic);
    EXPECT_EQ(heic->type, QStringLiteral("image/heic"));
    EXPECT_EQ(heic->image.size(), QSize(12, 10));
    EXPECT_TRUE(near(heic->image.pixel(2, 2), qRgb(255, 0, 0), 48));

    QByteArray heifBytes = readBytes(path(QStringLiteral("a.heic")));
    ASSERT_EQ(heifBytes.mid(4, 4), QByteArray("ftyp"));
    heifBytes.replace(8, 4, "mif1");
    ASSERT_TRUE(writeBytes(path(QStringLiteral("a.heif")), heifBytes));
    const auto heif = ImageFile::load(path(QStringLiteral("a.heif")));
    ASSERT_TRUE(heif);
    EXPECT_EQ(heif->type, QStringLiteral("image/heif"));
    EXPECT_EQ(heif->image.size(), QSize(12, 10));
}

TEST_F(ImageFileTest, TypeComesFromContentNotName) {
    ASSERT_TRUE(writeImage(quarters(4, 4), path(QStringLiteral("really-a-png.jpg")), "png"));
    const auto loaded = ImageFile::load(path(QStringLiteral("really-a-png.jpg")));
    ASSERT_TRUE(loaded);
    EXPECT_EQ(loaded->type, png);
}

TEST_F(ImageFileTest, UnusualButValidFilesOpen) {
    // 1×1
    ASSERT_TRUE(writeImage(solid(1, 1, Qt::black), path(QStringLiteral("one.png")), "png"));
    auto one = ImageFile::load(path(QStringLiteral("one.png")));
    ASSERT_TRUE(one);
    EXPECT_EQ(one->image.size(), QSize(1, 1));

    // 16 bits per component keeps its depth; the buffer gets its own 8-bit copy.
    QImage deep(3, 2, QImage::Format_RGBA64);
    deep.fill(QColor::fromRgba64(65535, 32768, 0, 65535));
    ASSERT_TRUE(writeImage(deep, path(QStringLiteral("deep.png")), "png"));
    auto deepLoaded = ImageFile::load(path(QStringLiteral("deep.png")));
    ASSERT_TRUE(deepLoaded);
    EXPECT_GT(deepLoaded->image.depth(), 32);
    auto deepBuffer = CropEngine::Buffer::make(deepLoaded->image);
    ASSERT_TRUE(deepBuffer);
    EXPECT_FALSE(deepBuffer->sharesStore());
    EXPECT_EQ(deepBuffer->pixels()[0], 255);
    EXPECT_EQ(deepBuffer->pixels()[1], 128);
    EXPECT_EQ(deepBuffer->pixels()[3], 255);

    // Greyscale and palette images come in as opaque RGB held once.
    QImage grey(4, 4, QImage::Format_Grayscale8);
    grey.fill(100);
    ASSERT_TRUE(writeImage(grey, path(QStringLiteral("grey.png")), "png"));
    auto greyLoaded = ImageFile::load(path(QStringLiteral("grey.png")));
    ASSERT_TRUE(greyLoaded);
    EXPECT_FALSE(greyLoaded->image.hasAlphaChannel());
    EXPECT_EQ(qRed(greyLoaded->image.pixel(1, 1)), 100);
    EXPECT_TRUE(CropEngine::Buffer::make(greyLoaded->image)->sharesStore());

    QImage palette = quarters(6, 6).convertToFormat(QImage::Format_Indexed8);
    ASSERT_TRUE(writeImage(palette, path(QStringLiteral("palette.png")), "png"));
    auto paletteLoaded = ImageFile::load(path(QStringLiteral("palette.png")));
    ASSERT_TRUE(paletteLoaded);
    EXPECT_EQ(paletteLoaded->image.pixel(4, 1), qRgb(0, 255, 0));

    // CMYK JPEG.
    ASSERT_TRUE(writeBytes(path(QStringLiteral("cmyk.jpg")), cmykJpeg()));
    auto cmyk = ImageFile::load(path(QStringLiteral("cmyk.jpg")));
    ASSERT_TRUE(cmyk);
    EXPECT_EQ(cmyk->image.size(), QSize(6, 4));
    EXPECT_TRUE(near(cmyk->image.pixel(2, 2), qRgb(255, 0, 0), 60));
}

TEST_F(ImageFileTest, BrokenAndMislabelledFilesAreRefused) {
    QByteArray pngBytes;
    {
        const QString p = path(QStringLiteral("full.png"));
        ASSERT_TRUE(writeImage(quarters(64, 64), p, "png"));
        pngBytes = readBytes(p);
    }
    ASSERT_TRUE(writeBytes(path(QStringLiteral("empty.png")), QByteArray()));
    ASSERT_TRUE(writeBytes(path(QStringLiteral("text.png")), "this is not an image\n"));
    ASSERT_TRUE(writeBytes(path(QStringLiteral("header.png")), pngBytes.left(20)));
    ASSERT_TRUE(QDir(m_dir.path()).mkdir(QStringLiteral("folder.png")));
    ASSERT_TRUE(writeBytes(path(QStringLiteral("huge.png")), pngHeaderOnly(100000, 100000)));

    EXPECT_FALSE(ImageFile::load(path(QStringLiteral("empty.png"))));
    EXPECT_FALSE(ImageFile::load(path(QStringLiteral("text.png"))));
    EXPECT_FALSE(ImageFile::load(path(QStringLiteral("header.png"))));
    EXPECT_FALSE(ImageFile::load(path(QStringLiteral("folder.png"))));
    EXPECT_FALSE(ImageFile::load(path(QStringLiteral("missing.png"))));
    EXPECT_FALSE(ImageFile::load(path(QStringLiteral("huge.png")))) << "refused from its header";
    EXPECT_FALSE(ImageFile::loadFromData(pngHeaderOnly(3000000, 3000000)));
}

TEST_F(ImageFileTest, WritableTypesAreWhatThisMachineEncodes) {
    const QStringList& encodable = ImageFile::encodableTypes();
    for (const QString& t :
         {QStringLiteral("image/png"), QStringLiteral("image/jpeg"), QStringLiteral("image/tiff"),
          QStringLiteral("image/bmp"), QStringLiteral("image/webp"), QStringLiteral("image/heic")})
        EXPECT_TRUE(encodable.contains(t)) << qPrintable(t);
    EXPECT_TRUE(encodable.contains(QStringLiteral("image/gif"))) << "our own, Qt carries none";

    for (const QString& t :
         ImageFile::acceptedTypes() + QStringList{QStringLiteral("image/x-tga"), QString()}) {
        const QString w = ImageFile::writableType(t);
        EXPECT_TRUE(w == png || encodable.contains(w)) << qPrintable(t);
    }
    EXPECT_EQ(ImageFile::writableType(QStringLiteral("image/gif")), QStringLiteral("image/gif"));
    EXPECT_EQ(ImageFile::writableType(QStringLiteral("image/x-tga")), png);
    EXPECT_EQ(ImageFile::writableType(QStringLiteral("image/jpeg")), QStringLiteral("image/jpeg"));
}

TEST_F(ImageFileTest, SaveFallsBackToPngUnderTheGivenName) {
    const QString file = path(QStringLiteral("keep-name.tga"));
    ASSERT_TRUE(ImageFile::save(quarters(8, 8), file, QStringLiteral("image/x-tga")));
    EXPECT_TRUE(readBytes(file).startsWith(QByteArray::fromHex("89504e47")));
    const auto back = ImageFile::load(file);
    ASSERT_TRUE(back);
    EXPECT_EQ(back->type, png);
}

TEST_F(ImageFileTest, GifIsARealGifWithItsOwnPaletteAndTransparency) {
    // 128 × 64: a smooth ramp of far more than 256 colours on the left, flat patches on the right,
    // and a bottom band of alpha at 0, 60, 127, 128, 200 and 255.
    QImage image(128, 64, QImage::Format_ARGB32);
    for (int y = 0; y < 48; ++y)
        for (int x = 0; x < 128; ++x)
            image.setPixel(x, y,
                           x < 64 ? qRgb(x * 4, y * 5, 255 - x * 2)
                                  : (x < 96 ? qRgb(200, 30, 40) : qRgb(20, 90, 220)));
    const int alphas[] = {0, 60, 127, 128, 200, 255};
    for (int y = 48; y < 64; ++y)
        for (int x = 0; x < 128; ++x)
            image.setPixel(x, y, qRgba(250, 200, 10, alphas[std::min(x / 21, 5)]));
    const QString file = path(QStringLiteral("real.gif"));
    ASSERT_TRUE(ImageFile::save(image, file, QStringLiteral("image/gif")));
    const QByteArray bytes = readBytes(file);
    EXPECT_TRUE(bytes.startsWith("GIF89a")) << "GIF89a: the transparency block needs it";
    EXPECT_LT(bytes.size(), 128 * 64) << "an LZW-compressed palette image, not PNG bytes";

    const auto back = ImageFile::load(file);
    ASSERT_TRUE(back);
    EXPECT_EQ(back->type, QStringLiteral("image/gif"));
    ASSERT_EQ(back->image.size(), image.size());
    const QImage read = back->image.convertToFormat(QImage::Format_ARGB32);
    EXPECT_TRUE(near(read.pixel(80, 10), qRgb(200, 30, 40), 2)) << "flat colours keep their entry";
    EXPECT_TRUE(near(read.pixel(110, 40), qRgb(20, 90, 220), 2));
    int worst = 0;
    for (int y = 0; y < 48; ++y)
        for (int x = 0; x < 64; ++x) {
            const QRgb a = image.pixel(x, y), b = read.pixel(x, y);
            worst = std::max({worst, std::abs(qRed(a) - qRed(b)), std::abs(qGreen(a) - qGreen(b)),
                              std::abs(qBlue(a) - qBlue(b))});
        }
    EXPECT_LE(worst, 24) << "the ramp is dithered over a palette, not posterised";
    for (int i = 0; i < 6; ++i) {
        const QRgb p = read.pixel(i * 21 + 10, 56);
        if (alphas[i] >= 128) {
            EXPECT_EQ(qAlpha(p), 255) << alphas[i];
            EXPECT_TRUE(near(p, qRgb(250, 200, 10), 3)) << alphas[i];
        } else {
            EXPECT_EQ(qAlpha(p), 0) << alphas[i];
        }
    }

    // An opaque picture has no transparent colour; one past GIF's 16-bit sides is refused.
    const QString opaque = path(QStringLiteral("opaque.gif"));
    ASSERT_TRUE(ImageFile::save(quarters(40, 40), opaque, QStringLiteral("image/gif")));
    EXPECT_FALSE(ImageFile::load(opaque)->image.hasAlphaChannel());
    EXPECT_TRUE(
        ImageFile::encode(QImage(70000, 1, QImage::Format_RGB32), QStringLiteral("image/gif")).isEmpty());
}

TEST_F(ImageFileTest, JpegIsWrittenAtQualityNinetyTwo) {
    const QImage image = quarters(32, 32);
    ASSERT_TRUE(ImageFile::save(image, path(QStringLiteral("q.jpg")), QStringLiteral("image/jpeg")));
    ASSERT_TRUE(writeImage(image, path(QStringLiteral("q92.jpg")), "jpeg", 92));
    EXPECT_EQ(readBytes(path(QStringLiteral("q.jpg"))), readBytes(path(QStringLiteral("q92.jpg"))));
}

TEST_F(ImageFileTest, JpegBytesAreQtsWritersWhateverTheFormatProfileResolutionAndQuality) {
    // JPEG is written straight from 32-bit pixels; the bytes must stay exactly what Qt's writer
    // gives, and what the direct path leaves alone (see-through pixels, grey) still goes to it.
    const auto qtBytes = [](const QImage& image, int quality) {
        QByteArray bytes;
        QBuffer buffer(&bytes);
        buffer.open(QIODevice::WriteOnly);
        QImageWriter writer(&buffer, "jpeg");
        writer.setQuality(quality);
        return writer.write(image) ? bytes : QByteArray();
    };
    QImage noisy(67, 45, QImage::Format_ARGB32);
    quint32 seed = 7;
    for (int y = 0; y < noisy.height(); ++y)
        for (int x = 0; x < noisy.width(); ++x) {
            seed = seed * 1664525u + 1013904223u;
            noisy.setPixel(x, y, qRgb(int(seed >> 24), (x * 5 + int(seed >> 28)) & 255, (y * 5) & 255));
        }
    int direct = 0;
    for (const QImage::Format format :
         {QImage::Format_RGB32, QImage::Format_ARGB32, QImage::Format_ARGB32_Premultiplied,
          QImage::Format_RGBX8888, QImage::Format_RGBA8888, QImage::Format_RGBA8888_Premultiplied,
          QImage::Format_Grayscale8, QImage::Format_RGB888})
        for (const QColorSpace& space :
             {QColorSpace(), QColorSpace(QColorSpace::SRgb), QColorSpace(QColorSpace::DisplayP3)})
            for (const int dotsPerMeter : {3780, 2835, 11811})
                for (const int quality : {92, 30, 100}) {
                    QImage image = noisy.convertToFormat(format);
                    image.setColorSpace(space);
                    image.setDotsPerMeterX(dotsPerMeter);
                    image.setDotsPerMeterY(dotsPerMeter + 100);
                    const QByteArray ours =
                        ImageFile::encode(image, QStringLiteral("image/jpeg"), {}, quality);
                    ASSERT_FALSE(ours.isEmpty());
                    EXPECT_EQ(ours, qtBytes(image, quality))
                        << "format " << int(format) << ", profile " << space.isValid() << ", " << dotsPerMeter
                        << " dots a metre, quality " << quality;
                    direct += !ImageCodecs::encodeJpeg(image, quality).isEmpty();
                }
    EXPECT_EQ(direct, 6 * 3 * 3 * 3); // the six 32-bit formats took the direct path
    QImage seeThrough = noisy.convertToFormat(QImage::Format_ARGB32_Premultiplied);
    seeThrough.setPixel(66, 44, qRgba(10, 20, 30, 128));
    EXPECT_TRUE(ImageCodecs::encodeJpeg(seeThrough, 92).isEmpty());
    EXPECT_EQ(ImageFile::encode(seeThrough, QStringLiteral("image/jpeg"), {}, 92), qtBytes(seeThrough, 92));
    // A crop inside a wider picture (rows longer than the width).
    const QImage wide = noisy.convertToFormat(QImage::Format_RGB32);
    const QImage inner(wide.constScanLine(3) + 4 * 5, 40, 30, wide.bytesPerLine(), QImage::Format_RGB32);
    EXPECT_EQ(ImageFile::encode(inner, QStringLiteral("image/jpeg"), {}, 92), qtBytes(inner.copy(), 92));
}

TEST_F(ImageFileTest, PngEffortChoosesZlibsLevelAndNeverThePixels) {
    // A cutout-like picture: a textured disc on transparency.
    QImage image(240, 160, QImage::Format_RGBA8888_Premultiplied);
    quint32 seed = 11;
    for (int y = 0; y < 160; ++y)
        for (int x = 0; x < 240; ++x) {
            seed = seed * 1664525u + 1013904223u;
            const bool in = (x - 120) * (x - 120) + (y - 80) * (y - 80) < 70 * 70;
            const int grain = int(seed >> 29);
            image.setPixel(x, y, in ? qRgba(x / 2 + grain, y + grain, 90, 255) : 0);
        }
    const QString png = QStringLiteral("image/png");
    const QByteArray rules = ImageFile::encode(image, png);
    EXPECT_EQ(ImageFile::encode(image, png, ImageFile::kUnknownSource, 60), rules)
        << "60 is zlib's default level 6, which the save rules use";
    const QByteArray fast = ImageFile::encode(image, png, ImageFile::kUnknownSource, 1);
    const QByteArray window =
        ImageFile::encode(image, png, ImageFile::kUnknownSource, ImageFile::kInteractivePngEffort);
    const QByteArray best = ImageFile::encode(image, png, ImageFile::kUnknownSource, 100);
    EXPECT_LT(best.size(), rules.size());
    EXPECT_LT(rules.size(), window.size());
    EXPECT_LT(window.size(), fast.size());
    for (const QByteArray& bytes : {fast, window, best}) {
        const auto back = ImageFile::loadFromData(bytes);
        ASSERT_TRUE(back);
        const QImage pixels = back->image.convertToFormat(QImage::Format_RGBA8888_Premultiplied);
        ASSERT_EQ(pixels.size(), image.size());
        int differing = 0;
        for (int y = 0; y < 160; ++y)
            differing += std::memcmp(pixels.constScanLine(y), image.constScanLine(y), 240 * 4) != 0;
        EXPECT_EQ(differing, 0) << "rows with other pixels";
    }
    EXPECT_EQ(ImageFile::interactiveQuality(png), ImageFile::kInteractivePngEffort);
    EXPECT_EQ(ImageFile::interactiveQuality(QStringLiteral("image/jpeg")), -1) << "JPEG keeps its 92";
    EXPECT_EQ(ImageFile::interactiveQuality(QStringLiteral("image/bmp")),
              ImageFile::writableType(QStringLiteral("image/bmp")) == png ? ImageFile::kInteractivePngEffort
                                                                          : -1);
}

TEST_F(ImageFileTest, AnOpaquePictureInAFormatWithAlphaIsWrittenWithoutIt) {
    QImage image = coordinates(30, 20).convertToFormat(QImage::Format_RGBA8888_Premultiplied);
    ASSERT_TRUE(image.hasAlphaChannel());
    EXPECT_FALSE(ImageFile::hasTransparency(image));
    const QByteArray opaque = ImageFile::encode(image, QStringLiteral("image/png"));
    EXPECT_EQ(opaque.at(25), 2) << "IHDR colour type: RGB, no alpha channel";
    const auto back = ImageFile::loadFromData(opaque);
    ASSERT_TRUE(back);
    const QImage pixels = back->image.convertToFormat(QImage::Format_RGBA8888_Premultiplied);
    ASSERT_EQ(pixels.size(), image.size());
    for (int y = 0; y < 20; ++y)
        EXPECT_EQ(std::memcmp(pixels.constScanLine(y), image.constScanLine(y), 30 * 4), 0) << "row " << y;
    // One pixel that isn't quite opaque keeps the channel.
    image.setPixel(29, 19, qRgba(0, 0, 0, 254));
    EXPECT_TRUE(ImageFile::hasTransparency(image));
    EXPECT_TRUE(ImageFile::hasTransparency(image.convertToFormat(QImage::Format_ARGB32)));
    EXPECT_EQ(ImageFile::encode(image, QStringLiteral("image/png")).at(25), 6) << "RGBA";
    if (ImageCodecs::hasHeifEncoder()) {
        // Nor does a HEIC of an opaque picture carry an alpha picture (which costs a second encode).
        const auto heic = ImageFile::loadFromData(ImageCodecs::encodeHeif(
            coordinates(64, 64).convertToFormat(QImage::Format_ARGB32_Premultiplied)));
        ASSERT_TRUE(heic);
        EXPECT_FALSE(heic->image.hasAlphaChannel());
    }
}

TEST_F(ImageFileTest, AlphaSupportIsByTypeEquality) {
    for (const char* t : {"image/png", "image/tiff", "image/gif", "image/heic", "image/heif", "image/webp"})
        EXPECT_TRUE(ImageFile::supportsAlpha(QLatin1String(t))) << t;
    for (const char* t : {"image/jpeg", "image/bmp", "image/x-tga", ""})
        EXPECT_FALSE(ImageFile::supportsAlpha(QLatin1String(t))) << t;
}

TEST_F(ImageFileTest, FailedWritesLeaveTheOldFileIntact) {
    const QString file = path(QStringLiteral("original.png"));
    ASSERT_TRUE(writeImage(quarters(8, 8), file, "png"));
    const QByteArray before = readBytes(file);

    for (AtomicFile::Step failing : {AtomicFile::Step::open, AtomicFile::Step::write, AtomicFile::Step::sync,
                                     AtomicFile::Step::rename}) {
        AtomicFile::setFaultInjector(
            [failing](AtomicFile::Step step, const QString&) { return step != failing; });
        EXPECT_FALSE(ImageFile::save(solid(8, 8, Qt::black), file, png));
        AtomicFile::setFaultInjector({});
        EXPECT_EQ(readBytes(file), before);
        EXPECT_EQ(QDir(m_dir.path()).entryList(QDir::Files), QStringList{QStringLiteral("original.png")})
            << "no temporary file is left behind";
    }

    // A folder in the way, or a folder that doesn't exist.
    ASSERT_TRUE(QDir(m_dir.path()).mkdir(QStringLiteral("dir.png")));
    EXPECT_FALSE(ImageFile::save(quarters(8, 8), path(QStringLiteral("dir.png")), png));
    EXPECT_TRUE(QFileInfo(path(QStringLiteral("dir.png"))).isDir());
    EXPECT_FALSE(ImageFile::save(quarters(8, 8), path(QStringLiteral("nowhere/x.png")), png));

    // And a successful write replaces the content.
    ASSERT_TRUE(ImageFile::save(solid(2, 2, Qt::black), file, png));
    EXPECT_EQ(ImageFile::load(file)->image.size(), QSize(2, 2));
}

TEST_F(ImageFileTest, ExtensionsNameTypes) {
    EXPECT_EQ(ImageFile::typeForExtension(QStringLiteral("PNG")), png);
    EXPECT_EQ(ImageFile::typeForExtension(QStringLiteral("jpg")), QStringLiteral("image/jpeg"));
    EXPECT_EQ(ImageFile::typeForExtension(QStringLiteral("heic")), QStringLiteral("image/heic"));
    EXPECT_EQ(ImageFile::typeForExtension(QStringLiteral("heif")), QStringLiteral("image/heif"));
    EXPECT_EQ(ImageFile::typeForExtension(QString()), QString());
    EXPECT_EQ(ImageFile::typeForExtension(QStringLiteral("zzqq")), QString());
    EXPECT_EQ(ImageFile::preferredExtension(QStringLiteral("image/heic")), QStringLiteral("heic"));
    EXPECT_EQ(ImageFile::preferredExtension(png), QStringLiteral("png"));
}
