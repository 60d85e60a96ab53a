// Wide-gamut pictures come out in true colour: every file type read through its profile, every stage
// that moves or redraws pixels, every type written. The oracle is Little CMS.
#include "HostileFiles.h"
#include "TestSupport.h"

#include "io/ImageCodecs.h"
#include "io/ImageFile.h"
#include "model/CropModel.h"

#include <QBuffer>
#include <QColorSpace>
#include <QImageWriter>

#include <gtest/gtest.h>
#include <lcms2.h>
#include <libheif/heif.h>

#include <array>
#include <functional>

using namespace cutlark;
using namespace cutlark::test;

namespace {

using Rgb = std::array<int, 3>;

// An RGB profile with the sRGB curve and the given primaries (D65 white), as bytes.
QByteArray profileWithPrimaries(double rx, double ry, double gx, double gy, double bx, double by) {
    const cmsCIExyY white{0.3127, 0.3290, 1.0};
    const cmsCIExyYTRIPLE primaries{{rx, ry, 1.0}, {gx, gy, 1.0}, {bx, by, 1.0}};
    const double srgbCurve[5] = {2.4, 1 / 1.055, 0.055 / 1.055, 1 / 12.92, 0.04045};
    cmsToneCurve* curve = cmsBuildParametricToneCurve(nullptr, 4, srgbCurve);
    cmsToneCurve* curves[3] = {curve, curve, curve};
    cmsHPROFILE profile = cmsCreateRGBProfile(&white, &primaries, curves);
    cmsUInt32Number size = 0;
    cmsSaveProfileToMem(profile, nullptr, &size);
    QByteArray bytes(int(size), '\0');
    cmsSaveProfileToMem(profile, bytes.data(), &size);
    cmsCloseProfile(profile);
    cmsFreeToneCurve(curve);
    return bytes;
}

const QByteArray& displayP3() {
    static const QByteArray icc = profileWithPrimaries(0.680, 0.320, 0.265, 0.690, 0.150, 0.060);
    return icc;
}
const QByteArray& bt2020() {
    static const QByteArray icc = profileWithPrimaries(0.708, 0.292, 0.170, 0.797, 0.131, 0.046);
    return icc;
}

// What Little CMS makes of `rgb` in the profile `icc`, in sRGB (relative colorimetric).
Rgb lcmsToSrgb(const QByteArray& icc, Rgb rgb) {
    cmsHPROFILE from = cmsOpenProfileFromMem(icc.constData(), cmsUInt32Number(icc.size()));
    cmsHPROFILE to = cmsCreate_sRGBProfile();
    cmsHTRANSFORM t = cmsCreateTransform(from, TYPE_RGB_8, to, TYPE_RGB_8, INTENT_RELATIVE_COLORIMETRIC, 0);
    const uchar in[3] = {uchar(rgb[0]), uchar(rgb[1]), uchar(rgb[2])};
    uchar out[3] = {};
    cmsDoTransform(t, in, out, 1);
    cmsDeleteTransform(t);
    cmsCloseProfile(from);
    cmsCloseProfile(to);
    return {out[0], out[1], out[2]};
}

constexpr Rgb kPatch{200, 120, 61}; // an orange well inside sRGB once converted
constexpr Rgb kOther{60, 150, 210};

// A white sheet with a flat patch of `patch` in the middle, in the colour space `icc`.
QImage sheet(const QByteArray& icc, Rgb patch = kPatch, int w = 240, int h = 180) {
    QImage image(w, h, QImage::Format_RGB32);
    image.fill(Qt::white);
    for (int y = h / 4; y < h * 3 / 4; ++y)
        for (int x = w / 4; x < w * 3 / 4; ++x)
            image.setPixel(x, y, qRgb(patch[0], patch[1], patch[2]));
    image.setColorSpace(QColorSpace::fromIccProfile(icc));
    return image;
}

QByteArray qtEncode(const QImage& image, const char* format, int quality = 95) {
    QByteArray bytes;
    QBuffer out(&bytes);
    out.open(QIODevice::WriteOnly);
    QImageWriter writer(&out, format);
    writer.setQuality(quality);
    EXPECT_TRUE(writer.write(image)) << format << ": " << writer.errorString().toStdString();
    return bytes;
}

// A HEIC of `image`'s pixels written with libheif, carrying `icc` or, when empty, an nclx profile
// of Display P3 primaries with the sRGB curve (as phones write it).
QByteArray heic(const QImage& image, const QByteArray& icc) {
    const QImage rgb = image.convertToFormat(QImage::Format_RGB888);
    heif_context* ctx = heif_context_alloc();
    heif_encoder* encoder = nullptr;
    heif_context_get_encoder_for_format(ctx, heif_compression_HEVC, &encoder);
    heif_encoder_set_lossless(encoder, 1);
    heif_image* hi = nullptr;
    heif_image_create(rgb.width(), rgb.height(), heif_colorspace_RGB, heif_chroma_interleaved_RGB, &hi);
    heif_image_add_plane(hi, heif_channel_interleaved, rgb.width(), rgb.height(), 8);
    int stride = 0;
    uint8_t* plane = heif_image_get_plane(hi, heif_channel_interleaved, &stride);
    for (int y = 0; y < rgb.height(); ++y)
        std::memcpy(plane + y * stride, rgb.constScanLine(y), size_t(rgb.width()) * 3);
    heif_color_profile_nclx* nclx = heif_nclx_color_profile_alloc();
    heif_nclx_color_profile_set_color_primaries(nclx, icc.isEmpty() ? heif_color_primaries_SMPTE_EG_432_1
                                                                    : heif_color_primaries_ITU_R_BT_709_5);
    heif_nclx_color_profile_set_transfer_characteristics(nclx, heif_transfer_characteristic_IEC_61966_2_1);
    heif_nclx_color_profile_set_matrix_coefficients(nclx, heif_matrix_coefficients_ITU_R_BT_601_6);
    nclx->full_range_flag = 1;
    heif_image_set_nclx_color_profile(hi, nclx);
    if (!icc.isEmpty()) heif_image_set_raw_color_profile(hi, "prof", icc.constData(), size_t(icc.size()));
    heif_encoding_options* options = heif_encoding_options_alloc();
    options->save_two_colr_boxes_when_ICC_and_nclx_available = 1;
    options->output_nclx_profile = nclx;
    options->macOS_compatibility_workaround_no_nclx_profile = 0; // libheif leaves the box out otherwise
    heif_image_handle* handle = nullptr;
    heif_context_encode_image(ctx, hi, encoder, options, &handle);
    heif_encoding_options_free(options);
    heif_nclx_color_profile_free(nclx);
    const QByteArray file = hostile::writtenHeif(ctx);
    heif_image_handle_release(handle);
    heif_image_release(hi);
    heif_encoder_release(encoder);
    heif_context_free(ctx);
    return file;
}

// The colour at (x, y) as sRGB bytes, and how far it is from `expected`.
int distance(const QImage& image, QPoint at, Rgb expected) {
    const QColor c = image.pixelColor(at);
    return std::max({std::abs(c.red() - expected[0]), std::abs(c.green() - expected[1]),
                     std::abs(c.blue() - expected[2])});
}

} // namespace

TEST(ColorManagement, EveryTypeIsReadThroughItsProfile) {
    const Rgb expected = lcmsToSrgb(displayP3(), kPatch);
    ASSERT_GT(std::abs(expected[0] - kPatch[0]) + std::abs(expected[1] - kPatch[1]) +
                  std::abs(expected[2] - kPatch[2]),
              6)
        << "the profile makes a difference worth testing";
    const QImage p3 = sheet(displayP3());
    const QList<QPair<QString, QByteArray>> files = {
        {QStringLiteral("JPEG"), qtEncode(p3, "jpeg", 100)},
        {QStringLiteral("PNG"), qtEncode(p3, "png")},
        {QStringLiteral("WebP"), qtEncode(p3, "webp", 100)},
        {QStringLiteral("TIFF"), qtEncode(p3, "tiff")},
        {QStringLiteral("HEIC with an ICC profile"), heic(p3, displayP3())},
        {QStringLiteral("HEIC with nclx"), heic(p3, QByteArray())},
    };
    for (const auto& [name, bytes] : files) {
        const auto loaded = ImageFile::loadFromData(bytes);
        ASSERT_TRUE(loaded) << name.toStdString();
        EXPECT_EQ(loaded->image.colorSpace(), QColorSpace(QColorSpace::SRgb)) << name.toStdString();
        EXPECT_LE(distance(loaded->image, QPoint(120, 90), expected), 2) << name.toStdString();
        EXPECT_LE(distance(loaded->image, QPoint(5, 5), {255, 255, 255}), 1)
            << name.toStdString() << ": white stays white";
    }
    // BT.2020 primaries too.
    const Rgb wide = lcmsToSrgb(bt2020(), kPatch);
    const auto loaded = ImageFile::loadFromData(qtEncode(sheet(bt2020()), "png"));
    ASSERT_TRUE(loaded);
    EXPECT_LE(distance(loaded->image, QPoint(120, 90), wide), 2);
}

TEST(ColorManagement, AProfileForOtherPixelsIsLeftOutAndAPngsOrientationApplied) {
    // A grey profile on a colour picture: applied, it shifted (129,71,112) to (188,146,182).
    const QImage flat = solid(6, 4, QColor(129, 71, 112));
    const QByteArray greyIcc = hostile::greyProfile();
    ASSERT_TRUE(QColorSpace::fromIccProfile(greyIcc).isValid()) << "Qt takes it: the picture must not";
    for (const auto& [name, bytes] : QList<QPair<const char*, QByteArray>>{
             {"JPEG", hostile::jpegWithProfile(flat, greyIcc)},
             {"PNG", hostile::pngWithChunks(flat, {{"iCCP", hostile::iccChunk(greyIcc)}})}}) {
        const auto loaded = ImageFile::loadFromData(bytes);
        ASSERT_TRUE(loaded) << name;
        EXPECT_LE(distance(loaded->image, QPoint(2, 2), {129, 71, 112}), 2)
            << name << ": read as sRGB, as viewers read it";
    }
    // A fitting profile still counts.
    const auto p3 =
        ImageFile::loadFromData(hostile::pngWithChunks(flat, {{"iCCP", hostile::iccChunk(displayP3())}}));
    ASSERT_TRUE(p3);
    EXPECT_NE(p3->image.pixel(2, 2), qRgb(129, 71, 112));

    // eXIf orientation 6 (the picture is stored lying on its left side): a 6 × 4 file stands 4 × 6,
    // its first stored row becoming its right column.
    QImage marked = solid(6, 4, Qt::white);
    marked.setPixelColor(0, 0, Qt::red);
    for (int orientation : {1, 6, 8, 3}) {
        const auto turned = ImageFile::loadFromData(
            hostile::pngWithChunks(marked, {{"eXIf", hostile::exifStatingOrientation(orientation)}}));
        ASSERT_TRUE(turned) << orientation;
        const auto expected = ImageCodecs::upright(marked, orientation);
        ASSERT_TRUE(expected);
        EXPECT_EQ(turned->image.size(), expected->size()) << orientation;
        for (int y = 0; y < expected->height(); ++y)
            for (int x = 0; x < expected->width(); ++x)
                ASSERT_EQ(turned->image.pixel(x, y), expected->pixel(x, y))
                    << orientation << " at " << x << "," << y;
    }
    const auto six = ImageFile::loadFromData(
        hostile::pngWithChunks(marked, {{"eXIf", hostile::exifStatingOrientation(6)}}));
    EXPECT_EQ(six->image.size(), QSize(4, 6));
    EXPECT_EQ(six->image.pixel(3, 0), qRgb(255, 0, 0)) << "the red corner goes to the top right";
}

TEST(ColorManagement, EveryStageAndEveryTypeWrittenKeepsTheColour) {
    QTemporaryDir dir;
    const QString source = dir.filePath(QStringLiteral("p3.jpg"));
    writeBytes(source, qtEncode(sheet(displayP3()), "jpeg", 100));
    const QString backdrop = dir.filePath(QStringLiteral("backdrop.png"));
    QImage solid(60, 40, QImage::Format_RGB32);
    solid.fill(qRgb(kOther[0], kOther[1], kOther[2]));
    solid.setColorSpace(QColorSpace::fromIccProfile(displayP3()));
    writeBytes(backdrop, qtEncode(solid, "png"));
    const Rgb expected = lcmsToSrgb(displayP3(), kPatch);
    const Rgb expectedBackdrop = lcmsToSrgb(displayP3(), kOther);

    struct Stage {
        const char* name;
        std::function<void(CropModel&)> apply;
        Rgb colour; // what the probe shows
        std::function<QPoint(const QImage&)> probe;
    };
    const auto centre = [](const QImage& i) { return QPoint(i.width() / 2, i.height() / 2); };
    const auto corner = [](const QImage& i) { return QPoint(2, 2); };
    const std::vector<Stage> stages = {
        {"as it is", [](CropModel&) {}, expected, centre},
        {"turned", [](CropModel& m) { m.setQuarterTurns(1); }, expected, centre},
        {"mirrored", [](CropModel& m) { m.setMirrored(true); }, expected, centre},
        {"cropped", [](CropModel& m) { m.setManualCrop(QRectF(0.3, 0.3, 0.4, 0.4)); }, expected, centre},
        {"keyed", [](CropModel& m) { m.setKeyWhiteEnabled(true); }, expected, centre},
        {"trimmed", [](CropModel& m) { m.setTrimEnabled(true); }, expected, centre},
        {"stickered",
         [](CropModel& m) {
             m.setKeyWhiteEnabled(true);
             m.setStickerEnabled(true);
         },
         expected, centre},
        {"padded", [](CropModel& m) { m.setPaddingEnabled(true); }, expected, centre},
        {"on a colour",
         [](CropModel& m) {
             m.setKeyWhiteEnabled(true);
             m.setBackgroundEnabled(true);
             m.setBackgroundColor(QColor(60, 150, 210));
         },
         {60, 150, 210},
         corner},
        {"on a gradient",
         [](CropModel& m) {
             m.setBackgroundEnabled(true);
             m.setBackgroundKind(BackgroundKind::gradient);
         },
         expected, centre},
        {"on a picture",
         [&](CropModel& m) {
             m.setKeyWhiteEnabled(true);
             m.setBackgroundEnabled(true);
             Settings s = m.snapshotCurrentSettings();
             ASSERT_FALSE(Settings::parseInto(s, QStringLiteral("backgroundImageURL"), backdrop));
             m.setBackgroundImage(s.backgroundImage);
             m.setBackgroundImageURL(backdrop);
             m.setBackgroundKind(BackgroundKind::image);
         },
         expectedBackdrop, corner},
        {"resized",
         [](CropModel& m) {
             m.setResizeEnabled(true);
             m.setResizeWidth(120);
         },
         expected, centre},
        {"on a bigger canvas",
         [](CropModel& m) {
             m.setResizeEnabled(true);
             m.setResizeCanvas(true);
             m.setResizeWidth(300);
             m.setResizeHeight(200);
         },
         expected, centre},
    };
    for (const Stage& stage : stages) {
        CropModel model;
        model.open({source});
        ASSERT_EQ(model.items().size(), 1u);
        stage.apply(model);
        const QImage result = model.processedImage();
        ASSERT_FALSE(result.isNull()) << stage.name;
        const QPoint at = stage.probe(result);
        const QString written = dir.filePath(QStringLiteral("out.png"));
        ASSERT_TRUE(ImageFile::save(result, written, QStringLiteral("image/png"))) << stage.name;
        const auto back = ImageFile::load(written);
        ASSERT_TRUE(back) << stage.name;
        EXPECT_LE(distance(back->image, at, stage.colour), 2)
            << stage.name << " at " << at.x() << "," << at.y() << ": "
            << back->image.pixelColor(at).name().toStdString();
    }

    // Every type the program writes, read back through whatever the file says of its colour.
    CropModel model;
    model.open({source});
    const QImage result = model.processedImage();
    for (const QString& type : ImageFile::encodableTypes()) {
        const QString written = dir.filePath(QStringLiteral("out.") + ImageFile::preferredExtension(type));
        ASSERT_TRUE(ImageFile::save(result, written, type)) << type.toStdString();
        const auto back = ImageFile::load(written);
        ASSERT_TRUE(back) << type.toStdString();
        EXPECT_LE(distance(back->image, QPoint(120, 90), expected), 2) << type.toStdString();
    }
}
