#pragma once

#include "io/ImageFile.h"
#include "support/MemoryBudget.h"

#include <QByteArray>
#include <QImage>
#include <QSize>

#include <cstddef>
#include <optional>
#include <vector>

class QIODevice;

// The decoders behind `ImageFile`, one source file each. Private to the model: everything outside
// goes through `ImageFile`.
namespace cutlark::ImageCodecs {

/// The budget's answer for a picture of w × h about to be decoded: a hold on the picture and its
/// work while decoding (shrunk to the picture once it exists), an empty hold when the caller keeps
/// the accounts itself, or absent when the picture must be refused. Sizes whose 4-byte pixels
/// overflow what an image can address are refused before anything else.
std::optional<MemoryBudget::Hold> admit(qint64 width, qint64 height, const ImageFile::LoadOptions& options);

/// The MIME type for a format name of Qt's readers, when it is one of the accepted types; every
/// other decoder Qt carries (SVG, TGA, XPM, …) is refused even when a file's name claims an
/// accepted type.
QString typeForReaderFormat(const QByteArray& format);

/// A decoded picture with its share of the budget.
std::optional<ImageFile::Loaded> finish(QImage image, const QString& type, MemoryBudget::Hold hold);

/// JPEG through libjpeg-turbo, straight into a pooled RGBX store, orientation tag applied. Refuses
/// files with more than `kMaxJpegScans` scans (the progressive "scan bombs": thousands of empty
/// scans over a big frame that each cost a full pass).
std::optional<ImageFile::Loaded> decodeJpeg(const uchar* data, size_t size,
                                            const ImageFile::LoadOptions& options);

/// JPEG at `quality` straight from 32-bit pixels (RGB32, ARGB32, RGBX8888, RGBA8888 and their
/// premultiplied forms), with the settings, resolution and colour profile Qt's writer gives, so the
/// bytes are the ones it would write — without its copy of every row. Empty for anything it leaves
/// to Qt's writer: other formats, see-through pixels, text keys, a failure.
QByteArray encodeJpeg(const QImage& image, int quality);

/// More scans than any encoder writes (a full progressive script has about ten, optimised ones a
/// few dozen), far fewer than a denial-of-service file needs.
constexpr int kMaxJpegScans = 100;

/// The EXIF orientation (1…8) in an APP1 payload ("Exif\0\0" and a TIFF structure); 1 when there
/// is none or it can't be read.
int exifOrientation(const uchar* data, size_t size);
/// The same from a bare TIFF structure (a PNG's eXIf chunk holds one).
int tiffOrientation(const uchar* data, size_t size);

/// `image` turned and mirrored as EXIF orientation `orientation` (1…8) says it is stored, so that
/// it stands upright; absent when there is no memory for it.
std::optional<QImage> upright(const QImage& image, int orientation);

/// What a picture's pixels are made of, for matching a colour profile to them.
enum class ProfileModel { grey, rgb, cmyk };
/// True when the ICC profile `icc` describes pixels of `model` (its header's data colour space):
/// a grey profile on a colour picture, or the reverse, shifts every colour and is left out.
bool profileFits(const QByteArray& icc, ProfileModel model);

/// The canvas sizes of the grid and overlay items of a HEIF file, read from its boxes (libheif
/// doesn't tell them); absent when the boxes can't be read.
std::optional<std::vector<QSize>> heifDerivedCanvases(const uchar* data, size_t size);

/// False when a grid, overlay or identity item of a HEIF file is derived from itself or from another
/// derived item (libheif follows such chains without end); true when nothing derived can be read.
bool heifDerivationIsSound(const uchar* data, size_t size);

/// HEIC and HEIF through libheif, refusing what libheif would decode past 2³¹ bytes.
std::optional<ImageFile::Loaded> decodeHeif(const QByteArray& bytes, const QString& type,
                                            const ImageFile::LoadOptions& options);
/// The HEVC encoder's speed preset (x265's names), chosen by measurement (bench/bench_save): on a
/// 12-megapixel photograph at quality 92 on two cores, 1.3 s against the encoder's default "slow"
/// 9.6 s, the file 4 % bigger, PSNR the same to 0.05 dB; every preset between took about 4 s.
inline constexpr const char* kHeifPreset = "ultrafast";
/// HEVC in a HEIF file at `quality`; `exif` (a TIFF structure) and `xmp` (a packet), when given,
/// are written as the picture's metadata items. `preset` is the encoder's speed preset.
QByteArray encodeHeif(const QImage& image, int quality = 92, const QByteArray& exif = {},
                      const QByteArray& xmp = {}, const char* preset = kHeifPreset);
bool hasHeifEncoder();
/// The EXIF (its TIFF structure, the item's offset to it applied) and XMP of a HEIC/HEIF file's
/// primary picture, read through libheif without decoding any pixels; blocks over
/// `ImageMetadata::kMaxCarried` bytes (named in `leftOut`, when given), or that can't be read, are
/// left empty.
ImageMetadata::Blocks heifMetadata(const QByteArray& bytes, QStringList* leftOut = nullptr);
/// `image/heic`, `image/heif`, or empty when the head isn't one of those two.
QString heifTypeOf(const uchar* head, int length);

/// GIF with a palette from libimagequant and giflib's writer: a single image, pixels under half
/// opacity transparent. Empty for sides past 65535 or when a library fails.
QByteArray encodeGif(const QImage& image);

/// How a WebP file (the device at its start; left there) stores its picture: lossy VP8 data, also
/// behind an extended header or in an animation frame, with the quality it was written at; else
/// lossless (VP8L, or what can't be read).
ImageFile::Storage webpStorage(QIODevice& device);

/// The canvas an extended WebP (VP8X) draws on, from its header; absent for a simple one.
std::optional<QSize> webpCanvas(QIODevice& device);

/// Every other accepted type through Qt's readers (PNG after its chunks have been walked); the
/// picture is turned upright by `orientation` when Qt's reader doesn't know it (a PNG's eXIf).
std::optional<ImageFile::Loaded> decodeWithQt(QIODevice* device, const ImageFile::LoadOptions& options,
                                              int orientation = 1);

} // namespace cutlark::ImageCodecs
