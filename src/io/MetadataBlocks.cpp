#include "io/MetadataBlocks.h"

#include "io/ImageCodecs.h"
#include "io/PngChunks.h"

#include <QIODevice>

#include <zlib.h>

#include <cstring>

namespace cutlark::MetadataBlocks {

namespace {

// A TIFF file is its own EXIF structure, read whole by the parser (it reads directories, not
// pixels); past this size its metadata is left out rather than the file read into memory.
constexpr qint64 kMaxTiffBytes = qint64(256) << 20;

const QByteArray kExifHeader("Exif\0\0", 6);
const QByteArray kXmpNamespace("http://ns.adobe.com/xap/1.0/\0", 29);

quint32 be(const QByteArray& b, int at, int n) {
    quint32 v = 0;
    for (int i = 0; i < n; ++i)
        v = v << 8 | uchar(b[at + i]);
    return v;
}
quint32 le32(const QByteArray& b, int at) {
    return quint32(uchar(b[at])) | quint32(uchar(b[at + 1])) << 8 | quint32(uchar(b[at + 2])) << 16 |
           quint32(uchar(b[at + 3])) << 24;
}

QByteArray readAt(QIODevice& d, qint64 at, qint64 n) {
    if (n < 0 || !d.seek(at)) return QByteArray();
    QByteArray out = d.read(n);
    return out.size() == n ? out : QByteArray();
}

QString sizeText(qint64 bytes) {
    if (bytes < 1024 * 1024) return QStringLiteral("%1 KB").arg((bytes + 1023) / 1024);
    return QStringLiteral("%1 MB").arg(double(bytes) / (1024 * 1024), 0, 'f', 1);
}

// Takes a block of `length` bytes at `at` as `into`, unless it is larger than the cap.
void take(QIODevice& d, qint64 at, qint64 length, const char* what, QByteArray& into, Found& found) {
    if (length > kMaxBlockBytes) {
        found.leftOut << QStringLiteral("%1 of %2").arg(QLatin1String(what), sizeText(length));
        return;
    }
    into = readAt(d, at, length);
}

// zlib data inflated to at most `limit` bytes; `tooLarge` when there is more.
QByteArray inflated(const QByteArray& compressed, qint64 limit, bool& tooLarge) {
    tooLarge = false;
    z_stream z{};
    if (inflateInit(&z) != Z_OK) return QByteArray();
    QByteArray out(int(limit) + 1, Qt::Uninitialized);
    z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(compressed.constData()));
    z.avail_in = uInt(compressed.size());
    z.next_out = reinterpret_cast<Bytef*>(out.data());
    z.avail_out = uInt(out.size());
    const int status = inflate(&z, Z_FINISH);
    const qint64 produced = qint64(out.size()) - z.avail_out;
    inflateEnd(&z);
    if (produced > limit) {
        tooLarge = true;
        return QByteArray();
    }
    if (status != Z_STREAM_END) return QByteArray();
    out.resize(produced);
    return out;
}

// ImageMagick's "Raw profile type NAME" text: a blank line, the name, the length, then hex digits.
QByteArray rawProfile(const QByteArray& text) {
    const QList<QByteArray> head = text.left(200).split('\n');
    if (head.size() < 4) return QByteArray();
    const qsizetype start = text.indexOf('\n', text.indexOf(head[2]) + 1);
    if (start < 0) return QByteArray();
    QByteArray hex = text.mid(start + 1);
    hex.replace('\n', QByteArray());
    return QByteArray::fromHex(hex);
}

void readJpeg(QIODevice& d, Found& found) {
    qint64 pos = 2;
    for (int segments = 0; segments < 10000; ++segments) {
        const QByteArray head = readAt(d, pos, 4);
        if (head.size() < 4 || uchar(head[0]) != 0xff) return;
        const uchar marker = uchar(head[1]);
        if (marker == 0xff) { // fill
            ++pos;
            continue;
        }
        if (marker == 0x01 || (marker >= 0xd0 && marker <= 0xd7)) {
            pos += 2;
            continue;
        }
        if (marker == 0xda || marker == 0xd9) return; // the pixels start: no metadata after them
        const qint64 length = be(head, 2, 2);
        if (length < 2) return;
        if (marker == 0xe1) {
            const QByteArray kind = readAt(d, pos + 4, std::min<qint64>(length - 2, 29));
            if (kind.startsWith(kExifHeader) && found.exif.isEmpty())
                take(d, pos + 4 + 6, length - 2 - 6, "EXIF", found.exif, found);
            else if (kind == kXmpNamespace && found.xmp.isEmpty())
                take(d, pos + 4 + 29, length - 2 - 29, "XMP", found.xmp, found);
        }
        pos += 2 + length;
    }
}

// A PNG text chunk's keyword, and the text it holds (inflated), for the keywords that carry
// metadata; the text is left empty and its size named when it is too large.
void readPngText(QIODevice& d, qint64 at, qint64 length, const char* type, Found& found) {
    const QByteArray head = readAt(d, at, std::min<qint64>(length, 80));
    const qsizetype end = head.indexOf('\0');
    if (end <= 0) return;
    const QByteArray keyword = head.left(end);
    const bool xmp = keyword == "XML:com.adobe.xmp" && std::strcmp(type, "iTXt") == 0;
    const bool rawExif = keyword == "Raw profile type exif" || keyword == "Raw profile type APP1";
    const bool rawXmp = keyword == "Raw profile type xmp";
    if (!xmp && !rawExif && !rawXmp) return;
    // Hex text is twice its bytes; compressed text can't be longer than its chunk.
    const qint64 limit = xmp ? kMaxBlockBytes : 2 * kMaxBlockBytes + 4096;
    if (length > limit) {
        found.leftOut << QStringLiteral("%1 of %2")
                             .arg(xmp || rawXmp ? QStringLiteral("XMP") : QStringLiteral("EXIF"),
                                  sizeText(length));
        return;
    }
    const QByteArray chunk = readAt(d, at, length);
    QByteArray text;
    bool tooLarge = false;
    if (std::strcmp(type, "iTXt") == 0) {
        // keyword, compression flag and method, language tag, translated keyword, text
        if (chunk.size() < end + 3) return;
        const bool compressed = chunk[end + 1] != 0;
        const qsizetype language = chunk.indexOf('\0', end + 3);
        const qsizetype translated = language < 0 ? -1 : chunk.indexOf('\0', language + 1);
        if (translated < 0) return;
        text = chunk.mid(translated + 1);
        if (compressed) text = inflated(text, limit, tooLarge);
    } else if (std::strcmp(type, "zTXt") == 0) {
        text = inflated(chunk.mid(end + 2), limit, tooLarge);
    } else {
        text = chunk.mid(end + 1);
    }
    if (tooLarge) {
        found.leftOut << QStringLiteral("%1 of more than %2")
                             .arg(xmp || rawXmp ? QStringLiteral("XMP") : QStringLiteral("EXIF"),
                                  sizeText(limit));
        return;
    }
    QByteArray block = xmp ? text : rawProfile(text);
    if (rawExif && block.startsWith(kExifHeader)) block = block.mid(6);
    if (block.size() > kMaxBlockBytes) return;
    QByteArray& into = rawExif ? found.exif : found.xmp;
    if (into.isEmpty()) into = block;
}

void readPng(QIODevice& d, Found& found) {
    const qint64 size = d.size();
    qint64 pos = 8;
    for (int chunks = 0; chunks < 100000 && pos + 12 <= size; ++chunks) {
        const QByteArray head = readAt(d, pos, 8);
        if (head.size() < 8) return;
        const qint64 length = be(head, 0, 4);
        if (length > size - pos - 12) return;
        const QByteArray type = head.mid(4, 4);
        if (type == "eXIf" && found.exif.isEmpty())
            take(d, pos + 8, length, "EXIF", found.exif, found);
        else if (type == "iTXt" || type == "zTXt" || type == "tEXt")
            readPngText(d, pos + 8, length, type.constData(), found);
        else if (type == "IEND")
            return;
        pos += 12 + length;
    }
}

void readWebp(QIODevice& d, Found& found) {
    const qint64 size = d.size();
    qint64 pos = 12;
    for (int chunks = 0; chunks < 100000 && pos + 8 <= size; ++chunks) {
        const QByteArray head = readAt(d, pos, 8);
        if (head.size() < 8) return;
        const qint64 length = le32(head, 4);
        if (length > size - pos - 8) return;
        if (head.startsWith("EXIF") && found.exif.isEmpty()) {
            take(d, pos + 8, length, "EXIF", found.exif, found);
            if (found.exif.startsWith(kExifHeader)) found.exif = found.exif.mid(6);
        } else if (head.startsWith("XMP ") && found.xmp.isEmpty()) {
            take(d, pos + 8, length, "XMP", found.xmp, found);
        }
        pos += 8 + length + (length & 1);
    }
}

// The entry of tag 700 (an XMP packet) in the first directory of the TIFF structure `tiff`, or -1.
// exiv2's EXIF parser parses that packet as XMP on its own, so it is found here first.
qint64 xmpEntry(const QByteArray& tiff, bool& big) {
    if (tiff.size() < 8 || !(tiff.startsWith("II") || tiff.startsWith("MM"))) return -1;
    big = tiff.startsWith("MM");
    const auto u16 = [&](qint64 at) {
        return big ? be(tiff, int(at), 2) : quint32(uchar(tiff[at])) | quint32(uchar(tiff[at + 1])) << 8;
    };
    const qint64 ifd = big ? be(tiff, 4, 4) : le32(tiff, 4);
    if (ifd < 8 || ifd + 2 > tiff.size()) return -1;
    const qint64 entries = u16(ifd);
    for (qint64 i = 0; i < entries && ifd + 2 + (i + 1) * 12 <= tiff.size(); ++i)
        if (u16(ifd + 2 + i * 12) == 700) return ifd + 2 + i * 12;
    return -1;
}

// Takes the XMP packet out of an EXIF structure's first directory (within the caps) and leaves the
// entry empty, so that the EXIF parser has no XMP to parse.
void takeXmpOutOfExif(QByteArray& tiff, Found& found) {
    bool big = false;
    const qint64 at = xmpEntry(tiff, big);
    if (at < 0) return;
    const qint64 count = big ? be(tiff, int(at + 4), 4) : le32(tiff, int(at + 4));
    const qint64 offset = count <= 4 ? at + 8 : (big ? be(tiff, int(at + 8), 4) : le32(tiff, int(at + 8)));
    if (count > kMaxBlockBytes)
        found.leftOut << QStringLiteral("XMP of %1").arg(sizeText(count));
    else if (offset + count <= tiff.size() && found.xmp.isEmpty())
        found.xmp = tiff.mid(offset, count);
    for (int i = 0; i < 4; ++i)
        tiff[at + 4 + i] = '\0'; // a count of nothing
}

// A TIFF file is its own EXIF structure.
void readTiff(QIODevice& d, Found& found) {
    const qint64 size = d.size();
    if (size > kMaxTiffBytes) {
        found.leftOut << QStringLiteral("the metadata of a TIFF of %1").arg(sizeText(size));
        return;
    }
    found.exif = readAt(d, 0, size);
}

} // namespace

int xmpProperties(const QByteArray& packet) {
    int count = 0;
    const char* p = packet.constData();
    const char* end = p + packet.size();
    for (; p < end; ++p) {
        if (*p == '<' && p + 1 < end && p[1] != '/' && p[1] != '?' && p[1] != '!') {
            // The RDF structure itself (descriptions, lists and their items) isn't a property.
            if (end - p < 5 || std::memcmp(p + 1, "rdf:", 4) != 0) ++count;
        } else if (*p == '=' && p + 1 < end && (p[1] == '"' || p[1] == '\'')) {
            ++count; // an attribute: a property written in short form, or a namespace
        }
    }
    return count;
}

Found read(QIODevice& device) {
    Found found;
    const QByteArray head = readAt(device, 0, 16);
    if (head.size() < 8) return found;
    const auto* h = reinterpret_cast<const uchar*>(head.constData());
    if (h[0] == 0xff && h[1] == 0xd8) {
        readJpeg(device, found);
    } else if (PngChunks::isPng(head)) {
        readPng(device, found);
    } else if (head.startsWith("RIFF") && head.mid(8, 4) == "WEBP") {
        readWebp(device, found);
    } else if (head.startsWith("II*\0") || head.startsWith(QByteArray("MM\0*", 4))) {
        readTiff(device, found);
    } else if (!ImageCodecs::heifTypeOf(h, int(head.size())).isEmpty()) {
        const ImageMetadata::Blocks blocks =
            ImageCodecs::heifMetadata(readAt(device, 0, device.size()), &found.leftOut);
        found.exif = blocks.exif;
        found.xmp = blocks.xmp;
    }
    if (!found.exif.isEmpty()) takeXmpOutOfExif(found.exif, found);
    if (!found.xmp.isEmpty()) {
        const int properties = xmpProperties(found.xmp);
        if (properties > kMaxXmpProperties) {
            found.leftOut << QStringLiteral("XMP of %1 properties").arg(properties);
            found.xmp.clear();
        }
    }
    return found;
}

} // namespace cutlark::MetadataBlocks
