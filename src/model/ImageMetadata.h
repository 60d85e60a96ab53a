#pragma once

#include <QByteArray>
#include <QSize>
#include <QString>

/// What a photograph says about itself beyond its pixels — camera, lens, exposure, date, place,
/// rights (EXIF and XMP) — carried from a source file onto a result written from it.
namespace cutlark::ImageMetadata {

/// True for the written types whose files can hold EXIF and XMP and that we can write them into:
/// JPEG, PNG, WebP and TIFF. GIF, BMP and HEIC/HEIF results are written without them.
bool canCarry(const QString& type);

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
/// Returns `encoded` itself when the type can't hold metadata, the source has none, can't be read,
/// or holds more than `kMaxCarried` bytes of it; a damaged source never fails the write. Safe to call
/// from several threads (calls are taken one at a time).
QByteArray carryOver(const QString& sourcePath, const QByteArray& encoded, const QString& type, QSize size);

/// The most EXIF plus XMP carried: far above what cameras and editors write (tens of KB), low
/// enough that a crafted file can't make every result balloon.
inline constexpr qint64 kMaxCarried = qint64(1) << 20;

} // namespace cutlark::ImageMetadata
