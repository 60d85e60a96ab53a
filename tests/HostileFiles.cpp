#include "HostileFiles.h"

#include "HostileBytes.h"

#include <QBuffer>
#include <QImage>
#include <QImageWriter>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <vector>

// After <cstdio>: libjpeg's header uses FILE without including what defines it.
#include <jpeglib.h>
#include <libheif/heif.h>
#include <zlib.h>

namespace cutlark::test::hostile {

using namespace bytes;

namespace {

// --- PNG ---

QByteArray pngStart() {
    QByteArray png("\x89PNG\r\n\x1a\n", 8);
    QByteArray ihdr;
    be32(ihdr, 1);
    be32(ihdr, 1);
    ihdr.append(char(8)); // bit depth
    ihdr.append(char(6)); // RGBA
    ihdr.append(3, '\0');
    chunk(png, "IHDR", ihdr);
    return png;
}

void pngFinish(QByteArray& png) {
    chunk(png, "IDAT", zlibOf(QByteArray("\0\xff\x20\x10\xff", 5))); // filter 0, one orange pixel
    chunk(png, "IEND", QByteArray());
}

// --- JPEG ---

QByteArray encodeJpeg(const QImage& image, bool progressive, const QByteArray& icc = QByteArray()) {
    const QImage rgb = image.convertToFormat(QImage::Format_RGB888);
    jpeg_compress_struct cinfo{};
    jpeg_error_mgr errors{};
    cinfo.err = jpeg_std_error(&errors);
    jpeg_create_compress(&cinfo);
    unsigned char* buffer = nullptr;
    unsigned long size = 0;
    jpeg_mem_dest(&cinfo, &buffer, &size);
    cinfo.image_width = JDIMENSION(rgb.width());
    cinfo.image_height = JDIMENSION(rgb.height());
    cinfo.input_components = 3;
    cinfo.in_color_space = JCS_RGB;
    jpeg_set_defaults(&cinfo);
    jpeg_set_quality(&cinfo, 90, TRUE);
    if (progressive) jpeg_simple_progression(&cinfo);
    jpeg_start_compress(&cinfo, TRUE);
    if (!icc.isEmpty())
        jpeg_write_icc_profile(&cinfo, reinterpret_cast<const JOCTET*>(icc.constData()),
                               unsigned(icc.size()));
    while (cinfo.next_scanline < cinfo.image_height) {
        JSAMPROW row = const_cast<JSAMPROW>(rgb.constScanLine(int(cinfo.next_scanline)));
        jpeg_write_scanlines(&cinfo, &row, 1);
    }
    jpeg_finish_compress(&cinfo);
    jpeg_destroy_compress(&cinfo);
    QByteArray out(reinterpret_cast<const char*>(buffer), int(size));
    std::free(buffer);
    return out;
}

QImage gradient(int w, int h) {
    QImage image(w, h, QImage::Format_RGB32);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            image.setPixel(x, y, qRgb(x * 255 / w, y * 255 / h, (x + y) % 256));
    return image;
}

// --- HEIF boxes ---

quint64 readBE(const uchar* p, int n) {
    quint64 v = 0;
    for (int i = 0; i < n; ++i)
        v = v << 8 | p[i];
    return v;
}

// The payload range of the first box of `type` directly inside [begin, end).
bool findBox(const QByteArray& file, qsizetype begin, qsizetype end, const char* type, qsizetype& payload,
             qsizetype& length, qsizetype* boxStart = nullptr) {
    const auto* d = reinterpret_cast<const uchar*>(file.constData());
    for (qsizetype at = begin; at + 8 <= end;) {
        const qsizetype size = qsizetype(readBE(d + at, 4));
        if (size < 8 || at + size > end) return false;
        if (std::memcmp(d + at + 4, type, 4) == 0) {
            payload = at + 8;
            length = size - 8;
            if (boxStart) *boxStart = at;
            return true;
        }
        at += size;
    }
    return false;
}

// The coded tile and its decoder configuration, taken out of a one-image HEIC that libheif wrote.
struct CodedTile {
    QByteArray hvcC; // the whole box
    QByteArray data;
};

CodedTile encodeTile(int size) {
    heif_context* ctx = heif_context_alloc();
    heif_encoder* encoder = nullptr;
    heif_context_get_encoder_for_format(ctx, heif_compression_HEVC, &encoder);
    heif_encoder_set_lossy_quality(encoder, 50);
    heif_image* image = nullptr;
    heif_image_create(size, size, heif_colorspace_RGB, heif_chroma_interleaved_RGB, &image);
    heif_image_add_plane(image, heif_channel_interleaved, size, size, 8);
    int stride = 0;
    uint8_t* plane = heif_image_get_plane(image, heif_channel_interleaved, &stride);
    for (int y = 0; y < size; ++y)
        for (int x = 0; x < 3 * size; ++x)
            plane[y * stride + x] = uint8_t((x + y) & 0xff);
    heif_image_handle* handle = nullptr;
    heif_context_encode_image(ctx, image, encoder, nullptr, &handle);
    const QByteArray file = writtenHeif(ctx);
    heif_image_handle_release(handle);
    heif_image_release(image);
    heif_encoder_release(encoder);
    heif_context_free(ctx);

    CodedTile tile;
    qsizetype meta = 0, metaLength = 0, iprp = 0, iprpLength = 0, ipco = 0, ipcoLength = 0, p = 0, n = 0,
              start = 0;
    if (!findBox(file, 0, file.size(), "meta", meta, metaLength)) throw std::runtime_error("no meta");
    const qsizetype metaEnd = meta + metaLength;
    if (!findBox(file, meta + 4, metaEnd, "iprp", iprp, iprpLength) ||
        !findBox(file, iprp, iprp + iprpLength, "ipco", ipco, ipcoLength) ||
        !findBox(file, ipco, ipco + ipcoLength, "hvcC", p, n, &start))
        throw std::runtime_error("no hvcC");
    tile.hvcC = file.mid(start, n + 8);
    if (!findBox(file, meta + 4, metaEnd, "iloc", p, n)) throw std::runtime_error("no iloc");
    const auto* d = reinterpret_cast<const uchar*>(file.constData()) + p;
    const int version = d[0];
    const int offsetSize = d[4] >> 4, lengthSize = d[4] & 15, baseSize = d[5] >> 4;
    const int indexSize = version >= 1 ? (d[5] & 15) : 0;
    const uchar* q = d + 6 + (version < 2 ? 2 : 4); // the first item
    q += version < 2 ? 2 : 4;                       // its id
    if (version >= 1) q += 2;                       // construction method
    q += 2;                                         // data reference
    const quint64 base = readBE(q, baseSize);
    q += baseSize + 2; // extent count: one
    q += indexSize;
    const quint64 offset = readBE(q, offsetSize);
    const quint64 length = readBE(q + offsetSize, lengthSize);
    tile.data = file.mid(qsizetype(base + offset), qsizetype(length));
    return tile;
}

} // namespace

QByteArray pngWithTextChunks(int chunks, int inflatedBytes) {
    QByteArray png = pngStart();
    const QByteArray text = QByteArray("Comment") + '\0' + '\0' + zlibOf(QByteArray(inflatedBytes, 'a'));
    for (int i = 0; i < chunks; ++i)
        chunk(png, "zTXt", text);
    pngFinish(png);
    return png;
}

QByteArray pngWithChunks(const QImage& image, const QList<QPair<QByteArray, QByteArray>>& chunks) {
    const QImage rgb = image.convertToFormat(QImage::Format_RGB888);
    QByteArray png("\x89PNG\r\n\x1a\n", 8);
    QByteArray ihdr;
    be32(ihdr, quint32(rgb.width()));
    be32(ihdr, quint32(rgb.height()));
    ihdr.append(char(8)); // bit depth
    ihdr.append(char(2)); // RGB
    ihdr.append(3, '\0');
    chunk(png, "IHDR", ihdr);
    for (const auto& [type, payload] : chunks)
        chunk(png, type.constData(), payload);
    QByteArray rows;
    for (int y = 0; y < rgb.height(); ++y) {
        rows.append('\0'); // filter: none
        rows.append(reinterpret_cast<const char*>(rgb.constScanLine(y)), rgb.width() * 3);
    }
    chunk(png, "IDAT", zlibOf(rows));
    chunk(png, "IEND", QByteArray());
    return png;
}

QByteArray exifStatingOrientation(int orientation) {
    QByteArray tiff("MM", 2);
    be16(tiff, 42);
    be32(tiff, 8); // the first directory
    be16(tiff, 1); // one entry: orientation, a SHORT, one of it, in the value field
    be16(tiff, 0x0112);
    be16(tiff, 3);
    be32(tiff, 1);
    be16(tiff, quint32(orientation));
    be16(tiff, 0);
    be32(tiff, 0); // no next directory
    return tiff;
}

QByteArray greyProfile() {
    const auto s15 = [](QByteArray& out, double v) { be32(out, quint32(qint32(qRound(v * 65536)))); };
    // Two tags: the white point (D50) and the grey curve (gamma 1.8).
    QByteArray wtpt("XYZ \0\0\0\0", 8);
    s15(wtpt, 0.9642);
    s15(wtpt, 1.0);
    s15(wtpt, 0.8249);
    QByteArray ktrc("curv\0\0\0\0", 8);
    be32(ktrc, 1);
    be16(ktrc, quint32(1.8 * 256));
    be16(ktrc, 0);
    QByteArray table;
    be32(table, 2);
    const quint32 first = 128 + 4 + 2 * 12;
    table.append("wtpt", 4);
    be32(table, first);
    be32(table, quint32(wtpt.size()));
    table.append("kTRC", 4);
    be32(table, first + quint32(wtpt.size()));
    be32(table, 12 + 2);
    QByteArray header;
    be32(header, quint32(128 + table.size() + wtpt.size() + ktrc.size()));
    header.append("none", 4);
    be32(header, 0x02100000); // version 2.1
    header.append("mntrGRAYXYZ ", 12);
    header.append(12, '\0'); // date
    header.append("acsp", 4);
    header.append(28, '\0'); // platform, flags, maker, model, attributes, intent
    s15(header, 0.9642);
    s15(header, 1.0);
    s15(header, 0.8249);
    header.append(128 - header.size(), '\0');
    return header + table + wtpt + ktrc;
}

QByteArray jpegWithProfile(const QImage& image, const QByteArray& icc) {
    return encodeJpeg(image, false, icc);
}

QByteArray iccChunk(const QByteArray& icc) {
    return QByteArray("profile") + '\0' + '\0' + zlibOf(icc);
}

QByteArray pngClaimingChunk(quint32 length) {
    QByteArray png = pngStart();
    be32(png, length);
    png.append("tEXt", 4);
    png.append("Comment", 7);
    return png;
}

QByteArray jpegWithRepeatedScans(int width, int height, int extraScans) {
    // A flat picture: its scans are a few runs of empty blocks, so a repeat costs the file almost
    // nothing and the decoder a full pass.
    QImage flat(width, height, QImage::Format_RGB32);
    flat.fill(qRgb(120, 130, 140));
    const QByteArray jpeg = encodeJpeg(flat, true);
    const auto* d = reinterpret_cast<const uchar*>(jpeg.constData());
    const qsizetype n = jpeg.size();
    qsizetype lastScan = -1, at = 2;
    while (at + 4 <= n) {
        if (d[at] != 0xff) throw std::runtime_error("lost in the markers");
        const uchar marker = d[at + 1];
        if (marker == 0xd9) break; // EOI
        const qsizetype segment = qsizetype(d[at + 2]) << 8 | d[at + 3];
        qsizetype next = at + 2 + segment;
        if (marker == 0xda) {
            lastScan = at;
            // Entropy-coded data runs to the next marker that isn't a stuffed zero or a restart.
            while (next + 1 < n &&
                   !(d[next] == 0xff && d[next + 1] != 0 && (d[next + 1] < 0xd0 || d[next + 1] > 0xd7)))
                ++next;
        }
        at = next;
    }
    if (lastScan < 0) throw std::runtime_error("no scan");
    const QByteArray scan = jpeg.mid(lastScan, at - lastScan);
    QByteArray out = jpeg.left(at);
    for (int i = 0; i < extraScans; ++i)
        out.append(scan);
    out.append("\xff\xd9", 2);
    return out;
}

QByteArray jpegClaimingSize(int width, int height) {
    QByteArray jpeg = encodeJpeg(gradient(16, 16), false);
    auto* d = reinterpret_cast<uchar*>(jpeg.data());
    for (qsizetype at = 2; at + 9 < jpeg.size();) {
        const uchar marker = d[at + 1];
        const qsizetype segment = qsizetype(d[at + 2]) << 8 | d[at + 3];
        if (marker == 0xc0) { // the frame header: precision, then height and width
            d[at + 5] = uchar(height >> 8);
            d[at + 6] = uchar(height);
            d[at + 7] = uchar(width >> 8);
            d[at + 8] = uchar(width);
            return jpeg;
        }
        at += 2 + segment;
    }
    throw std::runtime_error("no frame header");
}

QByteArray heicGrid(int columns, int rows, int tile, std::optional<QSize> canvas, std::optional<QSize> stated,
                    bool namesItself) {
    const CodedTile coded = encodeTile(tile);
    const QSize extent = canvas.value_or(QSize(columns * tile, rows * tile));
    const QSize claimed = stated.value_or(extent);
    const int tiles = columns * rows;
    const bool wide = extent.width() > 0xffff || extent.height() > 0xffff;

    QByteArray gridData;
    gridData.append(char(0));
    gridData.append(char(wide ? 1 : 0));
    gridData.append(char(rows - 1));
    gridData.append(char(columns - 1));
    if (wide) {
        be32(gridData, quint32(extent.width()));
        be32(gridData, quint32(extent.height()));
    } else {
        be16(gridData, quint32(extent.width()));
        be16(gridData, quint32(extent.height()));
    }

    const auto ispe = [](QSize s) {
        QByteArray p;
        be32(p, quint32(s.width()));
        be32(p, quint32(s.height()));
        return fullBox("ispe", 0, 0, p);
    };
    const auto meta = [&](quint32 mdatData) {
        QByteArray hdlr;
        be32(hdlr, 0);
        hdlr.append("pict", 4);
        hdlr.append(12, '\0');
        hdlr.append('\0');
        QByteArray pitm;
        be16(pitm, 1);
        QByteArray iinf;
        be16(iinf, quint32(1 + tiles));
        for (int id = 1; id <= 1 + tiles; ++id) {
            QByteArray infe;
            be16(infe, quint32(id));
            be16(infe, 0);
            infe.append(id == 1 ? "grid" : "hvc1", 4);
            infe.append('\0');
            iinf.append(fullBox("infe", 2, id == 1 ? 0 : 1, infe)); // tiles are hidden
        }
        QByteArray dimg;
        be16(dimg, 1);
        be16(dimg, quint32(tiles));
        for (int id = 2; id <= 1 + tiles; ++id)
            be16(dimg, quint32(namesItself && id == 2 ? 1 : id));
        QByteArray ipma;
        be32(ipma, quint32(1 + tiles));
        be16(ipma, 1);
        ipma.append(char(namesItself ? 2 : 1));
        ipma.append(char(3));                  // the grid: its stated size
        if (namesItself) ipma.append(char(4)); // and a bit depth, as a decodable picture has
        for (int id = 2; id <= 1 + tiles; ++id) {
            be16(ipma, quint32(id));
            ipma.append(char(2));
            ipma.append(char(0x81)); // hvcC, essential
            ipma.append(char(2));    // the tile's size
        }
        QByteArray iloc;
        iloc.append(char(0x44)); // 4-byte offsets and lengths
        iloc.append(char(0));
        be16(iloc, quint32(1 + tiles));
        for (int id = 1; id <= 1 + tiles; ++id) {
            be16(iloc, quint32(id));
            be16(iloc, 0);
            be16(iloc, 1);
            be32(iloc,
                 id == 1 ? mdatData : mdatData + quint32(gridData.size())); // every tile is the same data
            be32(iloc, quint32(id == 1 ? gridData.size() : coded.data.size()));
        }
        QByteArray pixi;
        pixi.append(char(3));
        pixi.append(QByteArray(3, char(8)));
        const QByteArray ipco =
            box("ipco", coded.hvcC + ispe(QSize(tile, tile)) + ispe(claimed) + fullBox("pixi", 0, 0, pixi));
        return fullBox("meta", 0, 0,
                       fullBox("hdlr", 0, 0, hdlr) + fullBox("pitm", 0, 0, pitm) +
                           fullBox("iinf", 0, 0, iinf) + fullBox("iref", 0, 0, box("dimg", dimg)) +
                           box("iprp", ipco + fullBox("ipma", 0, 0, ipma)) + fullBox("iloc", 0, 0, iloc));
    };
    QByteArray ftyp;
    ftyp.append("heic", 4);
    be32(ftyp, 0);
    ftyp.append("mif1heic", 8);
    const QByteArray head = box("ftyp", ftyp);
    const quint32 mdatData = quint32(head.size() + meta(0).size() + 8);
    return head + meta(mdatData) + box("mdat", gridData + coded.data);
}

} // namespace cutlark::test::hostile
