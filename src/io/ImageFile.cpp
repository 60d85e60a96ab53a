#include "io/ImageFile.h"

#include "engines/CropEngine.h"
#include "engines/PixelOps.h"
#include "io/ImageCodecs.h"
#include "io/PngChunks.h"
#include "support/AtomicFile.h"
#include "support/RegularFile.h"

#include <QBuffer>
#include <QColorSpace>
#include <QFile>
#include <QFileInfo>
#include <QImageReader>
#include <QImageWriter>
#include <QMimeDatabase>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cmath>
#include <cstring>
#include <memory>
#include <mutex>

namespace cutlark::ImageFile {

namespace {

const QString kPng = QStringLiteral("image/png");
const QString kJpeg = QStringLiteral("image/jpeg");
const QString kTiff = QStringLiteral("image/tiff");
const QString kBmp = QStringLiteral("image/bmp");
const QString kGif = QStringLiteral("image/gif");
const QString kHeic = QStringLiteral("image/heic");
const QString kHeif = QStringLiteral("image/heif");
const QString kWebp = QStringLiteral("image/webp");

QByteArray writerFormatForType(const QString& type) {
    if (type == kPng) return "png";
    if (type == kJpeg) return "jpeg";
    if (type == kTiff) return "tiff";
    if (type == kBmp) return "bmp";
    if (type == kGif) return "gif";
    if (type == kWebp) return "webp";
    return QByteArray();
}

thread_local QString t_lastRefusal;
std::atomic<qint64> g_maxPixels{0};

QString sizeText(qint64 bytes) {
    if (bytes < 10 * 1024) return QStringLiteral("%1 bytes").arg(bytes);
    if (bytes < 10 * 1024 * 1024) return QStringLiteral("%1 KB").arg(bytes / 1024);
    return QStringLiteral("%1 MB").arg(bytes / (1024 * 1024));
}

void refuseOutOfProportion(qint64 width, qint64 height, qint64 fileBytes) {
    const qint64 megapixels = (width * height + 999'999) / 1'000'000;
    t_lastRefusal =
        QStringLiteral("holds %1 × %2 pixels (%3 megapixels) in a file of %4, far more than a file that "
                       "size holds; to open it anyway, give --max-megapixels %3")
            .arg(width)
            .arg(height)
            .arg(megapixels)
            .arg(sizeText(fileBytes));
}

bool isHeifType(const QString& type) {
    return type == kHeic || type == kHeif;
}

bool isJpeg(const QByteArray& head) {
    return head.size() >= 3 && uchar(head[0]) == 0xff && uchar(head[1]) == 0xd8 && uchar(head[2]) == 0xff;
}

// Formats whose components are 8 bits deep: these go straight into the buffer's own layout.
bool isEightBit(QImage::Format f) {
    switch (f) {
    case QImage::Format_RGBX64:
    case QImage::Format_RGBA64:
    case QImage::Format_RGBA64_Premultiplied:
    case QImage::Format_Grayscale16:
    case QImage::Format_BGR30:
    case QImage::Format_A2BGR30_Premultiplied:
    case QImage::Format_RGB30:
    case QImage::Format_A2RGB30_Premultiplied:
    case QImage::Format_RGBX16FPx4:
    case QImage::Format_RGBA16FPx4:
    case QImage::Format_RGBA16FPx4_Premultiplied:
    case QImage::Format_RGBX32FPx4:
    case QImage::Format_RGBA32FPx4:
    case QImage::Format_RGBA32FPx4_Premultiplied:
        return false;
    default:
        return true;
    }
}

// Every picture is held in sRGB, so that each stage hands on pixels in one colour space: a picture
// with a profile of its own (Display P3, Adobe RGB, BT.2020, …) is converted on the way in, at its
// own depth; one whose profile can't be read is taken as sRGB, as viewers take it. 8-bit pictures
// are held in the pixel buffer's layout, so that the item's image and its buffer share one store;
// deeper ones keep their depth (a save over a 16-bit original stays 16 bits).
QImage intoBufferLayout(QImage image) {
    const QColorSpace srgbSpace(QColorSpace::SRgb);
    const QColorSpace cs = image.colorSpace();
    if (cs.isValid() && cs != srgbSpace) {
        // Converted at the source's own depth, so a 16-bit picture loses nothing before it is cut to 8.
        QImage converted = image.convertedToColorSpace(srgbSpace);
        if (!converted.isNull()) image = std::move(converted);
    }
    image.setColorSpace(srgbSpace);
    if (!isEightBit(image.format())) return image;
    // RGBX keeps "no alpha" known (an opaque picture stays opaque to the pipeline) and has the same
    // bytes as premultiplied RGBA with alpha 255.
    const QImage::Format target =
        image.hasAlphaChannel() ? QImage::Format_RGBA8888_Premultiplied : QImage::Format_RGBX8888;
    if (image.format() != target) image.convertTo(target);
    return image;
}

// Decodes what the file holds with the decoder its content calls for. `device` reads the file from
// its start; `whole` is the file in memory when the caller has it already.
std::optional<Loaded> decodeContent(QIODevice& device, const QByteArray& whole, const LoadOptions& given) {
    LoadOptions options = given;
    options.fileBytes = device.size();
    const QByteArray head = device.peek(64);
    if (head.isEmpty()) return std::nullopt;
    const QString heif =
        ImageCodecs::heifTypeOf(reinterpret_cast<const uchar*>(head.constData()), int(head.size()));
    const bool jpeg = isJpeg(head);
    if (!heif.isEmpty() || jpeg) {
        // These decoders want the whole file in memory (read, not mapped: a file rewritten while it
        // is read must not bring the program down); a compressed file is small next to its pixels.
        if (device.size() > maxDecodedBytes()) return std::nullopt;
        const QByteArray bytes = whole.isNull() ? device.readAll() : whole;
        if (!heif.isEmpty()) return ImageCodecs::decodeHeif(bytes, heif, options);
        return ImageCodecs::decodeJpeg(reinterpret_cast<const uchar*>(bytes.constData()),
                                       size_t(bytes.size()), options);
    }
    if (PngChunks::isPng(head)) {
        PngChunks::Walk walk = PngChunks::walk(device);
        switch (walk.verdict) {
        case PngChunks::Verdict::refused:
            return std::nullopt;
        case PngChunks::Verdict::filtered: {
            QBuffer filtered(&walk.bytes);
            if (!filtered.open(QIODevice::ReadOnly)) return std::nullopt;
            return ImageCodecs::decodeWithQt(&filtered, options, walk.orientation);
        }
        case PngChunks::Verdict::clean:
            if (!device.seek(0)) return std::nullopt;
            return ImageCodecs::decodeWithQt(&device, options, walk.orientation);
        }
    }
    return ImageCodecs::decodeWithQt(&device, options);
}

} // namespace

} // namespace cutlark::ImageFile

namespace cutlark::ImageCodecs {

using ImageFile::Loaded;
using ImageFile::LoadOptions;
using ImageFile::maxDecodedBytes;

std::optional<MemoryBudget::Hold> admit(qint64 width, qint64 height, const LoadOptions& options) {
    // width × height × 4 must neither overflow nor exceed what a QImage can address.
    if (width < 1 || height < 1 || width > INT_MAX / 4 || height > INT_MAX) return std::nullopt;
    if (width > maxDecodedBytes() / 4 / height) return std::nullopt; // no allowance could help
    if (options.fileBytes > 0 && width * height > ImageFile::allowedPixels(options.fileBytes)) {
        ImageFile::refuseOutOfProportion(width, height, options.fileBytes);
        return std::nullopt;
    }
    const qint64 bytes = width * height * 4;
    if (!options.admit) return MemoryBudget::Hold();
    // Held with its work while it decodes; the picture alone once it exists.
    return MemoryBudget::tryHold(bytes * (1 + MemoryBudget::kWorkFactor));
}

// Qt's reader format names for the accepted types; every other decoder Qt carries (SVG, TGA, XPM, …)
// is refused even when a file's name claims an accepted type.
QString typeForReaderFormat(const QByteArray& format) {
    if (format == "png") return QStringLiteral("image/png");
    if (format == "jpeg" || format == "jpg") return QStringLiteral("image/jpeg");
    if (format == "tiff" || format == "tif") return QStringLiteral("image/tiff");
    if (format == "bmp") return QStringLiteral("image/bmp");
    if (format == "gif") return QStringLiteral("image/gif");
    if (format == "webp") return QStringLiteral("image/webp");
    return QString();
}

std::optional<Loaded> finish(QImage image, const QString& type, MemoryBudget::Hold hold) {
    image = ImageFile::intoBufferLayout(std::move(image));
    if (image.isNull()) return std::nullopt;
    if (hold.bytes() > 0) hold.shrinkTo(qint64(image.sizeInBytes()));
    const bool lossless = type != ImageFile::kJpeg && !ImageFile::isHeifType(type);
    Loaded loaded{std::move(image), type, nullptr, {lossless, -1}, QString()};
    if (hold.bytes() > 0) loaded.hold = std::make_shared<const MemoryBudget::Hold>(std::move(hold));
    return loaded;
}

std::optional<QImage> upright(const QImage& image, int orientation) {
    struct Turn {
        int quarterTurns;
        bool mirrored;
    };
    static constexpr Turn kTurns[9] = {{0, false}, {0, false}, {0, true}, {2, false}, {2, true},
                                       {3, true},  {1, false}, {1, true}, {3, false}};
    if (orientation < 2 || orientation > 8) return image;
    const Turn t = kTurns[orientation];
    return CropEngine::oriented(image, t.quarterTurns, t.mirrored);
}

bool profileFits(const QByteArray& icc, ProfileModel model) {
    // The header's data colour space, at bytes 16 to 19.
    if (icc.size() < 20) return false;
    const QByteArray space = icc.mid(16, 4);
    switch (model) {
    case ProfileModel::grey:
        return space == "GRAY";
    case ProfileModel::rgb:
        return space == "RGB ";
    case ProfileModel::cmyk:
        return space == "CMYK";
    }
    return false;
}

} // namespace cutlark::ImageCodecs

namespace cutlark::ImageFile {

const QStringList& acceptedTypes() {
    static const QStringList types = {kPng, kJpeg, kTiff, kBmp, kGif, kHeic, kHeif, kWebp};
    return types;
}

const QStringList& encodableTypes() {
    static const QStringList types = [] {
        QStringList out;
        const QList<QByteArray> qtTypes = QImageWriter::supportedMimeTypes();
        for (const QString& t : acceptedTypes()) {
            if (isHeifType(t) ? ImageCodecs::hasHeifEncoder() : t == kGif || qtTypes.contains(t.toLatin1()))
                out << t;
        }
        return out;
    }();
    return types;
}

QString writableType(const QString& type) {
    if (encodableTypes().contains(type)) return type;
    if (conforms(type, kJpeg) && encodableTypes().contains(kJpeg)) return kJpeg;
    return kPng;
}

bool supportsAlpha(const QString& type) {
    return type == kPng || type == kTiff || type == kGif || type == kHeic || type == kHeif || type == kWebp;
}

QString typeForExtension(const QString& extension) {
    const QString ext = extension.toLower();
    if (ext.isEmpty()) return QString();
    if (ext == QLatin1String("heic")) return kHeic; // the MIME database folds HEIC into HEIF
    static const QMimeDatabase db;
    const QMimeType mime = db.mimeTypeForFile(QStringLiteral("x.") + ext, QMimeDatabase::MatchExtension);
    if (!mime.isValid() || mime.isDefault()) return QString();
    return mime.name();
}

bool conforms(const QString& type, const QString& other) {
    if (type == other) return true;
    if (type.isEmpty() || other.isEmpty()) return false;
    static const QMimeDatabase db;
    const QMimeType mime = db.mimeTypeForName(type);
    return mime.isValid() && mime.inherits(other);
}

QString preferredExtension(const QString& type) {
    if (type == kHeic) return QStringLiteral("heic");
    if (type == kHeif) return QStringLiteral("heif");
    static const QMimeDatabase db;
    const QMimeType mime = db.mimeTypeForName(type);
    return mime.isValid() ? mime.preferredSuffix() : QString();
}

qint64 allowedPixels(qint64 fileBytes) {
    const qint64 proportionate = fileBytes > 0 && fileBytes < LLONG_MAX / kPixelsPerFileByte
                                     ? fileBytes * kPixelsPerFileByte
                                     : LLONG_MAX;
    return std::max({kFreePixels, proportionate, g_maxPixels.load()});
}

void setMaxMegapixels(double megapixels) {
    g_maxPixels = megapixels > 0 ? qint64(std::min(megapixels, 1e12) * 1e6) : 0;
}

QString lastRefusal() {
    return t_lastRefusal;
}

qint64 maxDecodedBytes() {
    return qMin(PixelOps::maxImageBytes(), MemoryBudget::limit() / (1 + MemoryBudget::kWorkFactor));
}

std::optional<Loaded> loadFromData(const QByteArray& bytes, const LoadOptions& options) {
    t_lastRefusal.clear();
    if (bytes.isEmpty()) return std::nullopt;
    QByteArray data = bytes;
    QBuffer buffer(&data);
    if (!buffer.open(QIODevice::ReadOnly)) return std::nullopt;
    return decodeContent(buffer, data, options);
}

std::optional<Loaded> load(const QString& path, const LoadOptions& options) {
    t_lastRefusal.clear();
    RegularFile regular;
    // Folders, pipes, devices and missing names are no pictures.
    if (!regular.open(path) || regular.file().size() == 0) return std::nullopt;
    return decodeContent(regular.file(), QByteArray(), options);
}

std::optional<QSize> probeSize(const QString& path) {
    RegularFile regular;
    if (!regular.open(path)) return std::nullopt;
    QFile& file = regular.file();
    const QByteArray head = file.peek(64);
    if (!ImageCodecs::heifTypeOf(reinterpret_cast<const uchar*>(head.constData()), int(head.size()))
             .isEmpty())
        return std::nullopt; // libheif reads the whole file to know; decoding will tell
    // A PNG's size is in its header chunk; Qt's reader would first inflate every text chunk before
    // the pixels (hundreds of megabytes from a small file) just to say it.
    if (PngChunks::isPng(head)) {
        if (head.size() < 24 || head.mid(12, 4) != "IHDR") return std::nullopt;
        const auto be32 = [&](int at) {
            return qint64(uchar(head[at])) << 24 | qint64(uchar(head[at + 1])) << 16 |
                   qint64(uchar(head[at + 2])) << 8 | qint64(uchar(head[at + 3]));
        };
        const qint64 w = be32(16), h = be32(20);
        if (w < 1 || h < 1 || w > INT_MAX || h > INT_MAX) return std::nullopt;
        return QSize(int(w), int(h));
    }
    QImageReader reader(&file);
    reader.setDecideFormatFromContent(true);
    if (ImageCodecs::typeForReaderFormat(reader.format()).isEmpty()) return std::nullopt;
    const QSize size = reader.size();
    if (!size.isValid() || size.isEmpty()) return std::nullopt;
    return size;
}

QByteArray encode(const QImage& source, const QString& type, const Storage& storedAs, int quality,
                  const ImageMetadata::Blocks& metadata) {
    if (source.isNull()) return QByteArray();
    const QString target = writableType(type);
    const bool asked = quality >= 1 && quality <= 100;
    if (target == kJpeg) {
        // Rows are read where they are, a crop's too.
        QByteArray direct = ImageCodecs::encodeJpeg(source, asked ? quality : 92);
        if (!direct.isEmpty()) return direct;
    }
    // A crop is a view inside a wider image; the encoders' conversions want pictures of their own.
    const QImage image =
        source.bytesPerLine() == qsizetype(source.width()) * (source.depth() / 8) ? source : source.copy();
    // A picture whose format could hold transparency and holds none is a PNG of three channels: a
    // quarter smaller, and read back as opaque (alpha 255 reads the same premultiplied or not).
    // A view of the same bytes, not a copy; `image` keeps them alive until the writer is done.
    QImage view;
    if (target == kPng && !hasTransparency(image)) {
        const QImage::Format f = image.format();
        const QImage::Format opaque =
            f == QImage::Format_RGBA8888 || f == QImage::Format_RGBA8888_Premultiplied
                ? QImage::Format_RGBX8888
            : f == QImage::Format_ARGB32 || f == QImage::Format_ARGB32_Premultiplied ? QImage::Format_RGB32
                                                                                     : f;
        if (opaque != f) {
            view = QImage(image.constBits(), image.width(), image.height(), image.bytesPerLine(), opaque);
            view.setColorSpace(image.colorSpace());
            view.setDotsPerMeterX(image.dotsPerMeterX());
            view.setDotsPerMeterY(image.dotsPerMeterY());
        }
    }
    if (isHeifType(target))
        return ImageCodecs::encodeHeif(image, asked ? quality : 92, metadata.exif, metadata.xmp);
    if (target == kGif) return ImageCodecs::encodeGif(image);
    QByteArray bytes;
    QBuffer buffer(&bytes);
    if (!buffer.open(QIODevice::WriteOnly)) return QByteArray();
    QImageWriter writer(&buffer, writerFormatForType(target));
    if (target == kJpeg) writer.setQuality(asked ? quality : 92);
    if (target == kPng && asked) {
        // Qt's PNG writer takes a "quality" it turns into zlib's level as (100 − q) × 9 / 91: the
        // smallest q that gives the level wanted.
        const int level = (quality * 9 + 99) / 100;
        writer.setQuality(100 - (level * 91 + 8) / 9);
    }
    // Qt's WebP writer goes lossless at quality 100.
    if (target == kWebp)
        writer.setQuality(asked                   ? quality
                          : storedAs.lossless     ? 100
                          : storedAs.quality >= 0 ? qMin(storedAs.quality, 92)
                                                  : 92);
    if (!writer.write(view.isNull() ? image : view)) return QByteArray();
    return bytes;
}

bool hasTransparency(const QImage& image) {
    if (!image.hasAlphaChannel()) return false;
    const QImage::Format f = image.format();
    const bool byteOrder = f == QImage::Format_RGBA8888 || f == QImage::Format_RGBA8888_Premultiplied;
    const QImage argb = byteOrder || f == QImage::Format_ARGB32 || f == QImage::Format_ARGB32_Premultiplied
                            ? image
                            : image.convertToFormat(QImage::Format_ARGB32_Premultiplied);
    for (int y = 0; y < argb.height(); ++y) {
        const uchar* row = argb.constScanLine(y);
        if (byteOrder) {
            for (int x = 0; x < argb.width(); ++x)
                if (row[4 * x + 3] != 255) return true;
        } else {
            const QRgb* p = reinterpret_cast<const QRgb*>(row);
            for (int x = 0; x < argb.width(); ++x)
                if (qAlpha(p[x]) != 255) return true;
        }
    }
    return false;
}

int interactiveQuality(const QString& type) {
    return writableType(type) == kPng ? kInteractivePngEffort : -1;
}

bool save(const QImage& image, const QString& path, const QString& type, const Storage& source, int quality) {
    const QByteArray bytes = encode(image, type, source, quality);
    if (bytes.isEmpty()) return false;
    return AtomicFile::write(path, bytes);
}

} // namespace cutlark::ImageFile
