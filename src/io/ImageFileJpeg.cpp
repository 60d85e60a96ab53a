// JPEG through libjpeg-turbo: decoding straight into a pooled RGBX store, and encoding straight from
// 32-bit pixels.
#include "io/ImageCodecs.h"

#include "engines/CropEngine.h"
#include "engines/PixelOps.h"

#include <QColorSpace>

#include <algorithm>
#include <climits>
#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include <jpeglib.h>
// after jpeglib.h, which it needs
#include <jerror.h>

namespace cutlark::ImageCodecs {

namespace {

// libjpeg reports fatal errors through `error_exit`, which must not return: it jumps back to the
// decoder's entry point. Warnings (a truncated file, a bogus progression) are passed over, as every
// viewer does, so a damaged file still shows what it has.
struct ErrorManager {
    jpeg_error_mgr base;
    std::jmp_buf jump;
    bool endMissing = false; ///< the data ended before the picture did: its last rows are grey
};

[[noreturn]] void onError(j_common_ptr cinfo) {
    auto* errors = reinterpret_cast<ErrorManager*>(cinfo->err);
    std::longjmp(errors->jump, 1);
}

void onMessage(j_common_ptr) {}

// Every warning counted, one remembered: a file that ends early, which the person should hear of.
void onWarning(j_common_ptr cinfo, int level) {
    if (level >= 0) return; // trace messages
    auto* errors = reinterpret_cast<ErrorManager*>(cinfo->err);
    ++errors->base.num_warnings;
    if (errors->base.msg_code == JWRN_JPEG_EOF) errors->endMissing = true;
}

// Called before each pass over the input's rows: a file with more scans than any encoder writes is
// given up on at once, instead of paying a full pass for each of its thousands of scans.
struct ScanLimit {
    jpeg_progress_mgr base;
};

void checkScans(j_common_ptr cinfo) {
    if (!cinfo->is_decompressor) return;
    if (reinterpret_cast<j_decompress_ptr>(cinfo)->input_scan_number > kMaxJpegScans) onError(cinfo);
}

quint16 read16(const uchar* p, bool bigEndian) {
    return bigEndian ? quint16(p[0] << 8 | p[1]) : quint16(p[1] << 8 | p[0]);
}
quint32 read32(const uchar* p, bool bigEndian) {
    return bigEndian ? (quint32(p[0]) << 24 | quint32(p[1]) << 16 | quint32(p[2]) << 8 | p[3])
                     : (quint32(p[3]) << 24 | quint32(p[2]) << 16 | quint32(p[1]) << 8 | p[0]);
}

// EXIF orientations as the settings' turns: mirror left to right first, then turn clockwise.
// Adobe's CMYK JPEGs store the inks inverted; each channel times the key, over 255, gives RGB.
void cmykToRgbx(uchar* row, int width) {
    for (int x = 0; x < width; ++x) {
        uchar* p = row + 4 * x;
        const unsigned k = p[3];
        p[0] = uchar((p[0] * k + 127) / 255);
        p[1] = uchar((p[1] * k + 127) / 255);
        p[2] = uchar((p[2] * k + 127) / 255);
        p[3] = 255;
    }
}

struct Decoding {
    jpeg_decompress_struct cinfo;
    ErrorManager errors;
    ScanLimit progress;
    QImage image; // the pooled store the rows go into
    std::vector<JSAMPROW> rows;
    int orientation = 1;
    QByteArray icc;
};

// Between setjmp and the end of decoding no C++ object is made whose destructor a jump could skip:
// everything lives in `Decoding` and `hold`, owned by the caller.
bool run(Decoding& d, const uchar* data, size_t size, const ImageFile::LoadOptions& options,
         std::optional<MemoryBudget::Hold>& hold) {
    jpeg_decompress_struct& cinfo = d.cinfo;
    if (setjmp(d.errors.jump)) return false;
    jpeg_mem_src(&cinfo, data, static_cast<unsigned long>(size));
    jpeg_save_markers(&cinfo, JPEG_APP0 + 1, 0xffff); // EXIF
    jpeg_save_markers(&cinfo, JPEG_APP0 + 2, 0xffff); // ICC profile
    if (jpeg_read_header(&cinfo, TRUE) != JPEG_HEADER_OK) return false;

    const qint64 w = cinfo.image_width, h = cinfo.image_height;
    hold = admit(w, h, options);
    if (!hold) return false;
    // libjpeg's own stores (the whole-frame coefficients of a progressive file) stay within what the
    // budget granted the picture's work.
    if (hold->bytes() > 0) cinfo.mem->max_memory_to_use = long(std::min<qint64>(hold->bytes(), LONG_MAX));

    const bool cmyk = cinfo.jpeg_color_space == JCS_CMYK || cinfo.jpeg_color_space == JCS_YCCK;
    switch (cinfo.jpeg_color_space) {
    case JCS_GRAYSCALE:
    case JCS_YCbCr:
    case JCS_RGB:
        cinfo.out_color_space = JCS_EXT_RGBX;
        break;
    case JCS_CMYK:
    case JCS_YCCK:
        cinfo.out_color_space = JCS_CMYK;
        break;
    default:
        return false;
    }
    cinfo.dct_method = JDCT_ISLOW;

    for (jpeg_saved_marker_ptr m = cinfo.marker_list; m; m = m->next) {
        if (m->marker == JPEG_APP0 + 1 && d.orientation == 1)
            d.orientation = exifOrientation(m->data, m->data_length);
    }
    JOCTET* iccData = nullptr;
    unsigned int iccLength = 0;
    if (jpeg_read_icc_profile(&cinfo, &iccData, &iccLength) && iccData) {
        d.icc = QByteArray(reinterpret_cast<const char*>(iccData), int(iccLength));
        std::free(iccData);
    }

    if (!jpeg_start_decompress(&cinfo)) return false;
    if (cinfo.output_width != cinfo.image_width || cinfo.output_height != cinfo.image_height ||
        cinfo.output_components != 4)
        return false;
    d.image = PixelOps::newImage(w, h, QImage::Format_RGBX8888);
    if (d.image.isNull()) return false;
    std::vector<JSAMPROW>& rows = d.rows;
    rows.resize(size_t(std::max(1, cinfo.rec_outbuf_height)));
    while (cinfo.output_scanline < cinfo.output_height) {
        const JDIMENSION first = cinfo.output_scanline;
        const JDIMENSION count = std::min<JDIMENSION>(JDIMENSION(rows.size()), cinfo.output_height - first);
        for (JDIMENSION i = 0; i < count; ++i)
            rows[i] = d.image.scanLine(int(first + i));
        const JDIMENSION got = jpeg_read_scanlines(&cinfo, rows.data(), count);
        if (got == 0) return false;
        if (cmyk)
            for (JDIMENSION i = 0; i < got; ++i)
                cmykToRgbx(rows[i], int(w));
    }
    jpeg_finish_decompress(&cinfo);
    return true;
}

// libjpeg's output gathered a block at a time, in memory from malloc: a refused allocation is a
// libjpeg error (a jump back to the encoder's entry), never an exception thrown through C frames.
struct Destination {
    jpeg_destination_mgr base;
    JOCTET* data;
    size_t size;
};

constexpr size_t kDestinationBlock = 256 * 1024;

void startDestination(j_compress_ptr cinfo) {
    auto* d = reinterpret_cast<Destination*>(cinfo->dest);
    d->data = static_cast<JOCTET*>(std::malloc(kDestinationBlock));
    if (!d->data) onError(reinterpret_cast<j_common_ptr>(cinfo));
    d->size = kDestinationBlock;
    d->base.next_output_byte = d->data;
    d->base.free_in_buffer = d->size;
}

boolean growDestination(j_compress_ptr cinfo) {
    // Called when the whole store is full (free_in_buffer is not to be trusted here).
    auto* d = reinterpret_cast<Destination*>(cinfo->dest);
    auto* grown = static_cast<JOCTET*>(std::realloc(d->data, d->size * 2));
    if (!grown) onError(reinterpret_cast<j_common_ptr>(cinfo)); // d->data is still ours to free
    d->data = grown;
    d->base.next_output_byte = d->data + d->size;
    d->base.free_in_buffer = d->size;
    d->size *= 2;
    return TRUE;
}

void endDestination(j_compress_ptr cinfo) {
    auto* d = reinterpret_cast<Destination*>(cinfo->dest);
    d->size -= d->base.free_in_buffer;
}

struct Encoding {
    jpeg_compress_struct cinfo;
    ErrorManager errors;
    Destination destination{};
    QByteArray icc;
    ~Encoding() { std::free(destination.data); }
};

// As `run`: no C++ object with a destructor is made between setjmp and the end.
bool encodeRows(Encoding& e, const QImage& image, J_COLOR_SPACE layout, int quality) {
    jpeg_compress_struct& cinfo = e.cinfo;
    if (setjmp(e.errors.jump)) return false;
    cinfo.image_width = JDIMENSION(image.width());
    cinfo.image_height = JDIMENSION(image.height());
    cinfo.input_components = 4;
    cinfo.in_color_space = layout;
    jpeg_set_defaults(&cinfo);
    // The resolution as Qt's writer records it, in whichever unit states it more exactly.
    const double dpmX = image.dotsPerMeterX(), dpmY = image.dotsPerMeterY();
    const auto off = [](double v) { return std::abs(v - double(qRound(v))); };
    const double inchError = off(dpmX * 2.54 / 100.) + off(dpmY * 2.54 / 100.);
    const double cmError = (off(dpmX / 100.) + off(dpmY / 100.)) * 2.54;
    if (inchError < cmError) {
        cinfo.density_unit = 1;
        cinfo.X_density = UINT16(qRound(dpmX * 2.54 / 100.));
        cinfo.Y_density = UINT16(qRound(dpmY * 2.54 / 100.));
    } else {
        cinfo.density_unit = 2;
        cinfo.X_density = UINT16((image.dotsPerMeterX() + 50) / 100);
        cinfo.Y_density = UINT16((image.dotsPerMeterY() + 50) / 100);
    }
    jpeg_set_quality(&cinfo, quality, TRUE);
    jpeg_start_compress(&cinfo, TRUE);
    if (!e.icc.isEmpty())
        jpeg_write_icc_profile(&cinfo, reinterpret_cast<const JOCTET*>(e.icc.constData()),
                               unsigned(e.icc.size()));
    const bool alpha = image.hasAlphaChannel();
    const int width = image.width();
    while (cinfo.next_scanline < cinfo.image_height) {
        const uchar* line = image.constScanLine(int(cinfo.next_scanline));
        // A see-through pixel would need the writer's own unpremultiplying; such pictures go to it.
        // (Alpha is the fourth byte in every layout taken here.)
        if (alpha) {
            uint32_t all = ~0u;
            const auto* pixel = reinterpret_cast<const uint32_t*>(line);
            for (int x = 0; x < width; ++x)
                all &= pixel[x];
            if ((all >> 24) != 255) return false; // the fourth byte, little-endian
        }
        JSAMPROW row = const_cast<JSAMPROW>(line);
        jpeg_write_scanlines(&cinfo, &row, 1);
    }
    jpeg_finish_compress(&cinfo);
    return true;
}

} // namespace

QByteArray encodeJpeg(const QImage& image, int quality) {
    // The layouts below are those of a little-endian machine; elsewhere Qt's writer does it all.
    if (Q_BYTE_ORDER != Q_LITTLE_ENDIAN) return QByteArray();
    J_COLOR_SPACE layout;
    switch (image.format()) {
    case QImage::Format_RGB32:
    case QImage::Format_ARGB32:
    case QImage::Format_ARGB32_Premultiplied:
        layout = JCS_EXT_BGRX;
        break;
    case QImage::Format_RGBX8888:
    case QImage::Format_RGBA8888:
    case QImage::Format_RGBA8888_Premultiplied:
        layout = JCS_EXT_RGBX;
        break;
    default:
        return QByteArray();
    }
    if (image.isNull() || !image.textKeys().isEmpty() || quality < 0) return QByteArray();
    auto e = std::make_unique<Encoding>();
    if (image.colorSpace().isValid()) e->icc = image.colorSpace().iccProfile();
    e->cinfo.err = jpeg_std_error(&e->errors.base);
    e->errors.base.error_exit = onError;
    e->errors.base.output_message = onMessage;
    jpeg_create_compress(&e->cinfo);
    e->destination.base.init_destination = startDestination;
    e->destination.base.empty_output_buffer = growDestination;
    e->destination.base.term_destination = endDestination;
    e->cinfo.dest = &e->destination.base;
    const bool ok = encodeRows(*e, image, layout, std::min(quality, 100));
    jpeg_destroy_compress(&e->cinfo);
    if (!ok) return QByteArray();
    return QByteArray(reinterpret_cast<const char*>(e->destination.data), qsizetype(e->destination.size));
}

int exifOrientation(const uchar* data, size_t size) {
    // "Exif\0\0", then a TIFF structure.
    if (size < 14 || std::memcmp(data, "Exif\0\0", 6) != 0) return 1;
    return tiffOrientation(data + 6, size - 6);
}

int tiffOrientation(const uchar* tiff, size_t n) {
    // A TIFF header: byte order, 42, the offset of the first directory.
    if (n < 8) return 1;
    bool big;
    if (tiff[0] == 'M' && tiff[1] == 'M')
        big = true;
    else if (tiff[0] == 'I' && tiff[1] == 'I')
        big = false;
    else
        return 1;
    if (read16(tiff + 2, big) != 42) return 1;
    const quint32 ifd = read32(tiff + 4, big);
    if (ifd < 8 || ifd > n - 2) return 1;
    const quint32 entries = read16(tiff + ifd, big);
    for (quint32 i = 0; i < entries; ++i) {
        const size_t at = size_t(ifd) + 2 + size_t(i) * 12;
        if (at + 12 > n) return 1;
        if (read16(tiff + at, big) != 0x0112) continue;
        // A SHORT held in the first two bytes of the value field.
        if (read16(tiff + at + 2, big) != 3) return 1;
        const int v = read16(tiff + at + 8, big);
        return (v >= 1 && v <= 8) ? v : 1;
    }
    return 1;
}

std::optional<ImageFile::Loaded> decodeJpeg(const uchar* data, size_t size,
                                            const ImageFile::LoadOptions& options) {
    if (!data || size < 4) return std::nullopt;
    auto d = std::make_unique<Decoding>();
    d->cinfo.err = jpeg_std_error(&d->errors.base);
    d->errors.base.error_exit = onError;
    d->errors.base.output_message = onMessage;
    d->errors.base.emit_message = onWarning;
    d->progress.base.progress_monitor = checkScans;
    std::optional<MemoryBudget::Hold> hold;
    jpeg_create_decompress(&d->cinfo);
    d->cinfo.progress = &d->progress.base;
    const bool ok = run(*d, data, size, options, hold);
    jpeg_destroy_decompress(&d->cinfo);
    if (!ok || d->image.isNull() || !hold) return std::nullopt;

    QImage image = std::move(d->image);
    const bool grey = d->cinfo.jpeg_color_space == JCS_GRAYSCALE;
    const bool cmykInk = d->cinfo.jpeg_color_space == JCS_CMYK || d->cinfo.jpeg_color_space == JCS_YCCK;
    if (!d->icc.isEmpty() && profileFits(d->icc, grey      ? ProfileModel::grey
                                                 : cmykInk ? ProfileModel::cmyk
                                                           : ProfileModel::rgb)) {
        const QColorSpace cs = QColorSpace::fromIccProfile(d->icc);
        if (cs.isValid() && cs != QColorSpace(QColorSpace::SRgb)) image.setColorSpace(cs);
    }
    if (d->orientation != 1) {
        auto turned = upright(image, d->orientation);
        if (!turned) return std::nullopt;
        image = std::move(*turned);
    }
    auto loaded = finish(std::move(image), QStringLiteral("image/jpeg"), std::move(*hold));
    if (loaded && d->errors.endMissing) loaded->damage = QStringLiteral("ends early");
    return loaded;
}

} // namespace cutlark::ImageCodecs
