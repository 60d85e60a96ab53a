#include "TestSupport.h"

#include "engines/CropEngine.h"

#include <QColorSpace>

#include <gtest/gtest.h>

using namespace cutlark;
using namespace cutlark::test;

namespace {

// Red and green of a coordinates() pixel give back where it came from.
QPoint origin(const QImage& image, int x, int y) {
    const QRgb p = image.pixel(x, y);
    return QPoint(qRed(p), qGreen(p));
}

} // namespace

TEST(Oriented, NoTurnNoMirrorIsTheSameImage) {
    const QImage image = coordinates(3, 2);
    for (qint64 q : {0, 4, -4, 8}) {
        const auto out = CropEngine::oriented(image, q, false);
        ASSERT_TRUE(out);
        EXPECT_EQ(out->cacheKey(), image.cacheKey()) << q;
    }
}

TEST(Oriented, QuarterTurnIsClockwise) {
    const QImage image = coordinates(3, 2);
    const auto out = CropEngine::oriented(image, 1, false);
    ASSERT_TRUE(out);
    ASSERT_EQ(out->size(), QSize(2, 3));
    // Turned clockwise: the bottom-left source pixel lands at the top left.
    EXPECT_EQ(origin(*out, 0, 0), QPoint(0, 1));
    EXPECT_EQ(origin(*out, 1, 0), QPoint(0, 0));
    EXPECT_EQ(origin(*out, 1, 2), QPoint(2, 0));
    EXPECT_EQ(origin(*out, 0, 2), QPoint(2, 1));
}

TEST(Oriented, OnlyTheTwoLowBitsCount) {
    const QImage image = coordinates(4, 3);
    const auto minusOne = CropEngine::oriented(image, -1, false);
    const auto three = CropEngine::oriented(image, 3, false);
    ASSERT_TRUE(minusOne && three);
    EXPECT_EQ(*minusOne, *three);
    EXPECT_EQ(origin(*three, 0, 0), QPoint(3, 0))
        << "a counter-clockwise turn brings the top right to the top left";
}

TEST(Oriented, HalfTurnOfAMirrorIsAFlipTopToBottom) {
    const QImage image = coordinates(4, 3);
    const auto out = CropEngine::oriented(image, 2, true);
    ASSERT_TRUE(out);
    EXPECT_EQ(*out, image.mirrored(false, true));
}

TEST(Oriented, MirrorComesBeforeTheTurn) {
    const QImage image = coordinates(3, 2);
    const auto out = CropEngine::oriented(image, 1, true);
    ASSERT_TRUE(out);
    // Mirrored first: (2,1) is then at the bottom left, and the clockwise turn takes it to the top left.
    EXPECT_EQ(origin(*out, 0, 0), QPoint(2, 1));
}

TEST(CropNormalized, WholeRectangleIsTheSameImage) {
    const QImage image = coordinates(10, 8);
    EXPECT_EQ(CropEngine::cropNormalized(image, QRectF(0, 0, 1, 1)).cacheKey(), image.cacheKey());
    // Bigger than the image: still cut back to the whole.
    EXPECT_EQ(CropEngine::cropNormalized(image, QRectF(-0.5, -0.5, 3, 3)).cacheKey(), image.cacheKey());
}

TEST(CropNormalized, RoundsHalvesAwayAndStaysInside) {
    const QImage image = coordinates(10, 8);
    // x = 0.25 × 10 = 2.5 → 3; w = 0.45 × 10 = 4.5 → 5; y = 0.0625 × 8 = 0.5 → 1; h = 0.5 × 8 = 4.
    const QImage out = CropEngine::cropNormalized(image, QRectF(0.25, 0.0625, 0.45, 0.5));
    ASSERT_EQ(out.size(), QSize(5, 4));
    EXPECT_EQ(origin(out, 0, 0), QPoint(3, 1));

    // Entirely past the right edge: a one-pixel strip at the last column.
    const QImage strip = CropEngine::cropNormalized(image, QRectF(1.5, 0, 0.5, 1));
    ASSERT_EQ(strip.size(), QSize(1, 8));
    EXPECT_EQ(origin(strip, 0, 5), QPoint(9, 5));

    // A zero-size rectangle is still one pixel; NaN falls back to the edge.
    EXPECT_EQ(CropEngine::cropNormalized(image, QRectF(0.5, 0.5, 0, 0)).size(), QSize(1, 1));
    EXPECT_EQ(CropEngine::cropNormalized(image, QRectF(qQNaN(), 0, 0.5, 1)).size(), QSize(5, 8));
}

TEST(Crop, BufferSizedRectangleReturnsItsImageWithoutCopying) {
    const QImage image = coordinates(10, 8);
    const auto buffer = CropEngine::Buffer::make(image);
    ASSERT_TRUE(buffer);
    const auto whole = CropEngine::crop(*buffer, QRectF(0, 0, 10.7, 8.2));
    ASSERT_TRUE(whole);
    EXPECT_EQ(whole->cacheKey(), image.cacheKey());

    const auto part = CropEngine::crop(*buffer, QRectF(2, 3, 4, 2));
    ASSERT_TRUE(part);
    ASSERT_EQ(part->size(), QSize(4, 2));
    EXPECT_EQ(origin(*part, 0, 0), QPoint(2, 3));
    EXPECT_EQ(part->constBits(), image.constBits() + 3 * image.bytesPerLine() + 2 * 4)
        << "shares the source's pixels";

    EXPECT_FALSE(CropEngine::crop(*buffer, QRectF(20, 20, 3, 3)));
}

TEST(Crop, AViewOutlivesItsSource) {
    QImage view;
    {
        const QImage image = coordinates(6, 6);
        const auto buffer = CropEngine::Buffer::make(image);
        view = *CropEngine::crop(*buffer, QRectF(1, 1, 2, 2));
    }
    EXPECT_EQ(origin(view, 1, 1), QPoint(2, 2));
    QImage copy = view;
    copy.setPixel(0, 0, qRgb(1, 2, 3)); // writing detaches, the view stays as it was
    EXPECT_EQ(origin(view, 0, 0), QPoint(1, 1));
}

TEST(Buffer, EmptyImagesYieldNone) {
    EXPECT_FALSE(CropEngine::Buffer::make(QImage()));
    EXPECT_FALSE(CropEngine::Buffer::make(QImage(0, 5, QImage::Format_RGBA8888_Premultiplied)));
}

TEST(Buffer, PremultipliedSrgbIsSharedOtherFormsAreConverted) {
    const QImage shared = coordinates(5, 4);
    const auto a = CropEngine::Buffer::make(shared);
    ASSERT_TRUE(a);
    EXPECT_TRUE(a->sharesStore());
    EXPECT_EQ(a->width(), 5);
    EXPECT_EQ(a->height(), 4);

    const QImage opaque = shared.convertToFormat(QImage::Format_RGBX8888);
    EXPECT_TRUE(CropEngine::Buffer::make(opaque)->sharesStore());

    // Straight alpha becomes premultiplied, transparent pixels all zero.
    QImage straight(2, 1, QImage::Format_ARGB32);
    straight.setPixel(0, 0, qRgba(255, 255, 255, 128));
    straight.setPixel(1, 0, qRgba(200, 100, 50, 0));
    const auto b = CropEngine::Buffer::make(straight);
    ASSERT_TRUE(b);
    EXPECT_FALSE(b->sharesStore());
    const uchar* p = b->pixels();
    EXPECT_EQ(p[0], 128);
    EXPECT_EQ(p[3], 128);
    for (int i = 4; i < 8; ++i)
        EXPECT_EQ(p[i], 0);
    EXPECT_EQ(b->image().cacheKey(), straight.cacheKey()) << "the image itself is kept as it was";

    // Another colour space is brought into sRGB.
    QImage p3 = solid(2, 2, QColor(0, 255, 0));
    p3.setColorSpace(QColorSpace(QColorSpace::DisplayP3));
    const auto c = CropEngine::Buffer::make(p3);
    ASSERT_TRUE(c);
    EXPECT_FALSE(c->sharesStore());
    EXPECT_EQ(c->pixels()[1], 255);
    EXPECT_EQ(c->pixels()[3], 255);
}
