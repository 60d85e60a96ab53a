// Every accepted type that Qt's readers decode (PNG after its chunks have been walked, TIFF, BMP,
// GIF, WebP), refused from what the file states before the reader allocates anything.
#include "io/ImageCodecs.h"

#include "engines/PixelOps.h"
#include "io/PngChunks.h"

#include <QColorSpace>
#include <QImageReader>
#include <QIODevice>

#include <algorithm>
#include <climits>
#include <cmath>
#include <mutex>

namespace cutlark::ImageCodecs {

using ImageFile::Loaded;
using ImageFile::LoadOptions;

namespace {

// RFC 6386's boolean decoder, enough to read the first fields of a key frame's header.
class BoolReader {
public:
    BoolReader(const uchar* data, const uchar* end) : m_at(data), m_end(end) {
        m_value = (next() << 8) | next();
    }
    int bit(int probability = 128) {
        const unsigned split = 1 + (((m_range - 1) * unsigned(probability)) >> 8);
        int b = 0;
        if (m_value >= split << 8) {
            b = 1;
            m_range -= split;
            m_value -= split << 8;
        } else {
            m_range = split;
        }
        while (m_range < 128) {
            m_value <<= 1;
            m_range <<= 1;
            if (++m_bits == 8) {
                m_bits = 0;
                m_value |= next();
            }
        }
        return b;
    }
    int literal(int n) {
        int v = 0;
        while (n-- > 0)
            v = (v << 1) | bit();
        return v;
    }
    int signedLiteral(int n) {
        const int v = literal(n);
        return bit() ? -v : v;
    }

private:
    unsigned next() { return m_at < m_end ? *m_at++ : 0; }
    const uchar* m_at;
    const uchar* m_end;
    unsigned m_value = 0;
    unsigned m_range = 255;
    int m_bits = 0;
};

// The quality libwebp was given for a VP8 key frame, from the quantiser of its coarsest segment.
// libwebp spreads its segments' strengths evenly around the quality's, the coarsest at +127 of
// its spatial-noise amplitude (0.9 × 50 % / 128), and maps quality to quantiser through
// compression c = (2q − 1 or 2q/3)^(1/3); this inverts that. Within a few points of what was
// asked from 10 to 98; -1 when the frame can't be read.
int vp8Quality(const uchar* frame, size_t size) {
    if (size < 12 || (frame[0] & 1) != 0) return -1; // not a key frame
    if (frame[3] != 0x9d || frame[4] != 0x01 || frame[5] != 0x2a) return -1;
    BoolReader r(frame + 10, frame + size);
    r.literal(2); // colour space, clamping
    int segmentQuant[4] = {0, 0, 0, 0};
    bool segments = false;
    bool absolute = false;
    if (r.bit()) {
        const bool updateMap = r.bit();
        if (r.bit()) {
            segments = true;
            absolute = r.bit();
            for (int& q : segmentQuant)
                if (r.bit()) q = r.signedLiteral(7);
            for (int i = 0; i < 4; ++i)
                if (r.bit()) r.signedLiteral(6);
        }
        if (updateMap)
            for (int i = 0; i < 3; ++i)
                if (r.bit()) r.literal(8);
    }
    r.literal(1 + 6 + 3); // filter type, level, sharpness
    if (r.bit() && r.bit())
        for (int i = 0; i < 8; ++i)
            if (r.bit()) r.signedLiteral(6);
    r.literal(2); // partitions
    const int base = r.literal(7);
    int coarsest = base;
    if (segments) {
        coarsest = 0;
        for (int q : segmentQuant)
            coarsest = std::max(coarsest, absolute ? q : base + q);
    }
    coarsest = std::clamp(coarsest, 0, 127);
    const double amplitude = 0.9 * 50 / 100 / 128 * 127;
    const double c = std::pow(1.0 - coarsest / 127.0, segments ? 1.0 / (1.0 + amplitude) : 1.0);
    const double linear = c * c * c;
    const double quality = linear < 0.5 ? linear * 1.5 : (linear + 1) / 2;
    return std::clamp(int(quality * 100), 0, 100);
}

} // namespace

ImageFile::Storage webpStorage(QIODevice& device) {
    // RIFF, size, WEBP, then chunks of fourcc, little-endian size and data padded to even. A handful
    // of chunks is enough: the picture's own comes first or right after a header, profile or frame.
    const qint64 start = device.pos();
    const auto readAt = [&](qint64 at, qint64 n) {
        return device.seek(start + at) ? device.read(n) : QByteArray();
    };
    ImageFile::Storage storage{true, -1};
    const QByteArray riff = readAt(0, 12);
    if (riff.size() == 12 && riff.startsWith("RIFF") && riff.mid(8, 4) == "WEBP") {
        qint64 at = 12;
        for (int chunk = 0; chunk < 16; ++chunk) {
            const QByteArray header = readAt(at, 8);
            if (header.size() < 8) break;
            const QByteArray fourcc = header.left(4);
            const quint32 size = quint32(uchar(header[4])) | quint32(uchar(header[5])) << 8 |
                                 quint32(uchar(header[6])) << 16 | quint32(uchar(header[7])) << 24;
            if (fourcc == "ALPH") storage.lossless = false; // an alpha plane is only ever beside VP8
            if (fourcc == "VP8 ") {
                const QByteArray frame = readAt(at + 8, qMin<qint64>(size, 4096));
                storage = {false, vp8Quality(reinterpret_cast<const uchar*>(frame.constData()),
                                             size_t(frame.size()))};
                break;
            }
            if (fourcc == "VP8L") break;
            // An animation frame: 16 bytes of placement, then the frame's own chunks.
            at += fourcc == "ANMF" ? 8 + 16 : 8 + qint64(size) + (size & 1);
        }
    }
    device.seek(start);
    return storage;
}

namespace {

bool isGreyFormat(QImage::Format f) {
    return f == QImage::Format_Grayscale8 || f == QImage::Format_Grayscale16 || f == QImage::Format_Alpha8;
}

// A PNG's colour type (byte 25: 0 grey, 4 grey with alpha) tells a grey picture that Qt hands over
// in colour formats once it has alpha.
bool pngIsGrey(QIODevice& device) {
    const QByteArray head = device.peek(26);
    return head.size() == 26 && PngChunks::isPng(head) && (head[25] == 0 || head[25] == 4);
}

} // namespace

std::optional<QSize> webpCanvas(QIODevice& device) {
    // RIFF, size, WEBP, then a VP8X chunk: fourcc, size, flags and three reserved bytes, and the
    // canvas's width and height less one, 24 bits each, little-endian.
    const QByteArray head = device.peek(30);
    if (head.size() < 30 || !head.startsWith("RIFF") || head.mid(8, 8) != "WEBPVP8X") return std::nullopt;
    const auto le24 = [&](int at) {
        return int(uchar(head[at])) | int(uchar(head[at + 1])) << 8 | int(uchar(head[at + 2])) << 16;
    };
    return QSize(le24(24) + 1, le24(27) + 1);
}

std::optional<Loaded> decodeWithQt(QIODevice* device, const LoadOptions& options, int orientation) {
    QImageReader reader(device);
    reader.setDecideFormatFromContent(true);
    reader.setAutoTransform(true); // applies the orientation tag
    const QString type = typeForReaderFormat(reader.format());
    if (type.isEmpty()) return std::nullopt;
    // Qt's limit is one for the whole process, so it is set once, never per picture: admission
    // below is what decides, picture by picture.
    static std::once_flag limitSet;
    std::call_once(limitSet, [] {
        QImageReader::setAllocationLimit(
            int(qMin<qint64>(PixelOps::maxImageBytes() / (1024 * 1024) + 1, INT_MAX)));
    });
    // Refuse from the header, before the decoder allocates anything. An animated WebP is drawn on a
    // canvas of its own size, which Qt's reader allocates as soon as it is asked for the size.
    std::optional<MemoryBudget::Hold> hold;
    const std::optional<QSize> canvas =
        type == QStringLiteral("image/webp") ? webpCanvas(*device) : std::nullopt;
    if (canvas && !(hold = admit(canvas->width(), canvas->height(), options))) return std::nullopt;
    const QSize size = reader.size();
    if (!size.isValid()) return std::nullopt;
    if (canvas && (size.width() > canvas->width() || size.height() > canvas->height())) return std::nullopt;
    if (!hold && !(hold = admit(size.width(), size.height(), options))) return std::nullopt;
    const std::optional<ImageFile::Storage> webp =
        type == QStringLiteral("image/webp") ? std::optional(webpStorage(*device)) : std::nullopt;
    const bool grey = type == QStringLiteral("image/png") && pngIsGrey(*device);
    QImage image = reader.read();
    // A decoder that delivers more than its header said is not believed.
    if (image.isNull() || qint64(image.width()) * image.height() > qint64(size.width()) * size.height())
        return std::nullopt;
    const QByteArray icc = image.colorSpace().iccProfile();
    if (!icc.isEmpty() &&
        !profileFits(icc, grey || isGreyFormat(image.format()) ? ProfileModel::grey : ProfileModel::rgb))
        image.setColorSpace(QColorSpace()); // read as sRGB, as viewers do
    if (orientation != 1 && reader.transformation() == QImageIOHandler::TransformationNone) {
        auto turned = upright(image, orientation);
        if (!turned) return std::nullopt;
        image = std::move(*turned);
    }
    auto loaded = finish(std::move(image), type, std::move(*hold));
    if (loaded && webp) loaded->storage = *webp;
    return loaded;
}

} // namespace cutlark::ImageCodecs
