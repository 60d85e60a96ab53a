// Hostile and unusual files in the containers besides PNG, JPEG and HEIF grids: WebP, BMP, TIFF,
// pictures carrying XMP, PNG far larger than its file.
#include "HostileBytes.h"
#include "HostileFiles.h"

#include <QBuffer>
#include <QImage>
#include <QImageWriter>

#include <stdexcept>

#include <libheif/heif.h>
#include <zlib.h>

namespace cutlark::test::hostile {

using namespace bytes;

namespace {
// The VP8L chunk of a lossless WebP of one colour, as Qt's writer makes it, taken out of its file.
QByteArray losslessChunk(QSize size, QRgb colour) {
    QImage picture(size, QImage::Format_ARGB32);
    picture.fill(colour);
    QByteArray simple;
    QBuffer out(&simple);
    out.open(QIODevice::WriteOnly);
    QImageWriter writer(&out, "webp");
    writer.setQuality(100);
    if (!writer.write(picture) || simple.mid(12, 4) != "VP8L") throw std::runtime_error("webp");
    return simple.mid(12);
}
} // namespace

QByteArray animatedWebp(QSize canvas, QSize frame) {
    const QByteArray vp8l = losslessChunk(frame, qRgba(200, 40, 30, 255));
    QByteArray vp8x;
    vp8x.append(char(0x02)); // animation
    vp8x.append(3, '\0');
    le24(vp8x, quint32(canvas.width() - 1));
    le24(vp8x, quint32(canvas.height() - 1));
    QByteArray anim;
    le32(anim, 0); // background
    le16(anim, 0); // loops
    QByteArray anmf;
    le24(anmf, 0);
    le24(anmf, 0);
    le24(anmf, quint32(frame.width() - 1));
    le24(anmf, quint32(frame.height() - 1));
    le24(anmf, 100); // duration
    anmf.append('\0');
    anmf.append(vp8l);
    const QByteArray body =
        QByteArray("WEBP") + riffChunk("VP8X", vp8x) + riffChunk("ANIM", anim) + riffChunk("ANMF", anmf);
    QByteArray file("RIFF");
    le32(file, quint32(body.size()));
    return file + body;
}

QByteArray bmpRle(int width, int height) {
    QByteArray info;
    le32(info, 40);
    le32(info, quint32(width));
    le32(info, quint32(height));
    le16(info, 1); // planes
    le16(info, 8); // bits per pixel
    le32(info, 1); // BI_RLE8
    le32(info, 2); // image size: the one code below
    le32(info, 2835);
    le32(info, 2835);
    le32(info, 256);
    le32(info, 0);
    QByteArray palette;
    for (int i = 0; i < 256; ++i)
        le32(palette, quint32(i * 0x010101));
    const QByteArray pixels("\x00\x01", 2); // end of the picture
    QByteArray file("BM");
    le32(file, quint32(14 + info.size() + palette.size() + pixels.size()));
    le32(file, 0);
    le32(file, quint32(14 + info.size() + palette.size()));
    return file + info + palette + pixels;
}

QByteArray flatPng(int width, int height) {
    QByteArray png("\x89PNG\r\n\x1a\n", 8);
    QByteArray ihdr;
    be32(ihdr, quint32(width));
    be32(ihdr, quint32(height));
    ihdr.append(char(8));
    ihdr.append(char(0)); // grey
    ihdr.append(3, '\0');
    chunk(png, "IHDR", ihdr);
    // Rows of a filter byte and zeros, deflated a row at a time into one stream.
    z_stream z{};
    deflateInit(&z, 9);
    const QByteArray row(width + 1, '\0');
    QByteArray data;
    QByteArray buffer(1 << 16, '\0');
    for (int y = 0; y <= height; ++y) {
        z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(row.constData()));
        z.avail_in = y < height ? uInt(row.size()) : 0;
        const int flush = y < height ? Z_NO_FLUSH : Z_FINISH;
        int status = Z_OK;
        do {
            z.next_out = reinterpret_cast<Bytef*>(buffer.data());
            z.avail_out = uInt(buffer.size());
            status = deflate(&z, flush);
            data.append(buffer.constData(), buffer.size() - qsizetype(z.avail_out));
        } while (z.avail_out == 0 || (flush == Z_FINISH && status != Z_STREAM_END));
    }
    deflateEnd(&z);
    chunk(png, "IDAT", data);
    chunk(png, "IEND", QByteArray());
    return png;
}

QByteArray xmpPacket(int properties) {
    QByteArray p =
        "<?xpacket begin='' id='W5M0MpCehiHzreSzNTczkc9d'?><x:xmpmeta xmlns:x='adobe:ns:meta/'>"
        "<rdf:RDF xmlns:rdf='http://www.w3.org/1999/02/22-rdf-syntax-ns#'><rdf:Description "
        "rdf:about='' xmlns:dc='http://purl.org/dc/elements/1.1/' xmlns:my='http://example.com/my/'";
    for (int i = 0; i < properties; ++i)
        p += " my:p" + QByteArray::number(i, 36) + "='v'";
    p += "><dc:title><rdf:Alt><rdf:li xml:lang='x-default'>Harbour at dusk</rdf:li></rdf:Alt></dc:title>"
         "</rdf:Description></rdf:RDF></x:xmpmeta><?xpacket end='w'?>";
    return p;
}

namespace {

QByteArray tiffWithXmp(const QByteArray& xmp) {
    // One RGB pixel, uncompressed: width, height, bits, compression, photometric, strip offset,
    // samples, rows per strip, strip bytes, and the XMP packet (tag 700).
    QByteArray t("MM", 2);
    be16(t, 42);
    be32(t, 8);
    const quint32 entries = 10;
    const quint32 pixelAt = 8 + 2 + entries * 12 + 4;
    const quint32 bitsAt = pixelAt + 4;
    const quint32 xmpAt = bitsAt + 6;
    be16(t, entries);
    const auto entry = [&](quint32 tag, quint32 type, quint32 count, quint32 value) {
        be16(t, tag);
        be16(t, type);
        be32(t, count);
        if (type == 3 && count == 1) {
            be16(t, value);
            be16(t, 0);
        } else {
            be32(t, value);
        }
    };
    entry(256, 3, 1, 1);
    entry(257, 3, 1, 1);
    entry(258, 3, 3, bitsAt);
    entry(259, 3, 1, 1);
    entry(262, 3, 1, 2);
    entry(273, 4, 1, pixelAt);
    entry(277, 3, 1, 3);
    entry(278, 3, 1, 1);
    entry(279, 4, 1, 3);
    entry(700, 1, quint32(xmp.size()), xmpAt);
    be32(t, 0);
    t.append("\x10\x80\xf0\x00", 4); // the pixel, padded
    be16(t, 8);
    be16(t, 8);
    be16(t, 8);
    return t + xmp;
}

QByteArray webpWithXmp(const QByteArray& xmp) {
    QByteArray vp8x;
    vp8x.append(char(0x04)); // XMP
    vp8x.append(3, '\0');
    le24(vp8x, 3);
    le24(vp8x, 3);
    const QByteArray body = QByteArray("WEBP") + riffChunk("VP8X", vp8x) +
                            losslessChunk(QSize(4, 4), qRgba(16, 128, 240, 255)) + riffChunk("XMP ", xmp);
    QByteArray file("RIFF");
    le32(file, quint32(body.size()));
    return file + body;
}

QByteArray heicWithXmp(const QByteArray& xmp) {
    heif_context* ctx = heif_context_alloc();
    heif_encoder* encoder = nullptr;
    heif_context_get_encoder_for_format(ctx, heif_compression_HEVC, &encoder);
    heif_image* image = nullptr;
    heif_image_create(16, 16, heif_colorspace_RGB, heif_chroma_interleaved_RGB, &image);
    heif_image_add_plane(image, heif_channel_interleaved, 16, 16, 8);
    int stride = 0;
    uint8_t* plane = heif_image_get_plane(image, heif_channel_interleaved, &stride);
    std::memset(plane, 120, size_t(stride) * 16);
    heif_image_handle* handle = nullptr;
    heif_context_encode_image(ctx, image, encoder, nullptr, &handle);
    heif_context_add_XMP_metadata(ctx, handle, xmp.constData(), int(xmp.size()));
    const QByteArray file = writtenHeif(ctx);
    heif_image_handle_release(handle);
    heif_image_release(image);
    heif_encoder_release(encoder);
    heif_context_free(ctx);
    return file;
}

} // namespace

QByteArray pictureWithXmp(const char* container, const QByteArray& xmp) {
    const QByteArray kind(container);
    if (kind == "png") {
        QImage picture(4, 4, QImage::Format_RGB32);
        picture.fill(qRgb(16, 128, 240));
        const QByteArray itxt = QByteArray("XML:com.adobe.xmp") + '\0' + '\0' + '\0' + '\0' + '\0' + xmp;
        return pngWithChunks(picture, {{"iTXt", itxt}});
    }
    if (kind == "webp") return webpWithXmp(xmp);
    if (kind == "tiff") return tiffWithXmp(xmp);
    if (kind == "heic") return heicWithXmp(xmp);
    throw std::runtime_error("no such container");
}

QByteArray writtenHeif(heif_context* context) {
    QByteArray file;
    heif_writer writer{};
    writer.writer_api_version = 1;
    writer.write = [](heif_context*, const void* data, size_t n, void* user) {
        static_cast<QByteArray*>(user)->append(static_cast<const char*>(data), qsizetype(n));
        return heif_error{heif_error_Ok, heif_suberror_Unspecified, "ok"};
    };
    heif_context_write(context, &writer, &file);
    return file;
}

} // namespace cutlark::test::hostile
