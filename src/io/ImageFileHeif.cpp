// HEIC and HEIF through libheif.
#include "io/ImageCodecs.h"

#include "engines/PixelOps.h"
#include "support/GrowingBuffer.h"

#include <libheif/heif.h>

#include <QColorSpace>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstring>
#include <functional>
#include <memory>
#include <string_view>

namespace cutlark::ImageCodecs {

namespace {

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

// libheif 1.15 indexes its interleaved planes with ints: an image whose decoded form reaches 2³¹
// bytes makes it write out of bounds. Nothing that big is handed to it.
constexpr qint64 kHeifDecodeCeiling = qint64(1) << 31;

// The threads libheif may decode a grid's tiles on: enough for two to four cores, and a bound on
// what a file of ten thousand tiles can start.
constexpr int kHeifThreads = 4;

// --- colour ---

// A transfer curve as a table from the encoded value to linear light, 0…1 in 4096 steps.
QList<uint16_t> transferTable(const std::function<double(double)>& toLinear) {
    QList<uint16_t> table(4096);
    for (int i = 0; i < 4096; ++i)
        table[i] = uint16_t(std::lround(std::clamp(toLinear(i / 4095.0), 0.0, 1.0) * 65535.0));
    return table;
}

// SMPTE ST 2084 (PQ) to linear light, scaled so that the reference white of BT.2408 (203 cd/m²)
// is 1: what an SDR picture shows as white. Brighter highlights are clipped.
double pqToLinear(double e) {
    const double m1 = 2610.0 / 16384, m2 = 2523.0 / 4096 * 128, c1 = 3424.0 / 4096, c2 = 2413.0 / 4096 * 32,
                 c3 = 2392.0 / 4096 * 32;
    const double p = std::pow(std::max(e, 0.0), 1 / m2);
    const double nits = 10000.0 * std::pow(std::max(p - c1, 0.0) / (c2 - c3 * p), 1 / m1);
    return nits / 203.0;
}

// ARIB STD-B67 (HLG) to display light on a 1000 cd/m² display (system gamma 1.2), the reference
// white (75 % signal) at 1.
double hlgToLinear(double e) {
    const double a = 0.17883277, b = 1 - 4 * a, c = 0.5 - a * std::log(4 * a);
    const double scene = e <= 0.5 ? e * e / 3 : (std::exp((e - c) / a) + b) / 12;
    const double reference = std::pow((std::exp((0.75 - c) / a) + b) / 12, 1.2);
    return std::pow(scene, 1.2) / reference;
}

// The inverse of the BT.709 camera curve.
double bt709ToLinear(double e) {
    return e < 0.081 ? e / 4.5 : std::pow((e + 0.099) / 1.099, 1 / 0.45);
}

// The colour space the file states for the picture: its ICC profile, or its nclx primaries and
// transfer characteristics; sRGB when it states neither (or something unreadable).
QColorSpace heifColorSpace(const heif_image_handle* handle) {
    const heif_color_profile_type kind = heif_image_handle_get_color_profile_type(handle);
    if (kind == heif_color_profile_type_rICC || kind == heif_color_profile_type_prof) {
        const size_t size = heif_image_handle_get_raw_color_profile_size(handle);
        if (size > 0 && size < (size_t(16) << 20)) {
            QByteArray icc(qsizetype(size), Qt::Uninitialized);
            if (heif_image_handle_get_raw_color_profile(handle, icc.data()).code == heif_error_Ok) {
                const QColorSpace cs = QColorSpace::fromIccProfile(icc);
                if (cs.isValid()) return cs;
            }
        }
    }
    heif_color_profile_nclx* nclx = nullptr;
    if (heif_image_handle_get_nclx_color_profile(handle, &nclx).code != heif_error_Ok || !nclx)
        return QColorSpace(QColorSpace::SRgb);
    const std::unique_ptr<heif_color_profile_nclx, decltype(&heif_nclx_color_profile_free)> guard(
        nclx, heif_nclx_color_profile_free);
    const bool unspecifiedPrimaries = nclx->color_primaries == heif_color_primaries_unspecified ||
                                      nclx->color_primaries == heif_color_primaries_ITU_R_BT_709_5;
    const QPointF white(nclx->color_primary_white_x, nclx->color_primary_white_y);
    const QPointF red(nclx->color_primary_red_x, nclx->color_primary_red_y);
    const QPointF green(nclx->color_primary_green_x, nclx->color_primary_green_y);
    const QPointF blue(nclx->color_primary_blue_x, nclx->color_primary_blue_y);
    const bool havePoints = white.x() > 0 && red.x() > 0 && green.x() > 0 && blue.x() > 0;
    const auto with = [&](const QList<uint16_t>& table) {
        if (unspecifiedPrimaries || !havePoints) return QColorSpace(QColorSpace::Primaries::SRgb, table);
        return QColorSpace(white, red, green, blue, table);
    };
    const auto withCurve = [&](QColorSpace::TransferFunction curve, float gamma = 0) {
        if (unspecifiedPrimaries || !havePoints)
            return QColorSpace(QColorSpace::Primaries::SRgb, curve, gamma);
        return QColorSpace(white, red, green, blue, curve, gamma);
    };
    switch (nclx->transfer_characteristics) {
    case heif_transfer_characteristic_ITU_R_BT_2100_0_PQ:
        return with(transferTable(pqToLinear));
    case heif_transfer_characteristic_ITU_R_BT_2100_0_HLG:
        return with(transferTable(hlgToLinear));
    case heif_transfer_characteristic_ITU_R_BT_709_5:
    case heif_transfer_characteristic_ITU_R_BT_601_6:
    case heif_transfer_characteristic_ITU_R_BT_2020_2_10bit:
    case heif_transfer_characteristic_ITU_R_BT_2020_2_12bit:
        return with(transferTable(bt709ToLinear));
    case heif_transfer_characteristic_linear:
        return withCurve(QColorSpace::TransferFunction::Linear);
    case heif_transfer_characteristic_ITU_R_BT_470_6_System_M:
        return withCurve(QColorSpace::TransferFunction::Gamma, 2.2f);
    case heif_transfer_characteristic_ITU_R_BT_470_6_System_B_G:
        return withCurve(QColorSpace::TransferFunction::Gamma, 2.8f);
    default:
        return withCurve(QColorSpace::TransferFunction::SRgb);
    }
}

} // namespace

QString heifTypeOf(const uchar* head, int length) {
    if (length < 12) return QString();
    // A generic "mif1" brand only says "maybe"; the MIME type below decides.
    const heif_filetype_result check = heif_check_filetype(head, length);
    if (check != heif_filetype_yes_supported && check != heif_filetype_maybe) return QString();
    const char* mime = heif_get_file_mime_type(head, length);
    if (mime && std::strcmp(mime, "image/heic") == 0) return QStringLiteral("image/heic");
    if (mime && std::strcmp(mime, "image/heif") == 0) return QStringLiteral("image/heif");
    return QString(); // AVIF and other brands aren't accepted types
}

std::optional<ImageFile::Loaded> decodeHeif(const QByteArray& bytes, const QString& type,
                                            const ImageFile::LoadOptions& options) {
    // A canvas too big at any depth is refused before libheif reads the file at all (with thousands
    // of tiles, reading alone takes seconds).
    const auto canvases =
        heifDerivedCanvases(reinterpret_cast<const uchar*>(bytes.constData()), size_t(bytes.size()));
    if (canvases)
        for (const QSize& c : *canvases)
            if (qint64(c.width()) * c.height() >= kHeifDecodeCeiling / 4) return std::nullopt;
    if (!heifDerivationIsSound(reinterpret_cast<const uchar*>(bytes.constData()), size_t(bytes.size())))
        return std::nullopt;

    HeifContext ctx(heif_context_alloc());
    if (!ctx) return std::nullopt;
    // libheif decodes a grid's tiles on threads of its own, as many as there are tiles unless told.
    heif_context_set_max_decoding_threads(ctx.get(), kHeifThreads);
    // libheif reads from our bytes without copying them; they outlive the context.
    if (heif_context_read_from_memory_without_copy(ctx.get(), bytes.constData(), size_t(bytes.size()),
                                                   nullptr)
            .code != heif_error_Ok)
        return std::nullopt;
    heif_image_handle* rawHandle = nullptr;
    if (heif_context_get_primary_image_handle(ctx.get(), &rawHandle).code != heif_error_Ok)
        return std::nullopt;
    HeifHandle handle(rawHandle);

    // Every size the file states, checked before libheif allocates anything for it: the picture as
    // delivered (rotation applied), its coded size, the canvas of a grid or overlay it is built on,
    // and its thumbnails and depth map.
    const qint64 w = heif_image_handle_get_width(handle.get());
    const qint64 h = heif_image_handle_get_height(handle.get());
    const qint64 codedW = heif_image_handle_get_ispe_width(handle.get());
    const qint64 codedH = heif_image_handle_get_ispe_height(handle.get());
    if (w < 1 || h < 1) return std::nullopt;
    // Deep pictures pass through 16-bit interleaved planes on their way to 8-bit RGBA.
    const qint64 bytesPerPixel = heif_image_handle_get_luma_bits_per_pixel(handle.get()) > 8 ? 8 : 4;
    qint64 side = std::max({w, h, codedW, codedH});
    qint64 area = std::max(w * h, std::max<qint64>(codedW, 0) * std::max<qint64>(codedH, 0));
    if (canvases) {
        for (const QSize& c : *canvases) {
            side = std::max<qint64>({side, c.width(), c.height()});
            area = std::max(area, qint64(c.width()) * c.height());
        }
    } else {
        area = std::max(area, side * side); // the boxes couldn't be read: assume the worst canvas
    }
    if (area >= kHeifDecodeCeiling / bytesPerPixel) return std::nullopt;
    const auto fitsCeiling = [](heif_image_handle* other) {
        const qint64 ow = heif_image_handle_get_width(other), oh = heif_image_handle_get_height(other);
        return ow >= 0 && oh >= 0 && ow * oh < kHeifDecodeCeiling / 8;
    };
    const int thumbnails = std::clamp(heif_image_handle_get_number_of_thumbnails(handle.get()), 0, 64);
    std::vector<heif_item_id> ids(size_t(thumbnails) + 1);
    if (thumbnails > 0) heif_image_handle_get_list_of_thumbnail_IDs(handle.get(), ids.data(), thumbnails);
    for (int i = 0; i < thumbnails; ++i) {
        heif_image_handle* raw = nullptr;
        if (heif_image_handle_get_thumbnail(handle.get(), ids[size_t(i)], &raw).code != heif_error_Ok)
            continue;
        const HeifHandle thumbnail(raw);
        if (!fitsCeiling(thumbnail.get())) return std::nullopt;
    }
    if (heif_image_handle_has_depth_image(handle.get())) {
        heif_item_id depthId = 0;
        if (heif_image_handle_get_list_of_depth_image_IDs(handle.get(), &depthId, 1) == 1) {
            heif_image_handle* raw = nullptr;
            if (heif_image_handle_get_depth_image_handle(handle.get(), depthId, &raw).code == heif_error_Ok) {
                const HeifHandle depth(raw);
                if (!fitsCeiling(depth.get())) return std::nullopt;
            }
        }
    }
    // No image in the file (tile, alpha, canvas) may be larger on a side than the largest size seen.
    heif_context_set_maximum_image_size_limit(ctx.get(), int(std::min<qint64>(side + 1, INT_MAX)));

    auto hold = admit(w, h, options);
    if (!hold) return std::nullopt;

    // Deep pictures (10 and 12 bits, HDR among them) come out at 16 bits, so that their colour is
    // converted before anything is cut to 8.
    const bool deep = heif_image_handle_get_luma_bits_per_pixel(handle.get()) > 8;
    heif_image* rawImage = nullptr;
    // Default decoding options apply the transformations, so the result is upright.
    if (heif_decode_image(handle.get(), &rawImage, heif_colorspace_RGB,
                          deep ? heif_chroma_interleaved_RRGGBBAA_LE : heif_chroma_interleaved_RGBA, nullptr)
            .code != heif_error_Ok)
        return std::nullopt;
    HeifImage image(rawImage);
    int stride = 0;
    const uint8_t* plane = heif_image_get_plane_readonly(image.get(), heif_channel_interleaved, &stride);
    const int iw = heif_image_get_width(image.get(), heif_channel_interleaved);
    const int ih = heif_image_get_height(image.get(), heif_channel_interleaved);
    const int pixelBytes = deep ? 8 : 4;
    if (!plane || iw != w || ih != h || stride < iw * pixelBytes) return std::nullopt;

    const bool alpha = heif_image_handle_has_alpha_channel(handle.get());
    QImage out;
    if (deep) {
        // libheif leaves the samples at their own depth inside 16 bits; spread them over the range.
        const int bits =
            std::clamp(heif_image_get_bits_per_pixel_range(image.get(), heif_channel_interleaved), 9, 16);
        out = QImage(iw, ih, alpha ? QImage::Format_RGBA64 : QImage::Format_RGBX64);
        if (out.isNull()) return std::nullopt;
        for (int y = 0; y < ih; ++y) {
            const auto* src = reinterpret_cast<const uint16_t*>(plane + qsizetype(y) * stride);
            auto* dst = reinterpret_cast<uint16_t*>(out.scanLine(y));
            for (int i = 0; i < iw * 4; ++i) {
                const uint32_t v = std::min<uint32_t>(src[i], (1u << bits) - 1);
                dst[i] = uint16_t((v << (16 - bits)) | (v >> (2 * bits - 16)));
            }
            if (!alpha)
                for (int x = 0; x < iw; ++x)
                    dst[4 * x + 3] = 0xffff;
        }
    } else {
        out = PixelOps::newImage(iw, ih, alpha ? QImage::Format_RGBA8888 : QImage::Format_RGBX8888);
        if (out.isNull()) return std::nullopt;
        for (int y = 0; y < ih; ++y)
            std::memcpy(out.scanLine(y), plane + qsizetype(y) * stride, size_t(iw) * 4);
    }
    const QColorSpace colour = heifColorSpace(handle.get());
    image.reset(); // libheif's planes go before the conversions below need stores of their own
    out.setColorSpace(colour);
    if (alpha && !deep) out.convertTo(QImage::Format_RGBA8888_Premultiplied);
    return finish(std::move(out), type, std::move(*hold));
}

namespace {

// A refused allocation becomes libheif's own write error, never an exception through its frames.
heif_error writeToBuffer(heif_context*, const void* data, size_t size, void* userdata) {
    if (static_cast<GrowingBuffer*>(userdata)->append(data, size))
        return heif_error{heif_error_Ok, heif_suberror_Unspecified, "ok"};
    return heif_error{heif_error_Memory_allocation_error, heif_suberror_Unspecified, "out of memory"};
}

} // namespace

QByteArray encodeHeif(const QImage& source, int quality, const QByteArray& exif, const QByteArray& xmp,
                      const char* preset) {
    if (source.isNull()) return QByteArray();
    const QImage rgba = source.convertToFormat(QImage::Format_RGBA8888); // libheif wants straight alpha
    if (rgba.isNull()) return QByteArray();
    // A picture that could hold transparency and holds none is written without an alpha plane,
    // which the encoder would otherwise encode as a second picture.
    const bool alpha = ImageFile::hasTransparency(source);

    HeifContext ctx(heif_context_alloc());
    heif_encoder* encoder = nullptr;
    if (heif_context_get_encoder_for_format(ctx.get(), heif_compression_HEVC, &encoder).code != heif_error_Ok)
        return QByteArray();
    std::unique_ptr<heif_encoder, decltype(&heif_encoder_release)> encoderGuard(encoder,
                                                                                heif_encoder_release);
    heif_encoder_set_lossy_quality(encoder, quality);
    // An encoder without the parameter (not x265) keeps its own speed.
    if (preset) (void)heif_encoder_set_parameter_string(encoder, "preset", preset);

    heif_image* rawImage = nullptr;
    const heif_chroma chroma = alpha ? heif_chroma_interleaved_RGBA : heif_chroma_interleaved_RGB;
    if (heif_image_create(rgba.width(), rgba.height(), heif_colorspace_RGB, chroma, &rawImage).code !=
        heif_error_Ok)
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
    // What is written is sRGB, converted with these coefficients. libheif leaves the colour box out
    // for sRGB (macOS misreads it), and a file without one is read as sRGB everywhere.
    if (heif_color_profile_nclx* nclx = heif_nclx_color_profile_alloc()) {
        heif_nclx_color_profile_set_color_primaries(nclx, heif_color_primaries_ITU_R_BT_709_5);
        heif_nclx_color_profile_set_transfer_characteristics(nclx,
                                                             heif_transfer_characteristic_IEC_61966_2_1);
        heif_nclx_color_profile_set_matrix_coefficients(nclx, heif_matrix_coefficients_ITU_R_BT_601_6);
        nclx->full_range_flag = 1;
        heif_image_set_nclx_color_profile(image.get(), nclx);
        heif_nclx_color_profile_free(nclx);
    }
    heif_image_handle* rawHandle = nullptr;
    if (heif_context_encode_image(ctx.get(), image.get(), encoder, nullptr, &rawHandle).code != heif_error_Ok)
        return QByteArray();
    HeifHandle handle(rawHandle);
    // Metadata that can't be added is left out rather than failing the picture.
    if (!exif.isEmpty())
        heif_context_add_exif_metadata(ctx.get(), handle.get(), exif.constData(), int(exif.size()));
    if (!xmp.isEmpty())
        heif_context_add_XMP_metadata(ctx.get(), handle.get(), xmp.constData(), int(xmp.size()));

    GrowingBuffer out;
    heif_writer writer{};
    writer.writer_api_version = 1;
    writer.write = writeToBuffer;
    if (heif_context_write(ctx.get(), &writer, &out).code != heif_error_Ok) return QByteArray();
    return out.bytes();
}

ImageMetadata::Blocks heifMetadata(const QByteArray& bytes, QStringList* leftOut) {
    ImageMetadata::Blocks blocks;
    const auto canvases =
        heifDerivedCanvases(reinterpret_cast<const uchar*>(bytes.constData()), size_t(bytes.size()));
    if (canvases)
        for (const QSize& c : *canvases)
            if (qint64(c.width()) * c.height() >= kHeifDecodeCeiling / 4) return blocks;
    if (!heifDerivationIsSound(reinterpret_cast<const uchar*>(bytes.constData()), size_t(bytes.size())))
        return blocks;
    HeifContext ctx(heif_context_alloc());
    if (!ctx || heif_context_read_from_memory_without_copy(ctx.get(), bytes.constData(), size_t(bytes.size()),
                                                           nullptr)
                        .code != heif_error_Ok)
        return blocks;
    heif_image_handle* rawHandle = nullptr;
    if (heif_context_get_primary_image_handle(ctx.get(), &rawHandle).code != heif_error_Ok) return blocks;
    HeifHandle handle(rawHandle);
    const auto read = [&](const char* type, const char* contentType) {
        heif_item_id id = 0;
        if (heif_image_handle_get_list_of_metadata_block_IDs(handle.get(), type, &id, 1) < 1)
            return QByteArray();
        // XMP is a "mime" item of its own content type; other mime items aren't metadata we carry.
        if (contentType &&
            qstrcmp(heif_image_handle_get_metadata_content_type(handle.get(), id), contentType) != 0)
            return QByteArray();
        const size_t size = heif_image_handle_get_metadata_size(handle.get(), id);
        if (qint64(size) > ImageMetadata::kMaxCarried && leftOut)
            *leftOut << QStringLiteral("%1 of %2 KB")
                            .arg(contentType ? QStringLiteral("XMP") : QStringLiteral("EXIF"))
                            .arg((size + 1023) / 1024);
        if (size == 0 || qint64(size) > ImageMetadata::kMaxCarried) return QByteArray();
        QByteArray data(qsizetype(size), Qt::Uninitialized);
        if (heif_image_handle_get_metadata(handle.get(), id, data.data()).code != heif_error_Ok)
            return QByteArray();
        return data;
    };
    const QByteArray exif = read("Exif", nullptr);
    // An Exif item starts with the distance from its fifth byte to the TIFF header.
    if (exif.size() > 4) {
        const auto* p = reinterpret_cast<const uchar*>(exif.constData());
        const quint64 offset = (quint64(p[0]) << 24) | (quint64(p[1]) << 16) | (quint64(p[2]) << 8) | p[3];
        if (offset < quint64(exif.size() - 4)) blocks.exif = exif.mid(qsizetype(4 + offset));
    }
    blocks.xmp = read("mime", "application/rdf+xml");
    return blocks;
}

bool hasHeifEncoder() {
    static const bool has = heif_have_encoder_for_format(heif_compression_HEVC) != 0;
    return has;
}

} // namespace cutlark::ImageCodecs
