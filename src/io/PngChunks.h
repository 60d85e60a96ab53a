#pragma once

#include <QByteArray>

#include <optional>

class QIODevice;

/// The chunk list of a PNG, walked before any decoder sees the file.
///
/// What a PNG costs to decode should follow its pixels, yet a chunk can claim 2 GB in a 50-byte
/// file, and text chunks inflate to many megabytes each that a reader keeps. So the walk refuses
/// any chunk whose length runs past the end of the file, and keeps only the chunks that make the
/// picture: the critical ones and the ancillary ones that change how pixels look (transparency,
/// gamma, chromaticities, sRGB intent, the ICC profile, significant bits, pixel size, EXIF), each
/// once and within a sensible size. Text, time stamps, private and unknown chunks are dropped.
namespace cutlark::PngChunks {

/// True when `head` starts with the PNG signature.
bool isPng(const QByteArray& head);

enum class Verdict {
    clean,    ///< decode the file as it is
    filtered, ///< decode `bytes` instead: the same file without the dropped chunks
    refused,  ///< not a PNG this program opens
};

struct Walk {
    Verdict verdict = Verdict::refused;
    QByteArray bytes;
    int dropped = 0;     ///< chunks left out
    int orientation = 1; ///< from the eXIf chunk kept (1…8), which Qt's reader doesn't apply
};

/// Walks the chunks of the PNG in `device` (seekable, read from position 0). Reads only chunk
/// headers unless something must be dropped; the device's position is undefined afterwards.
Walk walk(QIODevice& device);

/// The largest ICC profile chunk kept, compressed.
constexpr qint64 kMaxIccChunk = qint64(4) << 20;
/// The largest EXIF chunk kept.
constexpr qint64 kMaxExifChunk = qint64(1) << 20;

} // namespace cutlark::PngChunks
