// GIF writing: Qt reads GIF but can't write it. The palette comes from libimagequant (pngquant's
// engine), the file from giflib.
#include "io/ImageCodecs.h"
#include "support/GrowingBuffer.h"

#include <QByteArray>
#include <QImage>

#include <gif_lib.h>
#include <libimagequant.h>

#include <algorithm>
#include <memory>
#include <vector>

namespace cutlark::ImageCodecs {

namespace {

struct LiqDeleter {
    void operator()(liq_attr* a) const { liq_attr_destroy(a); }
    void operator()(liq_image* i) const { liq_image_destroy(i); }
    void operator()(liq_result* r) const { liq_result_destroy(r); }
};
template <typename T> using Liq = std::unique_ptr<T, LiqDeleter>;

// giflib takes fewer bytes written than asked for as its own write error.
int appendToBytes(GifFileType* gif, const GifByteType* data, int length) {
    return static_cast<GrowingBuffer*>(gif->UserData)->append(data, size_t(std::max(length, 0))) ? length : 0;
}

// GIF has one transparent colour and nothing in between: what is at least half opaque is drawn in
// its own colour, the rest becomes the one fully transparent colour, so that the quantiser spends
// no palette entries on alpha it can't keep.
QImage withBinaryAlpha(const QImage& source) {
    QImage rgba = source.convertToFormat(QImage::Format_RGBA8888); // straight alpha, 8 bits
    if (rgba.isNull() || !source.hasAlphaChannel()) return rgba;
    for (int y = 0; y < rgba.height(); ++y) {
        uchar* p = rgba.scanLine(y);
        for (int x = 0; x < rgba.width(); ++x, p += 4) {
            if (p[3] >= 128) {
                p[3] = 255;
            } else {
                p[0] = p[1] = p[2] = p[3] = 0;
            }
        }
    }
    return rgba;
}

} // namespace

QByteArray encodeGif(const QImage& source) {
    // The format stores sides in 16 bits.
    if (source.isNull() || source.width() > 0xFFFF || source.height() > 0xFFFF) return QByteArray();
    QImage rgba = withBinaryAlpha(source);
    if (rgba.isNull()) return QByteArray();
    const int w = rgba.width();
    const int h = rgba.height();

    Liq<liq_attr> attr(liq_attr_create());
    if (!attr) return QByteArray();
    liq_set_max_colors(attr.get(), 256);
    std::vector<void*> rows(size_t(h), nullptr);
    for (int y = 0; y < h; ++y)
        rows[size_t(y)] = rgba.scanLine(y);
    // Gamma 0 means sRGB to libimagequant.
    Liq<liq_image> input(liq_image_create_rgba_rows(attr.get(), rows.data(), w, h, 0));
    if (!input) return QByteArray();
    liq_result* rawResult = nullptr;
    if (liq_image_quantize(input.get(), attr.get(), &rawResult) != LIQ_OK || !rawResult) return QByteArray();
    Liq<liq_result> result(rawResult);
    liq_set_dithering_level(result.get(), 1.0f);
    std::vector<unsigned char> indices(size_t(w) * size_t(h));
    if (liq_write_remapped_image(result.get(), input.get(), indices.data(), indices.size()) != LIQ_OK)
        return QByteArray();
    const liq_palette* palette = liq_get_palette(result.get()); // valid after the remapping
    if (!palette || palette->count == 0 || palette->count > 256) return QByteArray();

    // A GIF colour table has a power-of-two size; the entries past the palette stay black.
    int tableSize = 2;
    while (tableSize < int(palette->count))
        tableSize *= 2;
    std::vector<GifColorType> colours(size_t(tableSize), GifColorType{0, 0, 0});
    int transparent = NO_TRANSPARENT_COLOR;
    for (unsigned i = 0; i < palette->count; ++i) {
        const liq_color c = palette->entries[i];
        colours[i] = GifColorType{c.r, c.g, c.b};
        if (c.a < 128 && transparent == NO_TRANSPARENT_COLOR) transparent = int(i);
    }
    std::unique_ptr<ColorMapObject, decltype(&GifFreeMapObject)> map(
        GifMakeMapObject(tableSize, colours.data()), GifFreeMapObject);
    if (!map) return QByteArray();

    GrowingBuffer bytes;
    int error = 0;
    GifFileType* gif = EGifOpen(&bytes, appendToBytes, &error);
    if (!gif) return QByteArray();
    const auto fail = [&] {
        EGifCloseFile(gif, &error);
        return QByteArray();
    };
    EGifSetGifVersion(gif, true); // GIF89a: the transparency block needs it
    if (EGifPutScreenDesc(gif, w, h, 8, 0, map.get()) != GIF_OK) return fail();
    if (transparent != NO_TRANSPARENT_COLOR) {
        GraphicsControlBlock control{};
        control.DisposalMode = DISPOSAL_UNSPECIFIED;
        control.UserInputFlag = false;
        control.DelayTime = 0;
        control.TransparentColor = transparent;
        GifByteType extension[4];
        const size_t length = EGifGCBToExtension(&control, extension);
        if (EGifPutExtension(gif, GRAPHICS_EXT_FUNC_CODE, int(length), extension) != GIF_OK) return fail();
    }
    if (EGifPutImageDesc(gif, 0, 0, w, h, false, nullptr) != GIF_OK) return fail();
    for (int y = 0; y < h; ++y) {
        if (EGifPutLine(gif, indices.data() + size_t(y) * size_t(w), w) != GIF_OK) return fail();
    }
    if (EGifCloseFile(gif, &error) != GIF_OK) return QByteArray();
    return bytes.bytes();
}

} // namespace cutlark::ImageCodecs
