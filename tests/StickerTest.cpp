#include "TestSupport.h"

#include "engines/CropEngine.h"
#include "engines/StickerEngine.h"

#include <gtest/gtest.h>

using namespace cutlark;
using namespace cutlark::test;

namespace {

QImage clear(int w, int h) {
    return solid(w, h, QColor(0, 0, 0, 0));
}

// Where `part` sits inside `whole`, pixel for pixel, or (−1, −1).
QPoint find(const QImage& whole, const QImage& part) {
    for (int y = 0; y + part.height() <= whole.height(); ++y)
        for (int x = 0; x + part.width() <= whole.width(); ++x) {
            bool same = true;
            for (int r = 0; r < part.height() && same; ++r)
                same = std::memcmp(whole.constScanLine(y + r) + 4 * x, part.constScanLine(r),
                                   size_t(part.width()) * 4) == 0;
            if (same) return QPoint(x, y);
        }
    return QPoint(-1, -1);
}

bool sameBytes(const QImage& a, const QImage& b) {
    if (a.size() != b.size()) return false;
    for (int y = 0; y < a.height(); ++y)
        if (std::memcmp(a.constScanLine(y), b.constScanLine(y), size_t(a.width()) * 4) != 0) return false;
    return true;
}

} // namespace

TEST(Sticker, DerivedValuesFollowTheWidth) {
    const auto zero = StickerEngine::metrics(0);
    EXPECT_DOUBLE_EQ(zero.shadowBlur, 6);
    EXPECT_DOUBLE_EQ(zero.shadowDrop, 6);
    EXPECT_EQ(zero.workingMargin, 2);
    EXPECT_EQ(zero.renderMargin, 23);
    const auto fourteen = StickerEngine::metrics(14);
    EXPECT_DOUBLE_EQ(fourteen.softness, 14 * 0.35);
    EXPECT_DOUBLE_EQ(fourteen.shadowBlur, 18.6);
    EXPECT_DOUBLE_EQ(fourteen.shadowDrop, 14 * 0.4 + 6);
    EXPECT_EQ(fourteen.workingMargin, 16);
    EXPECT_EQ(fourteen.renderMargin, 75);
    const auto forty = StickerEngine::metrics(40);
    EXPECT_DOUBLE_EQ(forty.softness, 14);
    EXPECT_DOUBLE_EQ(forty.shadowBlur, 42);
    EXPECT_DOUBLE_EQ(forty.shadowDrop, 22);
    EXPECT_EQ(forty.workingMargin, 42);
    EXPECT_EQ(forty.renderMargin, 169);
    EXPECT_DOUBLE_EQ(StickerEngine::metrics(2).softness, 1.0);
    // From 10 to 20 the shadow drops 4 more pixels and its blur widens from 15 to 24.
    EXPECT_DOUBLE_EQ(StickerEngine::metrics(20).shadowDrop - StickerEngine::metrics(10).shadowDrop, 4);
    EXPECT_DOUBLE_EQ(StickerEngine::metrics(10).shadowBlur, 15);
    EXPECT_DOUBLE_EQ(StickerEngine::metrics(20).shadowBlur, 24);
    EXPECT_EQ(StickerEngine::metrics(-5).strokeWidth, 0);
    EXPECT_EQ(StickerEngine::metrics(qQNaN()).strokeWidth, 0);
}

TEST(Sticker, GrowsOnAllSidesMoreBelowAndKeepsTheSubjectUntouched) {
    const QImage subject = coordinates(60, 40);
    const auto sticker = StickerEngine::make(subject, 14);
    ASSERT_TRUE(sticker);
    const QPoint at = find(*sticker, subject);
    ASSERT_NE(at, QPoint(-1, -1)) << "the subject's own pixels come out unchanged and unscaled";
    const int left = at.x(), top = at.y();
    const int right = sticker->width() - left - 60, bottom = sticker->height() - top - 40;
    EXPECT_GE(left, 14);
    EXPECT_GE(right, 14);
    EXPECT_GE(top, 14);
    EXPECT_GT(bottom, top) << "the shadow hangs below";
    EXPECT_NEAR(left, right, 1);

    // Right next to the subject is the white border, at full strength.
    const QRgb border = sticker->pixel(left - 5, top + 20);
    EXPECT_EQ(qAlpha(border), 255);
    EXPECT_EQ(qRed(border), 255);
    EXPECT_EQ(qBlue(border), 255);
    // Below the border, the shadow: black and partly transparent.
    const uchar* shadow = sticker->constScanLine(top + 40 + 14 + 8) + 4 * (left + 30);
    EXPECT_EQ(shadow[0], 0);
    EXPECT_GT(shadow[3], 0);
    EXPECT_LT(shadow[3], 255);
}

TEST(Sticker, TransparentMarginsMakeNoDifference) {
    QImage subject = clear(30, 20);
    for (int y = 3; y < 17; ++y)
        for (int x = 5; x < 25; ++x)
            subject.setPixelColor(x, y, QColor(200, 40, 40));
    subject.setPixelColor(12, 10, QColor(0, 90, 0, 128));
    QImage framed = clear(90, 70);
    for (int y = 0; y < 20; ++y)
        std::memcpy(framed.scanLine(y + 25) + 4 * 31, subject.constScanLine(y), 30 * 4);
    const auto a = StickerEngine::make(subject, 9);
    const auto b = StickerEngine::make(framed, 9);
    ASSERT_TRUE(a && b);
    EXPECT_TRUE(sameBytes(*a, *b));
}

TEST(Sticker, NegativeWidthIsZeroAndZeroShowsNoBorder) {
    const QImage subject = solid(40, 30, QColor(10, 20, 200));
    const auto zero = StickerEngine::make(subject, 0);
    const auto negative = StickerEngine::make(subject, -7);
    ASSERT_TRUE(zero && negative);
    EXPECT_TRUE(sameBytes(*zero, *negative));
    const QPoint at = find(*zero, subject);
    ASSERT_NE(at, QPoint(-1, -1));
    // Two pixels out from an opaque subject there is only shadow: black, not white.
    const uchar* beside = zero->constScanLine(at.y() + 15) + 4 * (at.x() - 2);
    EXPECT_EQ(beside[0], 0);
    EXPECT_LT(beside[3], 200);
}

TEST(Sticker, RoundsTheCornersOfARectangle) {
    const QImage subject = solid(50, 50, QColor(0, 0, 0));
    const auto sticker = StickerEngine::make(subject, 20);
    const QPoint at = find(*sticker, subject);
    ASSERT_NE(at, QPoint(-1, -1));
    // Straight out from a side the border is full white; as far out diagonally from a corner it isn't.
    EXPECT_EQ(qAlpha(sticker->pixel(at.x() - 15, at.y() + 25)), 255);
    const QRgb corner = sticker->pixel(at.x() - 15, at.y() - 15);
    EXPECT_LT(qRed(corner), 128) << "beyond the rounded corner there is no white";
}

TEST(Sticker, EmptyAndTransparentInputs) {
    EXPECT_TRUE(StickerEngine::make(QImage(), 10)->isNull());
    const QImage nothing = clear(20, 10);
    const auto out = StickerEngine::make(nothing, 14);
    ASSERT_TRUE(out);
    const int m = StickerEngine::metrics(14).renderMargin;
    EXPECT_EQ(out->size(), QSize(20 + 2 * m, 10 + 2 * m)) << "untrimmed: nothing to trim to";
    const auto buffer = CropEngine::Buffer::make(*out);
    EXPECT_FALSE(CropEngine::alphaContentRect(*buffer, 0));
    EXPECT_FALSE(StickerEngine::make(coordinates(4, 4), 1e12)->isNull())
        << "an absurd width gives the input back";
}
