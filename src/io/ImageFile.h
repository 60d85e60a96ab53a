#pragma once

#include <QByteArray>
#include <QImage>
#include <QSize>
#include <QString>

#include "io/ImageMetadata.h"
#include <QStringList>

#include <memory>
#include <optional>

namespace cutlark::MemoryBudget {
class Hold;
}

/// The only place where bytes on disk become images and images become bytes on disk.
///
/// File types are MIME type names (`image/png`, `image/jpeg`, …). HEIC is kept distinct from HEIF by its
/// content brand or, for names, by the `.heic` suffix, although the MIME database treats both as HEIF.
namespace cutlark::ImageFile {

/// How a file stored its pixels, so that what is written for it is stored alike.
struct Storage {
    /// PNG, TIFF, BMP, GIF and lossless WebP; not JPEG, HEIF or lossy WebP.
    bool lossless = true;
    /// Lossy WebP: the quality (0–100) it was written at, estimated from its quantiser; else -1.
    int quality = -1;
};

/// What `save` assumes of a picture whose source it isn't told: lossy, quality unknown.
inline constexpr Storage kUnknownSource{false, -1};

struct Loaded {
    QImage image; ///< upright, orientation tag applied
    QString type; ///< MIME type the content was recognised as
    /// The picture's share of the memory budget, for as long as anything keeps the picture; null
    /// when the caller keeps the accounts itself (`LoadOptions::admit` off).
    std::shared_ptr<const MemoryBudget::Hold> hold;
    /// How the file stored its pixels.
    Storage storage;
    /// What is wrong with a file that opened all the same ("ends early": the rest of the picture
    /// is grey); empty for a sound one.
    QString damage;
};

struct LoadOptions {
    /// Refuse a picture that doesn't fit in the memory budget with its work, and hold its pixels
    /// there. Off for a caller that has taken the budget for the picture already.
    bool admit = true;
    /// The size of the file the picture comes from, for `allowedPixels`; loading sets it.
    qint64 fileBytes = 0;
};

/// Any file may hold a picture of this many pixels (most cameras' photographs; larger ones come
/// in files big enough for the rule below). With the heaviest settings such a picture peaks
/// near 1.2 GB, so that no file under 2 MB can cost more than about that by default.
inline constexpr qint64 kFreePixels = 40'000'000;
/// Beyond that, a picture needs a file of at least one byte per this many pixels. Photographs
/// store 1 to 5 pixels a byte and flat artwork a few dozen; a 1 KB file claiming 16000² pixels
/// (as RLE BMPs, PNGs of one colour and animated WebP canvases can) would cost gigabytes to open.
inline constexpr qint64 kPixelsPerFileByte = 20;

/// The most pixels a picture from a file of `fileBytes` may decode to: `kFreePixels`, or more for
/// a file big enough to hold more, or what `setMaxMegapixels` allows. The memory budget still
/// applies on top.
qint64 allowedPixels(qint64 fileBytes);

/// Lets pictures of up to `megapixels` open whatever their file's size (`--max-megapixels` of both
/// programs); 0 goes back to the rule alone. For the start of a program, before anything decodes.
void setMaxMegapixels(double megapixels);

/// Why the last load on this thread refused its file, when there is more to say than that it
/// isn't a picture cutlark opens: a picture out of all proportion to its file, with how to allow
/// it. Empty otherwise. Callers name the file.
QString lastRefusal();

/// Decodes image 0 of the file, upright. Absent when the file can't be read, isn't one of the
/// accepted formats by content, or doesn't fit in the memory budget (`MemoryBudget`; checked from
/// the header, before anything is allocated). Hostile files are refused in bounded time and memory:
/// PNG chunks that claim more than the file holds, JPEGs with more scans than any encoder writes,
/// HEIF images libheif would decode past 2³¹ bytes. 8-bit sRGB images come back premultiplied RGBA
/// (or RGBX) so that the item's image and its pixel buffer can share one store.
std::optional<Loaded> load(const QString& path, const LoadOptions& options = {});

/// The same decoding, from bytes already in memory.
std::optional<Loaded> loadFromData(const QByteArray& bytes, const LoadOptions& options = {});

/// The decoded size the file's header states, without decoding; absent when it can't be read.
std::optional<QSize> probeSize(const QString& path);

/// Writes `image` to `path` as `writableType(type)`: JPEG at quality 0.92; WebP lossless when the
/// `source` was, else lossy at the source's own quality up to 0.92 (0.92 when unknown), so that a
/// web picture neither grows tenfold nor loses more at each save; GIF with a palette of at most 256
/// colours, pixels under half opacity its transparent colour; everything else lossless. The file is
/// replaced atomically — written beside the target and renamed over it — so a failed write leaves an
/// existing file untouched. The name is used as given even when the type falls back. `quality`
/// from 1 to 100 overrides those rules for the lossy types (JPEG, WebP, HEIC/HEIF), and for PNG is
/// the compression effort: zlib's level ⌈quality × 9 / 100⌉ (without it, zlib's default level 6).
/// Other types ignore it.
bool save(const QImage& image, const QString& path, const QString& type,
          const Storage& source = kUnknownSource, int quality = -1);

/// The PNG effort of a save the user waits for in the window: zlib's level 4. Measured on 12-MP
/// cutouts, 2.3–2.4× faster to write than the default level 6 (0.6–0.75 s against 1.4–2.1 s) for
/// files 6–17 % larger; level 1 is faster still but 27–37 % larger, level 9 takes 11–13 s.
inline constexpr int kInteractivePngEffort = 40;

/// The `quality` for a save in the window of a picture of `type`: the PNG effort above for PNG, the
/// save rules (-1) for every other type.
int interactiveQuality(const QString& type);
/// True when some pixel of `image` isn't fully opaque (a format with alpha says only that it could be).
bool hasTransparency(const QImage& image);

/// Encodes without writing; empty on failure. `metadata` goes into the types whose encoder writes
/// it (HEIC, HEIF; see `ImageMetadata::carriedByEncoder`) and is ignored by the others.
QByteArray encode(const QImage& image, const QString& type, const Storage& source = kUnknownSource,
                  int quality = -1, const ImageMetadata::Blocks& metadata = {});

/// True for the types that can carry transparency: PNG, TIFF, GIF, HEIC, HEIF, WebP (by equality).
bool supportsAlpha(const QString& type);

/// The eight accepted types, in order: PNG, JPEG, TIFF, BMP, GIF, HEIC, HEIF, WebP.
const QStringList& acceptedTypes();

/// What the encoders on this machine can really write, in the order of `acceptedTypes`.
const QStringList& encodableTypes();

/// The type `save` really writes for `type`: itself when encodable; JPEG for a JPEG subtype; else PNG.
QString writableType(const QString& type);

/// The MIME type a file name extension (without dot, any case) stands for, or empty for none.
QString typeForExtension(const QString& extension);

/// True when `type` equals `other` or inherits from it in the MIME database.
bool conforms(const QString& type, const QString& other);

/// The usual extension of a type (`png`, `jpg`, `heic`, …), or empty when it has none.
QString preferredExtension(const QString& type);

/// The largest decoded image, in bytes at 4 per pixel, that loading could ever accept: the memory
/// budget less the pipeline's work on the picture.
qint64 maxDecodedBytes();

} // namespace cutlark::ImageFile
