#include "model/ImageFile.h"

#include "engines/PixelOps.h"
#include "model/AtomicFile.h"

#include <QBuffer>
#include <QColorSpace>
#include <QFile>
#include <QFileInfo>
#include <QImageReader>
#include <QImageWriter>
#include <QMimeDatabase>

#include <libheif/heif.h>

#include <cstring>
#include <memory>

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

// Qt's reader format names for the accepted types; every other decoder Qt carries (SVG, TGA, XPM, …)
// is refused even when a file's name claims an accepted type.
QString typeForReaderFormat(const QByteArray& format) {
    if (format == "png") return kPng;
    if (format == "jpeg" || format == "jpg") return kJpeg;
    if (format == "tiff" || format == "tif") return kTiff;
    if (format == "bmp") return kBmp;
    if (format == "gif") return kGif;
    if (format == "webp") return kWebp;
    return QString();
}

QByteArray writerFormatForType(const QString& type) {
    if (type == kPng) return "png";
    if (type == kJpeg) return "jpeg";
    if (type == kTiff) return "tiff";
    if (type == kBmp) return "bmp";
    if (type == kGif) return "gif";
    if (type == kWebp) return "webp";
    return QByteArray();
}

bool isHeifType(const QString& type) { return type == kHeic || type == kHeif; }

bool fitsMemory(qint64 width, qint64 height) {
    if (width < 1 || height < 1) return false;
    // width × height × 4 must neither overflow nor exceed what this machine can hold.
    if (width > maxDecodedBytes() / 4 / height) return false;
    return true;
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

// An 8-bit sRGB image is held once, in the pixel buffer's layout, so that the item's image and its
// buffer share a single store. Deeper images and other colour spaces keep their own form.
QImage intoBufferLayout(QImage image) {
    const QColorSpace cs = image.colorSpace();
    const bool srgb = !cs.isValid() || cs == QColorSpace(QColorSpace::SRgb);
    if (!srgb || !isEightBit(image.format())) return image;
    // RGBX keeps "no alpha" known (an opaque picture stays opaque to the pipeline) and has the same
    // bytes as premultiplied RGBA with alpha 255.
    const QImage::Format target =
        image.hasAlphaChannel() ? QImage::Format_RGBA8888_Premultiplied : QImage::Format_RGBX8888;
    if (image.format() != target) image.convertTo(target);
    return image;
}

// --- HEIF through libheif ---

struct HeifContextDeleter {
    void operator()(heif_context* c) const { heif_context_free(c); }
};
struct HeifHandleDeleter {
    void operator()(heif_image_handle* h) const { heif_image_handle_release(h); }
};
struct HeifImageDeleter {
    void operator()(heif_image* i) const { heif_image_release(i); }
};
using HeifContext = std::unique_ptr<heif_context, HeifContextDeleter>;
using HeifHandle = std::unique_ptr<heif_image_handle, HeifHandleDeleter>;
using HeifImage = std::unique_ptr<heif_image, HeifImageDeleter>;

QString heifTypeOf(const uint8_t* head, int length) {
    if (length < 12) return QString();
    // A generic "mif1" brand only says "maybe"; the MIME type below decides.
    const heif_filetype_result check = heif_check_filetype(head, length);
    if (check != heif_filetype_yes_supported && check != heif_filetype_maybe) return QString();
    const char* mime = heif_get_file_mime_type(head, length);
    if (mime && std::strcmp(mime, "image/heic") == 0) return kHeic;
    if (mime && std::strcmp(mime, "image/heif") == 0) return kHeif;
    return QString(); // AVIF and other brands aren't accepted types
}

std::optional<Loaded> decodeHeif(const QByteArray& bytes, const QString& type) {
    HeifContext ctx(heif_context_alloc());
    if (!ctx) return std::nullopt;
    // libheif reads from our bytes without copying them; they outlive the context.
    if (heif_context_read_from_memory_without_copy(ctx.get(), bytes.constData(), size_t(bytes.size()), nullptr)
            .code != heif_error_Ok)
        return std::nullopt;
    heif_image_handle* rawHandle = nullptr;
    if (heif_context_get_primary_image_handle(ctx.get(), &rawHandle).code != heif_error_Ok) return std::nullopt;
    HeifHandle handle(rawHandle);
    // The handle's size already has the container's rotation and mirroring applied.
    const qint64 w = heif_image_handle_get_width(handle.get());
    const qint64 h = heif_image_handle_get_height(handle.get());
    if (!fitsMemory(w, h)) return std::nullopt;

    heif_image* rawImage = nullptr;
    // Default decoding options apply the transformations, so the result is upright.
    if (heif_decode_image(handle.get(), &rawImage, heif_colorspace_RGB, heif_chroma_interleaved_RGBA, nullptr)
            .code != heif_error_Ok)
        return std::nullopt;
    HeifImage image(rawImage);
    int stride = 0;
    const uint8_t* plane = heif_image_get_plane_readonly(image.get(), heif_channel_interleaved, &stride);
    const int iw = heif_image_get_width(image.get(), heif_channel_interleaved);
    const int ih = heif_image_get_height(image.get(), heif_channel_interleaved);
    if (!plane || iw < 1 || ih < 1 || !fitsMemory(iw, ih)) return std::nullopt;

    QImage out(iw, ih, QImage::Format_RGBA8888);
    if (out.isNull()) return std::nullopt;
    for (int y = 0; y < ih; ++y) std::memcpy(out.scanLine(y), plane + qsizetype(y) * stride, size_t(iw) * 4);
    if (!heif_image_handle_has_alpha_channel(handle.get())) out.reinterpretAsFormat(QImage::Format_RGBX8888);
    else out.convertTo(QImage::Format_RGBA8888_Premultiplied);
    return Loaded{out, type};
}

struct HeifWriteTarget {
    QByteArray* bytes;
};

heif_error writeToByteArray(heif_context*, const void* data, size_t size, void* userdata) {
    auto* target = static_cast<HeifWriteTarget*>(userdata);
    target->bytes->append(static_cast<const char*>(data), qsizetype(size));
    return heif_error{heif_error_Ok, heif_suberror_Unspecified, "ok"};
}

QByteArray encodeHeif(const QImage& source) {
    if (source.isNull()) return QByteArray();
    const QImage rgba = source.convertToFormat(QImage::Format_RGBA8888); // libheif wants straight alpha
    if (rgba.isNull()) return QByteArray();
    const bool alpha = source.hasAlphaChannel();

    HeifContext ctx(heif_context_alloc());
    heif_encoder* encoder = nullptr;
    if (heif_context_get_encoder_for_format(ctx.get(), heif_compression_HEVC, &encoder).code != heif_error_Ok)
        return QByteArray();
    std::unique_ptr<heif_encoder, decltype(&heif_encoder_release)> encoderGuard(encoder, heif_encoder_release);
    heif_encoder_set_lossy_quality(encoder, 92);

    heif_image* rawImage = nullptr;
    const heif_chroma chroma = alpha ? heif_chroma_interleaved_RGBA : heif_chroma_interleaved_RGB;
    if (heif_image_create(rgba.width(), rgba.height(), heif_colorspace_RGB, chroma, &rawImage).code != heif_error_Ok)
        return QByteArray();
    HeifImage image(rawImage);
    if (heif_image_add_plane(image.get(), heif_channel_interleaved, rgba.width(), rgba.height(), 8).code !=
        heif_error_Ok)
        return QByteArray();
    int stride = 0;
    uint8_t* plane = heif_image_get_plane(image.get(), heif_channel_interleaved, &stride);
    if (!plane) return QByteArray();
    for (int y = 0; y < rgba.height(); ++y) {
        const uchar* src = rgba.constScanLine(y);
        uint8_t* dst = plane + qsizetype(y) * stride;
        if (alpha) {
            std::memcpy(dst, src, size_t(rgba.width()) * 4);
        } else {
            for (int x = 0; x < rgba.width(); ++x) {
                dst[3 * x] = src[4 * x];
                dst[3 * x + 1] = src[4 * x + 1];
                dst[3 * x + 2] = src[4 * x + 2];
            }
        }
    }
    heif_image_handle* rawHandle = nullptr;
    if (heif_context_encode_image(ctx.get(), image.get(), encoder, nullptr, &rawHandle).code != heif_error_Ok)
        return QByteArray();
    HeifHandle handle(rawHandle);

    QByteArray out;
    HeifWriteTarget target{&out};
    heif_writer writer{};
    writer.writer_api_version = 1;
    writer.write = writeToByteArray;
    if (heif_context_write(ctx.get(), &writer, &target).code != heif_error_Ok) return QByteArray();
    return out;
}

bool hasHeifEncoder() {
    static const bool has = heif_have_encoder_for_format(heif_compression_HEVC) != 0;
    return has;
}

// --- Qt's readers ---

std::optional<Loaded> decodeWithQt(QIODevice* device) {
    QImageReader reader(device);
    reader.setDecideFormatFromContent(true);
    reader.setAutoTransform(true); // applies the orientation tag
    const QString type = typeForReaderFormat(reader.format());
    if (type.isEmpty()) return std::nullopt;
    // Refuse from the header, before the decoder allocates anything.
    const QSize size = reader.size();
    if (size.isValid() && !fitsMemory(size.width(), size.height())) return std::nullopt;
    reader.setAllocationLimit(int(qMin<qint64>(maxDecodedBytes() / (1024 * 1024) + 1, INT_MAX)));
    QImage image = reader.read();
    if (image.isNull() || !fitsMemory(image.width(), image.height())) return std::nullopt;
    return Loaded{intoBufferLayout(std::move(image)), type};
}

} // namespace

const QStringList& acceptedTypes() {
    static const QStringList types = {kPng, kJpeg, kTiff, kBmp, kGif, kHeic, kHeif, kWebp};
    return types;
}

const QStringList& encodableTypes() {
    static const QStringList types = [] {
        QStringList out;
        const QList<QByteArray> qtTypes = QImageWriter::supportedMimeTypes();
        for (const QString& t : acceptedTypes()) {
            if (isHeifType(t) ? hasHeifEncoder() : qtTypes.contains(t.toLatin1())) out << t;
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

qint64 maxDecodedBytes() { return PixelOps::maxImageBytes(); }

std::optional<Loaded> loadFromData(const QByteArray& bytes, const QString& nameHint) {
    Q_UNUSED(nameHint);
    if (bytes.isEmpty()) return std::nullopt;
    const QString heif = heifTypeOf(reinterpret_cast<const uint8_t*>(bytes.constData()), int(qMin<qsizetype>(bytes.size(), 64)));
    if (!heif.isEmpty()) return decodeHeif(bytes, heif);
    QBuffer buffer;
    buffer.setData(bytes);
    if (!buffer.open(QIODevice::ReadOnly)) return std::nullopt;
    return decodeWithQt(&buffer);
}

std::optional<Loaded> load(const QString& path) {
    const QFileInfo info(path);
    if (!info.isFile()) return std::nullopt; // folders, sockets and missing names
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) return std::nullopt;
    const QByteArray head = file.peek(64);
    if (head.isEmpty()) return std::nullopt;
    const QString heif = heifTypeOf(reinterpret_cast<const uint8_t*>(head.constData()), int(head.size()));
    if (!heif.isEmpty()) {
        // libheif wants the whole file in memory; a compressed file is small next to its pixels.
        if (file.size() > maxDecodedBytes()) return std::nullopt;
        return decodeHeif(file.readAll(), heif);
    }
    return decodeWithQt(&file);
}

QByteArray encode(const QImage& image, const QString& type) {
    if (image.isNull()) return QByteArray();
    const QString target = writableType(type);
    if (isHeifType(target)) return encodeHeif(image);
    QByteArray bytes;
    QBuffer buffer(&bytes);
    if (!buffer.open(QIODevice::WriteOnly)) return QByteArray();
    QImageWriter writer(&buffer, writerFormatForType(target));
    if (target == kJpeg) writer.setQuality(92);
    // WebP is written lossless: a save over the original must not lose detail each time.
    if (target == kWebp) writer.setQuality(100);
    if (!writer.write(image)) return QByteArray();
    return bytes;
}

bool save(const QImage& image, const QString& path, const QString& type) {
    const QByteArray bytes = encode(image, type);
    if (bytes.isEmpty()) return false;
    return AtomicFile::write(path, bytes);
}

} // namespace cutlark::ImageFile
