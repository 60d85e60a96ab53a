#include "TestSupport.h"

#include "engines/CropEngine.h"
#include "engines/Morphology.h"
#include "engines/StickerEngine.h"

#include <QPainter>
#include <QPainterPath>

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>

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

namespace {

// The sticker worked out the plain way, every plane at full size with OpenCV's own morphology and
// warping: the oracle the fast engine is held to.
QImage plainSticker(const QImage& image, double w) {
    const auto m = StickerEngine::metrics(w);
    auto buffer = CropEngine::Buffer::make(image);
    const QImage subject = *CropEngine::crop(*buffer, *CropEngine::alphaContentRect(*buffer, 0));
    const int margin = m.renderMargin, cols = subject.width() + 2 * margin,
              rows = subject.height() + 2 * margin;
    const auto steep = [](cv::Mat& plane) {
        for (int y = 0; y < plane.rows; ++y)
            for (int x = 0; x < plane.cols; ++x) {
                uchar& v = plane.at<uchar>(y, x);
                v = uchar(std::lround(std::clamp(10.0 * v / 255.0 - 4.5, 0.0, 1.0) * 255.0));
            }
    };
    cv::Mat silhouette(rows, cols, CV_8U, cv::Scalar(0)), base;
    for (int y = 0; y < subject.height(); ++y)
        for (int x = 0; x < subject.width(); ++x)
            silhouette.at<uchar>(y + margin, x + margin) = uchar(qAlpha(subject.pixel(x, y)));
    cv::GaussianBlur(silhouette, base, cv::Size(0, 0), 1, 1, cv::BORDER_CONSTANT);
    steep(base);
    cv::Mat outline = base.clone();
    if (m.strokeWidth > 0) {
        cv::Mat dilated;
        cv::dilate(base, dilated, Morphology::diskKernel(m.strokeWidth), cv::Point(-1, -1), 1,
                   cv::BORDER_CONSTANT, cv::Scalar(0));
        cv::GaussianBlur(dilated, outline, cv::Size(0, 0), m.softness, m.softness, cv::BORDER_CONSTANT);
        steep(outline);
        // Kept within the working margin, as the engine keeps it.
        const int wm = m.workingMargin;
        cv::Mat keep(rows, cols, CV_8U, cv::Scalar(0));
        outline(cv::Rect(margin - wm, margin - wm, subject.width() + 2 * wm, subject.height() + 2 * wm))
            .copyTo(keep(
                cv::Rect(margin - wm, margin - wm, subject.width() + 2 * wm, subject.height() + 2 * wm)));
        outline = keep;
    }
    cv::Mat blurred, shadow;
    cv::GaussianBlur(outline, blurred, cv::Size(0, 0), m.shadowBlur, m.shadowBlur, cv::BORDER_CONSTANT);
    const cv::Matx23d down(1, 0, 0, 0, 1, m.shadowDrop);
    cv::warpAffine(blurred, shadow, down, blurred.size(), cv::INTER_LINEAR, cv::BORDER_CONSTANT,
                   cv::Scalar(0));
    QImage out(cols, rows, QImage::Format_RGBA8888_Premultiplied);
    for (int y = 0; y < rows; ++y)
        for (int x = 0; x < cols; ++x) {
            const uint32_t s = shadow.at<uchar>(y, x);
            const uint32_t o = outline.at<uchar>(y, x), sa = (s + 1) >> 1;
            const uint32_t layerA = o + (sa * (255 - o) + 127) / 255;
            const int px = x - margin, py = y - margin;
            const QRgb p = (px >= 0 && py >= 0 && px < subject.width() && py < subject.height())
                               ? subject.pixel(px, py)
                               : 0;
            const uint32_t inv = 255 - qAlpha(p), c = (o * inv + 127) / 255;
            out.setPixel(x, y,
                         qRgba(int(qRed(p) + c), int(qGreen(p) + c), int(qBlue(p) + c),
                               int(qAlpha(p) + (layerA * inv + 127) / 255)));
        }
    return out;
}

} // namespace

TEST(Sticker, TheDiscDilationIsExactlyOpenCVs) {
    cv::Mat noise(157, 211, CV_8U);
    cv::randu(noise, 0, 256);
    cv::Mat shapes;
    cv::threshold(noise, shapes, 250, 255, cv::THRESH_BINARY); // sparse specks: every disc shows whole
    for (const cv::Mat& plane : {noise, shapes})
        for (const double r : {0.0, 0.5, 1.0, 1.5, 2.5, 3.0, 7.2, 14.0, 40.0, 90.0}) {
            cv::Mat ours, theirs;
            Morphology::dilateDisk(plane, ours, r);
            cv::dilate(plane, theirs, Morphology::diskKernel(r), cv::Point(-1, -1), 1, cv::BORDER_CONSTANT,
                       cv::Scalar(0));
            EXPECT_EQ(cv::countNonZero(ours != theirs), 0) << "radius " << r;
        }
}

TEST(Sticker, TheFastEngineMatchesThePlainComputation) {
    // A subject with thin lines, a hole and soft edges on a transparent sheet.
    QImage image = clear(420, 320);
    {
        QPainter p(&image);
        p.setRenderHint(QPainter::Antialiasing);
        p.setPen(QPen(QColor(200, 40, 40), 3));
        for (int i = 0; i < 5; ++i)
            p.drawLine(40 + i * 30, 40, 90 + i * 40, 280);
        QPainterPath ring;
        ring.addEllipse(QPointF(300, 170), 90, 90);
        ring.addEllipse(QPointF(300, 170), 40, 40);
        p.fillPath(ring, QColor(30, 160, 60));
    }
    for (const double w : {0.0, 6.0, 14.0, 40.0}) {
        const QImage fast = *StickerEngine::make(image, w);
        const QImage plain = plainSticker(image, w);
        // Both lined up by the box of their solid part (alpha above 128): the trim of the faint
        // shadow's tail may differ by a pixel, the sticker itself must not move.
        const auto solidBox = [](const QImage& i) {
            auto b = CropEngine::Buffer::make(i.convertToFormat(QImage::Format_RGBA8888_Premultiplied));
            return *CropEngine::alphaContentRect(*b, 128);
        };
        const QRectF f = solidBox(fast), p = solidBox(plain);
        EXPECT_EQ(f.size(), p.size()) << "w = " << w;
        const int dx = int(p.x() - f.x()), dy = int(p.y() - f.y());
        int worst = 0;
        qint64 over8 = 0;
        for (int y = 0; y < fast.height(); ++y)
            for (int x = 0; x < fast.width(); ++x) {
                const int px = x + dx, py = y + dy;
                const QRgb a = fast.pixel(x, y);
                const QRgb b = (px >= 0 && py >= 0 && px < plain.width() && py < plain.height())
                                   ? plain.pixel(px, py)
                                   : 0;
                const int d = std::max({std::abs(qRed(a) - qRed(b)), std::abs(qGreen(a) - qGreen(b)),
                                        std::abs(qBlue(a) - qBlue(b)), std::abs(qAlpha(a) - qAlpha(b))});
                worst = std::max(worst, d);
                over8 += d > 8;
            }
        const double share = double(over8) / (double(fast.width()) * fast.height());
        // Up to w = 14 the planes are the full-size ones; beyond, the outline's blur runs reduced and
        // only the outline's rim may move by a fraction of a pixel.
        if (w <= 14)
            EXPECT_LE(worst, 4) << "w = " << w;
        else
            EXPECT_LE(share, 0.01) << "w = " << w << ", worst " << worst;
    }
}
