#pragma once

#include <QByteArray>
#include <QImage>
#include <QList>
#include <QPair>
#include <QSize>

#include <optional>

struct heif_context;

/// Files made to hurt a decoder, built in code so that none is committed. Each is the smallest of
/// its kind that shows the harm; the sizes are parameters so that a tool can make the full-size
/// ones for measurements.
namespace cutlark::test::hostile {

/// A 1 × 1 PNG carrying `chunks` zTXt chunks that each inflate to `inflatedBytes` of text.
QByteArray pngWithTextChunks(int chunks, int inflatedBytes);

/// An 8-bit RGB PNG of `image` (alpha dropped) with `chunks` (type, payload) between its header and
/// its pixels: a profile, an eXIf, text, whatever a test needs.
QByteArray pngWithChunks(const QImage& image, const QList<QPair<QByteArray, QByteArray>>& chunks);

/// The payload of an eXIf chunk (a big-endian TIFF structure) stating `orientation`.
QByteArray exifStatingOrientation(int orientation);

/// A grey ICC profile (version 2, D50, gamma 1.8), written by hand.
QByteArray greyProfile();

/// A baseline JPEG of `image` in colour, carrying the ICC profile `icc`.
QByteArray jpegWithProfile(const QImage& image, const QByteArray& icc);

/// The payload of an iCCP chunk holding the profile `icc`.
QByteArray iccChunk(const QByteArray& icc);

/// A 1 × 1 PNG with one more chunk after the header that claims `length` bytes the file doesn't have.
QByteArray pngClaimingChunk(quint32 length);

/// A progressive JPEG of a flat w × h picture whose last scan is repeated `extraScans` more times.
QByteArray jpegWithRepeatedScans(int width, int height, int extraScans);

/// A HEIC image built on a grid of `columns` × `rows` copies of one coded tile of `tile` × `tile`.
/// The grid's canvas is the tiles' extent, or `canvas` when given; the size the file states for the
/// image (its `ispe`) is the canvas, or `stated` when given. With `namesItself` the grid lists itself
/// as its first tile.
QByteArray heicGrid(int columns, int rows, int tile, std::optional<QSize> canvas = std::nullopt,
                    std::optional<QSize> stated = std::nullopt, bool namesItself = false);

/// A JPEG of a small picture whose frame header claims `width` × `height`.
QByteArray jpegClaimingSize(int width, int height);

/// An animated WebP whose canvas is `canvas`, holding one lossless frame of `frame` pixels.
QByteArray animatedWebp(QSize canvas, QSize frame);

/// A BMP of `width` × `height` 8-bit pixels compressed with RLE8 to a single end-of-picture code.
QByteArray bmpRle(int width, int height);

/// A grey PNG of `width` × `height` zeros: a few kilobytes per hundred megapixels.
QByteArray flatPng(int width, int height);

/// An XMP packet of `properties` distinct properties (an attribute each: the cheapest to write, the
/// dearest to parse) and a title.
QByteArray xmpPacket(int properties);

/// A small picture carrying `xmp` as its XMP, in each container that can: "png" (iTXt), "webp"
/// (an XMP chunk), "tiff" (tag 700) and "heic" (an XMP item).
QByteArray pictureWithXmp(const char* container, const QByteArray& xmp);

/// The file a libheif context writes, in memory.
QByteArray writtenHeif(heif_context* context);

} // namespace cutlark::test::hostile
