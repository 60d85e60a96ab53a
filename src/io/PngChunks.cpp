#include "io/PngChunks.h"

#include "io/ImageCodecs.h"

#include <QIODevice>

#include <array>
#include <cstring>
#include <vector>

namespace cutlark::PngChunks {

namespace {

const char kSignature[8] = {'\x89', 'P', 'N', 'G', '\r', '\n', '\x1a', '\n'};

quint32 bigEndian32(const char* p) {
    return (quint32(uchar(p[0])) << 24) | (quint32(uchar(p[1])) << 16) | (quint32(uchar(p[2])) << 8) |
           quint32(uchar(p[3]));
}

bool isLetter(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

// Ancillary chunks that change what the pixels look like, with the largest size kept.
struct Kept {
    const char* type;
    qint64 maxLength;
};
constexpr std::array<Kept, 8> kAncillary = {{
    {"tRNS", 256 * 2}, // one alpha per palette entry, or one colour key
    {"gAMA", 4},
    {"cHRM", 32},
    {"sRGB", 1},
    {"iCCP", kMaxIccChunk}, // name, method and the compressed profile
    {"sBIT", 4},
    {"pHYs", 9},
    {"eXIf", kMaxExifChunk},
}};

struct Chunk {
    qint64 offset;
    qint64 length; // of the data, without the 12 bytes of length, type and CRC
    bool keep;
};

} // namespace

bool isPng(const QByteArray& head) {
    return head.size() >= 8 && std::memcmp(head.constData(), kSignature, 8) == 0;
}

Walk walk(QIODevice& device) {
    Walk result;
    if (!device.seek(0)) return result;
    const QByteArray head = device.read(8);
    if (!isPng(head)) return result;
    const qint64 size = device.size();

    std::vector<Chunk> chunks;
    bool seenAncillary[kAncillary.size()] = {};
    qint64 pos = 8;
    int dropped = 0;
    bool first = true;
    while (pos < size) {
        char header[8];
        if (size - pos < 12 || !device.seek(pos) || device.read(header, 8) != 8) return result;
        const qint64 length = bigEndian32(header);
        const char* type = header + 4;
        // The format caps a length at 2³¹ − 1, and no chunk may run past the end of the file.
        if (length > 0x7fffffff || length > size - pos - 12) return result;
        if (!isLetter(type[0]) || !isLetter(type[1]) || !isLetter(type[2]) || !isLetter(type[3]))
            return result;
        if (first && std::memcmp(type, "IHDR", 4) != 0) return result;
        first = false;

        bool keep = true;
        const bool critical = type[0] >= 'A' && type[0] <= 'Z';
        if (!critical) {
            keep = false;
            for (size_t i = 0; i < kAncillary.size(); ++i) {
                if (std::memcmp(type, kAncillary[i].type, 4) != 0) continue;
                keep = !seenAncillary[i] && length <= kAncillary[i].maxLength;
                seenAncillary[i] = true;
                break;
            }
        }
        if (!keep) ++dropped;
        if (keep && std::memcmp(type, "eXIf", 4) == 0) {
            const QByteArray exif = device.read(length);
            if (exif.size() == length)
                result.orientation = ImageCodecs::tiffOrientation(
                    reinterpret_cast<const uchar*>(exif.constData()), size_t(length));
        }
        chunks.push_back({pos, length, keep});
        pos += 12 + length;
        if (std::memcmp(type, "IEND", 4) == 0) break;
    }
    if (chunks.empty()) return result;

    result.dropped = dropped;
    if (dropped == 0) {
        result.verdict = Verdict::clean;
        return result;
    }
    // Rebuild the file from the chunks kept; it costs what the file costs, never more.
    qint64 total = 8;
    for (const Chunk& c : chunks)
        if (c.keep) total += 12 + c.length;
    QByteArray out;
    out.reserve(total);
    out.append(kSignature, 8);
    for (const Chunk& c : chunks) {
        if (!c.keep) continue;
        if (!device.seek(c.offset)) return Walk{};
        const QByteArray bytes = device.read(12 + c.length);
        if (bytes.size() != 12 + c.length) return Walk{};
        out.append(bytes);
    }
    result.verdict = Verdict::filtered;
    result.bytes = std::move(out);
    return result;
}

} // namespace cutlark::PngChunks
