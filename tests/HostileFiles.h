#pragma once

#include <QByteArray>
#include <QSize>

#include <optional>

struct heif_context;

/// Files made to hurt a decoder, built in code so that none is committed. Each is the smallest of
/// its kind that shows the harm; the sizes are parameters so that a tool can make the full-size
/// ones for measurements.
namespace cutlark::test::hostile {

/// A 1 × 1 PNG carrying `chunks` zTXt chunks that each inflate to `inflatedBytes` of text.
QByteArray pngWithTextChunks(int chunks, int inflatedBytes);

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

/// The file a libheif context writes, in memory.
QByteArray writtenHeif(heif_context* context);

} // namespace cutlark::test::hostile
