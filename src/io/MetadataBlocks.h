#pragma once

#include <QByteArray>
#include <QStringList>

class QIODevice;

/// The EXIF and XMP blocks of a picture file, found by walking its container (JPEG segments, PNG
/// chunks, WebP chunks, a TIFF's first directory, HEIF items) within bounds, before any metadata
/// parser sees a byte. What is larger than the caps below is left out and named, so that no file
/// can make a parser spend minutes or gigabytes on its metadata.
namespace cutlark::MetadataBlocks {

struct Found {
    QByteArray exif; ///< a TIFF structure (byte-order mark first); empty when none
    QByteArray xmp;  ///< an XMP packet; empty when none
    /// What was found and left out, in a person's words ("XMP of 2.0 MB, 150000 properties").
    QStringList leftOut;
};

/// The most bytes of EXIF, and of XMP, taken from a file.
inline constexpr qint64 kMaxBlockBytes = qint64(1) << 20;

/// The most XMP properties taken: reading XMP costs time growing with the square of its distinct
/// properties (libexiv2: 5 000 in 0.2 s, 20 000 in 4.6 s, 150 000 in minutes), while cameras and
/// editors write a few hundred.
inline constexpr int kMaxXmpProperties = 5000;

/// The blocks of the file in `device` (seekable, from its start). Reads headers and the metadata
/// blocks only, at most `kMaxBlockBytes` of each, inflating compressed ones within the same bound.
Found read(QIODevice& device);

/// The properties an XMP packet states, counted without parsing it: elements and attributes other
/// than the RDF structure's own (list items of one property count once).
int xmpProperties(const QByteArray& packet);

} // namespace cutlark::MetadataBlocks
