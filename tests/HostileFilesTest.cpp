// Files made to hurt: each is refused, or opened for what it really is, in bounded time and memory.
#include "HostileFiles.h"
#include "TestSupport.h"

#include "io/ImageCodecs.h"
#include "io/ImageFile.h"
#include "io/ImageMetadata.h"
#include "io/MetadataBlocks.h"
#include "io/PngChunks.h"
#include "model/CropModel.h"
#include "support/MemoryBudget.h"

#include <QBuffer>
#include <QColorSpace>
#include <QElapsedTimer>
#include <QFile>
#include <QImageReader>
#include <QImageWriter>

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <string>

using namespace cutlark;
using namespace cutlark::test;

namespace {

qint64 statusKilobytes(const char* key) {
    std::ifstream in("/proc/self/status");
    std::string line;
    while (std::getline(in, line))
        if (line.rfind(key, 0) == 0) return std::stoll(line.substr(std::strlen(key)));
    return -1;
}

/// The most memory the process held at once while `run` ran, beyond what it held before.
template <class F> qint64 peakGrowthBytes(F&& run) {
    std::ofstream("/proc/self/clear_refs") << "5"; // starts the high-water mark afresh
    const qint64 before = statusKilobytes("VmRSS:");
    run();
    return (statusKilobytes("VmHWM:") - before) * 1024;
}

constexpr qint64 kSmallGrowth = qint64(64) << 20;

/// Restores the memory budget the machine gives whatever a test did with it.
struct BudgetGuard {
    ~BudgetGuard() { MemoryBudget::setLimit(0); }
};

int maxDifference(const QImage& a, const QImage& b) {
    if (a.size() != b.size()) return 256;
    const QImage x = a.convertToFormat(QImage::Format_RGBX8888),
                 y = b.convertToFormat(QImage::Format_RGBX8888);
    int worst = 0;
    for (int row = 0; row < x.height(); ++row) {
        const uchar* p = x.constScanLine(row);
        const uchar* q = y.constScanLine(row);
        for (int i = 0; i < x.width() * 4; ++i)
            worst = std::max(worst, std::abs(p[i] - q[i]));
    }
    return worst;
}

QImage qtDecode(const QByteArray& bytes) {
    QBuffer buffer;
    buffer.setData(bytes);
    buffer.open(QIODevice::ReadOnly);
    QImageReader reader(&buffer);
    reader.setAutoTransform(true);
    return reader.read();
}

} // namespace

TEST(HostilePng, TextChunksCostNothingAndLengthsPastTheEndAreRefused) {
    // Forty chunks of 7.9 MB of text each: a reader that keeps them needs gigabytes for one pixel.
    const QByteArray text = hostile::pngWithTextChunks(40, 7'900'000);
    ASSERT_LT(text.size(), 1'000'000) << "a small file";
    std::optional<ImageFile::Loaded> loaded;
    const qint64 growth = peakGrowthBytes([&] { loaded = ImageFile::loadFromData(text); });
    ASSERT_TRUE(loaded) << "the picture itself is fine";
    EXPECT_EQ(loaded->image.size(), QSize(1, 1));
    EXPECT_EQ(loaded->image.pixel(0, 0), qRgba(0xff, 0x20, 0x10, 0xff));
    EXPECT_LT(growth, kSmallGrowth);

    // 50 bytes that claim a 2 GB chunk.
    const QByteArray claim = hostile::pngClaimingChunk(0x7fffffff);
    EXPECT_LT(claim.size(), 64);
    const qint64 claimGrowth = peakGrowthBytes([&] { loaded = ImageFile::loadFromData(claim); });
    EXPECT_FALSE(loaded);
    EXPECT_LT(claimGrowth, kSmallGrowth);
    // Any length beyond the end of the file is refused; the largest the format allows as well.
    EXPECT_FALSE(ImageFile::loadFromData(hostile::pngClaimingChunk(100)));
    EXPECT_FALSE(ImageFile::loadFromData(hostile::pngClaimingChunk(0xffffffffu)));
}

TEST(HostilePng, TheWalkKeepsWhatMakesThePicture) {
    // A real picture with a profile and text: the text goes, the pixels and the colour space stay.
    QImage picture = coordinates(40, 30);
    picture.setColorSpace(QColorSpace(QColorSpace::DisplayP3));
    picture.setText(QStringLiteral("Comment"), QString(5000, QLatin1Char('x')));
    QByteArray bytes;
    QBuffer out(&bytes);
    out.open(QIODevice::WriteOnly);
    ASSERT_TRUE(QImageWriter(&out, "png").write(picture));
    QBuffer in(&bytes);
    in.open(QIODevice::ReadOnly);
    const PngChunks::Walk walk = PngChunks::walk(in);
    ASSERT_EQ(walk.verdict, PngChunks::Verdict::filtered);
    EXPECT_GE(walk.dropped, 1);
    EXPECT_LT(walk.bytes.size(), bytes.size());
    const auto loaded = ImageFile::loadFromData(bytes);
    ASSERT_TRUE(loaded);
    // The profile was read: the picture comes in converted to sRGB, as every picture is held.
    EXPECT_EQ(loaded->image.colorSpace(), QColorSpace(QColorSpace::SRgb));
    EXPECT_LE(
        maxDifference(loaded->image, qtDecode(bytes).convertedToColorSpace(QColorSpace(QColorSpace::SRgb))),
        1);
    EXPECT_GT(maxDifference(loaded->image, qtDecode(bytes)), 2) << "and the conversion did something";

    // A file with nothing to drop is read as it is.
    QTemporaryDir dir;
    const QByteArray plain = readBytes(savePng(dir, QStringLiteral("p.png"), coordinates(8, 8)));
    QBuffer plainIn;
    plainIn.setData(plain);
    plainIn.open(QIODevice::ReadOnly);
    EXPECT_EQ(PngChunks::walk(plainIn).verdict, PngChunks::Verdict::clean);
}

TEST(HostileJpeg, AScanBombIsRefusedAndRealProgressiveFilesOpen) {
    // 160 scans, far more than any encoder writes: given up on at the limit.
    const QByteArray bomb = hostile::jpegWithRepeatedScans(256, 256, 150);
    EXPECT_FALSE(qtDecode(bomb).isNull()) << "a decoder without a limit takes it (and, at 8000², a minute)";
    EXPECT_FALSE(ImageFile::loadFromData(bomb));
    // A few repeats stay under the limit and open, damaged scans and all.
    EXPECT_TRUE(ImageFile::loadFromData(hostile::jpegWithRepeatedScans(256, 256, 5)));
    // The frame header is believed only as far as the budget goes.
    const QByteArray giant = hostile::jpegClaimingSize(39000, 39000);
    std::optional<ImageFile::Loaded> loaded;
    const qint64 growth = peakGrowthBytes([&] { loaded = ImageFile::loadFromData(giant); });
    EXPECT_FALSE(loaded);
    EXPECT_LT(growth, kSmallGrowth);
}

TEST(JpegDecoder, MatchesQtsReaderOnEveryKindOfFile) {
    // The same library under both, so the pixels must agree exactly; only the way there differs.
    QImage colours = coordinates(97, 61);
    const auto encode = [](const QImage& image, bool progressive) {
        QByteArray bytes;
        QBuffer out(&bytes);
        out.open(QIODevice::WriteOnly);
        QImageWriter writer(&out, "jpeg");
        writer.setQuality(90);
        writer.setProgressiveScanWrite(progressive);
        writer.write(image);
        return bytes;
    };
    const QList<QPair<const char*, QByteArray>> files = {
        {"baseline", encode(colours, false)},
        {"progressive", encode(colours, true)},
        {"grey", encode(colours.convertToFormat(QImage::Format_Grayscale8), false)},
        {"cmyk", cmykJpeg()},
    };
    for (const auto& [name, bytes] : files) {
        const auto ours = ImageFile::loadFromData(bytes);
        ASSERT_TRUE(ours) << name;
        EXPECT_EQ(ours->type, QStringLiteral("image/jpeg")) << name;
        EXPECT_EQ(ours->image.format(), QImage::Format_RGBX8888) << name << ": the buffer's own layout";
        EXPECT_EQ(maxDifference(ours->image, qtDecode(bytes)), 0) << name;
    }
    for (int orientation = 1; orientation <= 8; ++orientation) {
        const QByteArray bytes = jpegWithOrientation(coordinates(40, 30), orientation);
        const auto ours = ImageFile::loadFromData(bytes);
        ASSERT_TRUE(ours) << orientation;
        EXPECT_EQ(maxDifference(ours->image, qtDecode(bytes)), 0) << "orientation " << orientation;
    }
    // EXIF that lies about its own structure reads as "no orientation".
    const uchar broken[] = {'E', 'x', 'i', 'f', 0, 0, 'M', 'M', 0, 42, 0xff, 0xff, 0xff, 0xf0, 0, 1};
    EXPECT_EQ(ImageCodecs::exifOrientation(broken, sizeof broken), 1);
}

TEST(HostileHeif, AGridDecodingPastTwoGigabytesIsRefusedBeforeLibheifSeesIt) {
    // A small grid opens whole: four tiles, the canvas their extent.
    const QByteArray small = hostile::heicGrid(2, 2, 64);
    const auto canvases = ImageCodecs::heifDerivedCanvases(reinterpret_cast<const uchar*>(small.constData()),
                                                           size_t(small.size()));
    ASSERT_TRUE(canvases);
    EXPECT_EQ(*canvases, std::vector<QSize>{QSize(128, 128)});
    const auto opened = ImageFile::loadFromData(small);
    ASSERT_TRUE(opened);
    EXPECT_EQ(opened->type, QStringLiteral("image/heic"));
    EXPECT_EQ(opened->image.size(), QSize(128, 128));

    // 91 × 91 tiles of 256²: 23296², 2.17 GB as RGBA, which libheif 1.15 writes out of bounds.
    const QByteArray bomb = hostile::heicGrid(91, 91, 256);
    std::optional<ImageFile::Loaded> loaded;
    const qint64 growth = peakGrowthBytes([&] { loaded = ImageFile::loadFromData(bomb); });
    EXPECT_FALSE(loaded);
    EXPECT_LT(growth, kSmallGrowth) << "refused before anything is decoded";

    // A grid whose stated size is small but whose canvas is the bomb's: the canvas counts.
    EXPECT_FALSE(ImageFile::loadFromData(hostile::heicGrid(2, 2, 64, QSize(23296, 23296), QSize(128, 128))));
    // A canvas that isn't the size the file states is not believed, however small.
    EXPECT_FALSE(ImageFile::loadFromData(hostile::heicGrid(2, 2, 64, QSize(256, 256), QSize(128, 128))));
}

TEST(HostileHeif, AGridThatIsOneOfItsOwnTilesIsRefusedBeforeLibheifFollowsIt) {
    // libheif follows the grid into itself, a thread per tile at each level, until the machine runs
    // out of memory or process slots.
    const QByteArray itself = hostile::heicGrid(8, 8, 64, std::nullopt, std::nullopt, true);
    const auto* data = reinterpret_cast<const uchar*>(itself.constData());
    EXPECT_FALSE(ImageCodecs::heifDerivationIsSound(data, size_t(itself.size())));
    std::optional<ImageFile::Loaded> loaded;
    const qint64 growth = peakGrowthBytes([&] { loaded = ImageFile::loadFromData(itself); });
    EXPECT_FALSE(loaded);
    EXPECT_LT(growth, kSmallGrowth);
    EXPECT_TRUE(ImageCodecs::heifMetadata(itself).isEmpty());
    // The same grid with coded tiles only is sound, and opens.
    const QByteArray plain = hostile::heicGrid(8, 8, 64);
    EXPECT_TRUE(ImageCodecs::heifDerivationIsSound(reinterpret_cast<const uchar*>(plain.constData()),
                                                   size_t(plain.size())));
    EXPECT_TRUE(ImageFile::loadFromData(plain));
}

TEST(MemoryBudget, PicturesAreAdmittedWithTheirWorkAndHeldWhileTheyLive) {
    BudgetGuard guard;
    QTemporaryDir dir;
    const QString a = savePng(dir, QStringLiteral("a.png"), coordinates(200, 100)); // 80 000 bytes decoded
    const QString b = savePng(dir, QStringLiteral("b.png"), coordinates(200, 100));
    const qint64 picture = 200 * 100 * 4;
    const qint64 before = MemoryBudget::inUse();

    // Room for one picture and its work, not for two.
    MemoryBudget::setLimit(before + picture * (1 + MemoryBudget::kWorkFactor) + picture / 2);
    {
        CropModel model;
        model.open({a, b});
        ASSERT_EQ(model.items().size(), 1u) << "the second doesn't fit beside the first and its work";
        EXPECT_EQ(model.errorMessage(), QStringLiteral("1 file couldn’t be opened."));
        EXPECT_EQ(MemoryBudget::inUse() - before, picture) << "the item holds its pixels";
        model.remove(model.items().front().id);
        EXPECT_EQ(MemoryBudget::inUse(), before) << "and gives them back when it goes";
        model.open({b});
        EXPECT_EQ(model.items().size(), 1u);
    }
    EXPECT_EQ(MemoryBudget::inUse(), before);

    // Five tiny files that each claim 39000²: refused from their headers, at no cost.
    MemoryBudget::setLimit(qint64(4) << 30);
    QStringList claims;
    for (int i = 0; i < 5; ++i) {
        claims << dir.filePath(QStringLiteral("claim%1.jpg").arg(i));
        writeBytes(claims.back(), hostile::jpegClaimingSize(39000, 39000));
    }
    CropModel model;
    const qint64 growth = peakGrowthBytes([&] { model.open(claims); });
    EXPECT_TRUE(model.items().empty());
    EXPECT_EQ(model.errorMessage(), QStringLiteral("5 files couldn’t be opened."));
    EXPECT_LT(growth, kSmallGrowth);

    // Waiting for room: a hold that fits once another is given back.
    MemoryBudget::setLimit(MemoryBudget::inUse() + 1000);
    auto first = MemoryBudget::tryHold(800);
    ASSERT_TRUE(first);
    EXPECT_FALSE(MemoryBudget::tryHold(800));
    EXPECT_FALSE(MemoryBudget::waitHold(2000)) << "more than the whole budget is refused at once";
    int asked = 0;
    EXPECT_FALSE(MemoryBudget::waitHold(800, [&] { return ++asked < 3; })) << "waiting can be given up";
    first->release();
    EXPECT_TRUE(MemoryBudget::waitHold(800));
}

TEST(HostileSizes, PicturesOutOfAllProportionToTheirFileAreRefusedSayingHowToAllowThem) {
    struct Case {
        const char* name;
        QByteArray bytes;
        QSize claimed;
    };
    const QList<Case> cases = {
        {"an RLE BMP of 1 KB", hostile::bmpRle(16000, 16000), QSize(16000, 16000)},
        {"a PNG of one grey", hostile::flatPng(8000, 8000), QSize(8000, 8000)},
        {"an animated WebP's canvas", hostile::animatedWebp(QSize(16383, 16383), QSize(1, 1)),
         QSize(16383, 16383)},
    };
    // A picture of the size that any file may hold opens first, so that nothing it set lets the
    // others through: a 6000² animation of one small frame opens as its first frame, on its canvas.
    const auto animation = ImageFile::loadFromData(hostile::animatedWebp(QSize(6000, 6000), QSize(600, 400)));
    ASSERT_TRUE(animation);
    EXPECT_EQ(animation->image.size(), QSize(6000, 6000));
    EXPECT_TRUE(ImageFile::lastRefusal().isEmpty());
    for (const Case& c : cases) {
        std::optional<ImageFile::Loaded> loaded;
        const qint64 growth = peakGrowthBytes([&] { loaded = ImageFile::loadFromData(c.bytes); });
        EXPECT_FALSE(loaded) << c.name;
        EXPECT_LT(growth, kSmallGrowth) << c.name;
        const qint64 megapixels = (qint64(c.claimed.width()) * c.claimed.height() + 999'999) / 1'000'000;
        EXPECT_TRUE(ImageFile::lastRefusal().startsWith(
            QStringLiteral("holds %1 × %2 pixels (%3 megapixels) in a file of ")
                .arg(c.claimed.width())
                .arg(c.claimed.height())
                .arg(megapixels)))
            << qPrintable(ImageFile::lastRefusal());
        EXPECT_TRUE(
            ImageFile::lastRefusal().endsWith(QStringLiteral("give --max-megapixels %1").arg(megapixels)));
    }
    // The rule: 40 megapixels from any file, 20 pixels per byte beyond; more when allowed.
    EXPECT_EQ(ImageFile::allowedPixels(1000), ImageFile::kFreePixels);
    EXPECT_EQ(ImageFile::allowedPixels(5'000'000), 100'000'000);
    const QByteArray justOver = hostile::bmpRle(6400, 6400); // 41 megapixels in 1 KB
    EXPECT_FALSE(ImageFile::loadFromData(justOver));
    ImageFile::setMaxMegapixels(41);
    const auto allowed = ImageFile::loadFromData(justOver);
    ImageFile::setMaxMegapixels(0);
    ASSERT_TRUE(allowed);
    EXPECT_EQ(allowed->image.size(), QSize(6400, 6400));
    EXPECT_FALSE(ImageFile::loadFromData(justOver)) << "and back to the rule";
}

TEST(HostilePng, ASizeProbeReadsTheHeaderAndNotTheText) {
    // Four hundred chunks of 4 MB of text: Qt's reader inflated them all to say the size.
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("text.png"));
    writeBytes(path, hostile::pngWithTextChunks(400, 4'000'000));
    std::optional<QSize> size;
    const qint64 growth = peakGrowthBytes([&] { size = ImageFile::probeSize(path); });
    ASSERT_TRUE(size);
    EXPECT_EQ(*size, QSize(1, 1));
    EXPECT_LT(growth, kSmallGrowth);
    writeBytes(path, hostile::pngClaimingChunk(100).left(20));
    EXPECT_FALSE(ImageFile::probeSize(path)) << "a header cut short";
}

TEST(HostileMetadata, XmpTooLargeToParseIsLeftOutNamedInEveryContainer) {
    // 150 000 distinct properties in 1.9 MB: libexiv2 took 459 s to parse them.
    const QByteArray huge = hostile::xmpPacket(150000);
    QTemporaryDir dir;
    for (const char* container : {"png", "webp", "tiff", "heic"}) {
        SCOPED_TRACE(container);
        const QString path = dir.filePath(QStringLiteral("huge.") + QLatin1String(container));
        writeBytes(path, hostile::pictureWithXmp(container, huge));
        QBuffer file;
        file.setData(readBytes(path));
        file.open(QIODevice::ReadOnly);
        const MetadataBlocks::Found found = MetadataBlocks::read(file);
        EXPECT_TRUE(found.xmp.isEmpty());
        ASSERT_EQ(found.leftOut.size(), 1) << qPrintable(found.leftOut.join(QStringLiteral("; ")));
        EXPECT_TRUE(found.leftOut.front().startsWith(QStringLiteral("XMP of ")))
            << qPrintable(found.leftOut.front());
        // Carried over onto a result: left out, said, and quickly done.
        QElapsedTimer timer;
        timer.start();
        QStringList leftOut;
        const QByteArray result = ImageFile::encode(coordinates(8, 8), QStringLiteral("image/png"));
        const QByteArray carried =
            ImageMetadata::carryOver(path, result, QStringLiteral("image/png"), QSize(8, 8), &leftOut);
        EXPECT_EQ(leftOut, found.leftOut);
        EXPECT_LT(timer.elapsed(), 5000) << "bounded whatever the packet";
        EXPECT_FALSE(carried.contains("example.com/my")) << "none of it in the result";
    }
    // Under the caps, XMP is carried as before: its title reaches the result.
    const QString small = dir.filePath(QStringLiteral("small.png"));
    writeBytes(small, hostile::pictureWithXmp("png", hostile::xmpPacket(40)));
    QStringList leftOut;
    const QByteArray carried =
        ImageMetadata::carryOver(small, ImageFile::encode(coordinates(8, 8), QStringLiteral("image/png")),
                                 QStringLiteral("image/png"), QSize(8, 8), &leftOut);
    EXPECT_TRUE(leftOut.isEmpty());
    EXPECT_TRUE(carried.contains("Harbour at dusk"));
    // The count reads what parsing costs: each distinct property, but a list's items not at all.
    const int thousand = MetadataBlocks::xmpProperties(hostile::xmpPacket(1000));
    EXPECT_GE(thousand, 1000);
    EXPECT_LE(thousand, 1020);
    QByteArray bag = "<x:xmpmeta xmlns:x='adobe:ns:meta/'><rdf:RDF><rdf:Description><dc:subject><rdf:Bag>";
    for (int i = 0; i < 1000; ++i)
        bag += "<rdf:li>keyword</rdf:li>";
    bag += "</rdf:Bag></dc:subject></rdf:Description></rdf:RDF></x:xmpmeta>";
    EXPECT_LE(MetadataBlocks::xmpProperties(bag), 4);
}
