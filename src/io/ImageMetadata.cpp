#include "io/ImageMetadata.h"

#include "io/MetadataBlocks.h"
#include "support/RegularFile.h"

#include <QFile>

#include <exiv2/exiv2.hpp>

#include <mutex>
#include <string>

namespace cutlark::ImageMetadata {

namespace {

// The XMP toolkit under exiv2 keeps global tables: exiv2 takes this lock round each use of it. The
// rest of exiv2 works on objects of the caller's own, so calls run side by side; what a file can
// make a parser do is bounded before (MetadataBlocks), so no call holds the lock for long.
void lockXmp(void*, bool lock) {
    static std::mutex mutex;
    if (lock)
        mutex.lock();
    else
        mutex.unlock();
}

void setUpOnce() {
    static std::once_flag once;
    std::call_once(once, [] {
        // Damaged metadata is a reason to carry nothing, not a message on the user's terminal.
        Exiv2::LogMsg::setLevel(Exiv2::LogMsg::mute);
        Exiv2::XmpParser::initialize(lockXmp, nullptr);
    });
}

template <typename Value> void setIfPresent(Exiv2::ExifData& data, const char* key, const Value& value) {
    auto it = data.findKey(Exiv2::ExifKey(key));
    if (it != data.end()) *it = value;
}

void setIfPresent(Exiv2::XmpData& data, const char* key, const std::string& value) {
    auto it = data.findKey(Exiv2::XmpKey(key));
    if (it != data.end()) *it = value;
}

// Tags that describe how the source stored its pixels (its TIFF structure, its embedded profile, its
// JPEG's sampling), not the photograph: the result is stored in its own way, described by its own
// encoder. Carried over they would be wrong, and a source's profile would mislabel sRGB pixels.
constexpr const char* kStorageTags[] = {
    "Exif.Image.NewSubfileType",
    "Exif.Image.SubfileType",
    "Exif.Image.ImageWidth",
    "Exif.Image.ImageLength",
    "Exif.Image.BitsPerSample",
    "Exif.Image.Compression",
    "Exif.Image.PhotometricInterpretation",
    "Exif.Image.FillOrder",
    "Exif.Image.StripOffsets",
    "Exif.Image.SamplesPerPixel",
    "Exif.Image.RowsPerStrip",
    "Exif.Image.StripByteCounts",
    "Exif.Image.PlanarConfiguration",
    "Exif.Image.Predictor",
    "Exif.Image.TileWidth",
    "Exif.Image.TileLength",
    "Exif.Image.TileOffsets",
    "Exif.Image.TileByteCounts",
    "Exif.Image.SubIFDs",
    "Exif.Image.ExtraSamples",
    "Exif.Image.SampleFormat",
    "Exif.Image.JPEGTables",
    "Exif.Image.InterColorProfile",
    "Exif.Image.TransferFunction",
    "Exif.Image.WhitePoint",
    "Exif.Image.PrimaryChromaticities",
    "Exif.Image.YCbCrCoefficients",
    "Exif.Image.YCbCrSubSampling",
    "Exif.Image.YCbCrPositioning",
    "Exif.Image.ReferenceBlackWhite",
    "Exif.Image.JPEGInterchangeFormat",
    "Exif.Image.JPEGInterchangeFormatLength",
    "Exif.Image.XMLPacket",
    "Exif.Image.IPTCNAA",
    "Exif.Image.ImageResources",
};

void dropStorageTags(Exiv2::ExifData& exif) {
    for (const char* key : kStorageTags) {
        auto it = exif.findKey(Exiv2::ExifKey(key));
        while (it != exif.end()) {
            exif.erase(it);
            it = exif.findKey(Exiv2::ExifKey(key));
        }
    }
}

qint64 exifBytes(const Exiv2::ExifData& exif) {
    if (exif.empty()) return 0;
    Exiv2::Blob blob;
    Exiv2::ExifParser::encode(blob, Exiv2::littleEndian, exif);
    return qint64(blob.size());
}

qint64 xmpBytes(const Exiv2::XmpData& xmp) {
    if (xmp.empty()) return 0;
    std::string packet;
    Exiv2::XmpParser::encode(packet, xmp);
    return qint64(packet.size());
}

} // namespace

bool carriedByEncoder(const QString& type) {
    return type == QLatin1String("image/heic") || type == QLatin1String("image/heif");
}

bool canCarry(const QString& type) {
    return type == QLatin1String("image/jpeg") || type == QLatin1String("image/png") ||
           type == QLatin1String("image/webp") || type == QLatin1String("image/tiff") ||
           carriedByEncoder(type);
}

namespace {

// The metadata of the file at `path`: its blocks found within bounds, then parsed. HEIC and HEIF
// items are found through libheif (exiv2 0.27 misreads some of their layouts, libheif's own grids
// among them). What was too large to carry is named in `leftOut`.
bool readSource(const QString& path, Exiv2::ExifData& exif, Exiv2::XmpData& xmp, QStringList* leftOut) {
    RegularFile file;
    if (!file.open(path)) return false;
    const MetadataBlocks::Found found = MetadataBlocks::read(file.file());
    if (leftOut) *leftOut << found.leftOut;
    if (!found.exif.isEmpty())
        Exiv2::ExifParser::decode(exif, reinterpret_cast<const Exiv2::byte*>(found.exif.constData()),
                                  uint32_t(found.exif.size()));
    if (!found.xmp.isEmpty()) Exiv2::XmpParser::decode(xmp, found.xmp.toStdString());
    return true;
}

// The source's EXIF and XMP amended to describe a result of `size`, or false when there is nothing
// to carry. Throws what exiv2 throws.
bool readAmended(const QString& sourcePath, QSize size, Exiv2::ExifData& exif, Exiv2::XmpData& xmp,
                 QStringList* leftOut) {
    if (!readSource(sourcePath, exif, xmp, leftOut)) return false;
    dropStorageTags(exif);
    Exiv2::ExifThumb(exif).erase();
    if (exif.empty() && xmp.empty()) return false;

    const auto width = uint32_t(size.width());
    const auto height = uint32_t(size.height());
    setIfPresent(exif, "Exif.Image.Orientation", uint16_t(1));
    setIfPresent(exif, "Exif.Photo.PixelXDimension", width);
    setIfPresent(exif, "Exif.Photo.PixelYDimension", height);
    setIfPresent(exif, "Exif.Photo.ColorSpace", uint16_t(1));
    const std::string w = std::to_string(width);
    const std::string h = std::to_string(height);
    setIfPresent(xmp, "Xmp.tiff.Orientation", std::string("1"));
    setIfPresent(xmp, "Xmp.exif.PixelXDimension", w);
    setIfPresent(xmp, "Xmp.exif.PixelYDimension", h);
    setIfPresent(xmp, "Xmp.tiff.ImageWidth", w);
    setIfPresent(xmp, "Xmp.tiff.ImageLength", h);
    setIfPresent(xmp, "Xmp.exif.ColorSpace", std::string("1"));
    const qint64 total = exifBytes(exif) + xmpBytes(xmp);
    if (total > kMaxCarried && leftOut)
        *leftOut << QStringLiteral("EXIF and XMP of %1 KB together").arg((total + 1023) / 1024);
    return total <= kMaxCarried;
}

} // namespace

Blocks forResult(const QString& sourcePath, QSize size, QStringList* leftOut) {
    setUpOnce();
    try {
        Exiv2::ExifData exif;
        Exiv2::XmpData xmp;
        if (!readAmended(sourcePath, size, exif, xmp, leftOut)) return {};
        Blocks blocks;
        if (!exif.empty()) {
            Exiv2::Blob blob;
            Exiv2::ExifParser::encode(blob, Exiv2::littleEndian, exif);
            blocks.exif = QByteArray(reinterpret_cast<const char*>(blob.data()), qsizetype(blob.size()));
        }
        if (!xmp.empty()) {
            std::string packet;
            if (Exiv2::XmpParser::encode(packet, xmp) == 0)
                blocks.xmp = QByteArray(packet.data(), qsizetype(packet.size()));
        }
        return blocks;
    } catch (const std::exception&) {
        return {}; // damaged metadata: the result goes out without it
    }
}

QByteArray carryOver(const QString& sourcePath, const QByteArray& encoded, const QString& type, QSize size,
                     QStringList* leftOut) {
    if (!canCarry(type) || carriedByEncoder(type) || encoded.isEmpty()) return encoded;
    setUpOnce();
    try {
        Exiv2::ExifData exif;
        Exiv2::XmpData xmp;
        if (!readAmended(sourcePath, size, exif, xmp, leftOut)) return encoded;

        auto target = Exiv2::ImageFactory::open(reinterpret_cast<const Exiv2::byte*>(encoded.constData()),
                                                long(encoded.size()));
        if (!target.get()) return encoded;
        target->readMetadata(); // keeps what the encoder wrote itself (the colour profile)
        target->setExifData(exif);
        target->setXmpData(xmp);
        target->writeMetadata();
        Exiv2::BasicIo& io = target->io();
        if (io.open() != 0) return encoded;
        QByteArray bytes(qsizetype(io.size()), Qt::Uninitialized);
        const long read = io.read(reinterpret_cast<Exiv2::byte*>(bytes.data()), long(bytes.size()));
        io.close();
        if (read != long(bytes.size()) || bytes.isEmpty()) return encoded;
        return bytes;
    } catch (const std::exception&) {
        // exiv2 reports damaged or unsupported metadata by throwing; the result goes out without it.
        return encoded;
    }
}

} // namespace cutlark::ImageMetadata
