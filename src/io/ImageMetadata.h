#pragma once

#include <QByteArray>
#include <QSize>
#include <QString>
#include <QStringList>

/// What a photograph says about itself beyond its pixels — camera, lens, exposure, date, place,
/// rights (EXIF and XMP) — carried from a source file onto a result written from it.
namespace cutlark::ImageMetadata {

/// True for the written types whose files can hold EXIF and XMP and that we can write them into:
/// JPEG, PNG, WebP and TIFF (into the encoded file, `carryOver`) and HEIC/HEIF (handed to the
/// encoder, `forResult`). GIF and BMP results are written without them.
bool canCarry(const QString& type);

/// True for HEIC and HEIF: the metadata goes in while the file is encoded (items of the file's
/// own), so it is read with `forResult` and handed to the encoder; `carryOver` leaves them alone.
bool carriedByEncoder(const QString& type);

/// The amended metadata as separate blocks: `exif` a TIFF structure (byte-order mark first, as a
/// HEIF Exif item holds it after its offset), `xmp` an XMP packet. Either is empty when there is none.
struct Blocks {
    QByteArray exif;
    QByteArray xmp;
    bool isEmpty() const { return exif.isEmpty() && xmp.isEmpty(); }
};

/// The metadata `carryOver` would write for a result of `size` from the file at `sourcePath`,
/// amended the same way, as blocks for an encoder that writes them itself. Empty when the source
/// has none, can't be read, or holds more than `kMaxCarried` bytes of it. Safe from several threads.
/// What was found and left out for being too large is added to `leftOut` when given.
Blocks forResult(const QString& sourcePath, QSize size, QStringList* leftOut = nullptr);

/// `encoded` (a whole file of `type`) with the EXIF and XMP of the file at `sourcePath` written into
/// it, amended to describe the result rather than the source:
/// - orientation 1: results are written upright, so a source's turn is already in the pixels;
/// - pixel dimensions set to `size` wherever the source states them;
/// - colour space sRGB where the source names one, since results are held and written in sRGB;
/// - the EXIF thumbnail dropped, as it shows the picture before the work;
/// - the tags of how the source stored its pixels dropped (a TIFF's strips and embedded profile, a
///   JPEG's sampling): the result's encoder describes its own.
/// Everything else (camera, exposure, dates, GPS, rights, descriptions) passes unchanged.
///
/// Returns `encoded` itself when the type can't hold metadata or takes it from its encoder, the source has
/// none, can't be read, or holds more than `kMaxCarried` bytes of it; a damaged source never fails the write.
/// Safe to call from several threads. What was found and left out for being too large (see
/// `MetadataBlocks`) is added to `leftOut` when given.
QByteArray carryOver(const QString& sourcePath, const QByteArray& encoded, const QString& type, QSize size,
                     QStringList* leftOut = nullptr);

/// The most EXIF plus XMP carried: far above what cameras and editors write (tens of KB), low
/// enough that a crafted file can't make every result balloon.
inline constexpr qint64 kMaxCarried = qint64(1) << 20;

} // namespace cutlark::ImageMetadata
