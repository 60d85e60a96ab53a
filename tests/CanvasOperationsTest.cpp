#include "TestSupport.h"

#include "engines/AreaResize.h"
#include "engines/ColorComponents.h"
#include "engines/CropEngine.h"

#include <opencv2/imgproc.hpp>

#include <array>
#include <cstring>
#include <random>
#include <vector>

#include <gtest/gtest.h>

using namespace cutlark;
using namespace cutlark::test;

namespace {

struct Px {
    int r, g, b, a;
    bool operator==(const Px&) const = default;
};
std::ostream& operator<<(std::ostream& os, const Px& p) {
    return os << "(" << p.r << "," << p.g << "," << p.b << "," << p.a << ")";
}

Px at(const QImage& image, int x, int y) {
    const uchar* p = image.constScanLine(y) + 4 * x;
    return {p[0], p[1], p[2], p[3]};
}

bool near(const Px& a, const Px& b, int tolerance = 1) {
    return std::abs(a.r - b.r) <= tolerance && std::abs(a.g - b.g) <= tolerance &&
           std::abs(a.b - b.b) <= tolerance && std::abs(a.a - b.a) <= tolerance;
}

QImage clear(int w, int h) {
    return solid(w, h, QColor(0, 0, 0, 0));
}

// The margins a centred placement left, from the first and last opaque rows and columns.
struct Margins {
    int left, right, top, bottom;
};
Margins marginsOf(const QImage& image) {
    int minX = image.width(), maxX = -1, minY = image.height(), maxY = -1;
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width(); ++x)
            if (at(image, x, y).a > 0) {
                minX = std::min(minX, x), maxX = std::max(maxX, x), minY = std::min(minY, y),
                maxY = std::max(maxY, y);
            }
    return {minX, image.width() - 1 - maxX, minY, image.height() - 1 - maxY};
}

} // namespace

TEST(Pad, NothingToAddIsTheImageItself) {
    const QImage image = coordinates(10, 6);
    EXPECT_EQ(CropEngine::pad(image, {0, 0, 0, 0})->cacheKey(), image.cacheKey());
    EXPECT_EQ(CropEngine::pad(image, {-3, 0, -1, 0})->cacheKey(), image.cacheKey());
    const auto right = CropEngine::pad(image, {-3, 2, 0, 0});
    ASSERT_TRUE(right);
    EXPECT_EQ(right->size(), QSize(12, 6));
    EXPECT_EQ(at(*right, 0, 0), (Px{0, 0, 7, 255}));
    EXPECT_EQ(at(*right, 10, 3), (Px{0, 0, 0, 0}));
}

TEST(Pad, TheImageLandsAtLeftTopWithClearMargins) {
    const QImage image = coordinates(10, 6);
    const auto padded = CropEngine::pad(image, {1, 2, 3, 4});
    ASSERT_TRUE(padded);
    ASSERT_EQ(padded->size(), QSize(16, 10));
    EXPECT_EQ(at(*padded, 4, 1), (Px{0, 0, 7, 255}));
    EXPECT_EQ(at(*padded, 13, 6), (Px{9, 5, 7, 255}));
    for (const QPoint p :
         {QPoint(3, 1), QPoint(4, 0), QPoint(14, 6), QPoint(4, 7), QPoint(0, 0), QPoint(15, 9)})
        EXPECT_EQ(at(*padded, p.x(), p.y()), (Px{0, 0, 0, 0})) << p.x() << "," << p.y();
    EXPECT_TRUE(padded->hasAlphaChannel());
}

TEST(Pad, AbsurdAmountsFailInsteadOfAllocating) {
    const QImage image = coordinates(4, 4);
    EXPECT_FALSE(CropEngine::pad(image, {0, 0, 0, qint64(1) << 40}));
    EXPECT_FALSE(CropEngine::pad(image, {200000, 200000, 200000, 200000}));
    EXPECT_FALSE(CropEngine::pad(image, {std::numeric_limits<qint64>::max(), 0, 0, 0}));
}

TEST(ColorBackground, FillsBehindTheImage) {
    QImage image = clear(4, 1);
    uchar* p = image.scanLine(0);
    p[4] = 10, p[5] = 20, p[6] = 30, p[7] = 255;  // opaque: untouched
    p[8] = 128, p[9] = 0, p[10] = 0, p[11] = 128; // half red over blue
    const auto filled = CropEngine::fillColorBackground(image, {0, 0, 1, 1});
    ASSERT_TRUE(filled);
    EXPECT_EQ(at(*filled, 0, 0), (Px{0, 0, 255, 255}));
    EXPECT_EQ(at(*filled, 1, 0), (Px{10, 20, 30, 255}));
    EXPECT_TRUE(near(at(*filled, 2, 0), Px{128, 0, 127, 255}));

    // A half-transparent colour is stored premultiplied; a colour of alpha 0 leaves the transparency.
    EXPECT_TRUE(
        near(at(*CropEngine::fillColorBackground(image, {1, 1, 1, 0.5}), 0, 0), Px{128, 128, 128, 128}));
    const auto none = CropEngine::fillColorBackground(image, {1, 0, 0, 0});
    EXPECT_EQ(at(*none, 0, 0), (Px{0, 0, 0, 0}));
    EXPECT_EQ(at(*none, 2, 0), (Px{128, 0, 0, 128}));

    // Out-of-range components are taken at their limits.
    EXPECT_EQ(at(*CropEngine::fillColorBackground(image, {2, -1, 0.5, 7}), 0, 0), (Px{255, 0, 128, 255}));
}

TEST(ColorBackground, AnOpaqueImageHidesItEntirely) {
    const QImage opaque = coordinates(5, 5).convertToFormat(QImage::Format_RGBX8888);
    EXPECT_EQ(CropEngine::fillColorBackground(opaque, {1, 0, 0, 1})->cacheKey(), opaque.cacheKey());
    const QImage premultipliedOpaque = coordinates(5, 5);
    const auto filled = CropEngine::fillColorBackground(premultipliedOpaque, {1, 0, 0, 1});
    for (int y = 0; y < 5; ++y)
        EXPECT_EQ(std::memcmp(filled->constScanLine(y), premultipliedOpaque.constScanLine(y), 20), 0);
}

TEST(ColorBackground, PaddingUnderAColourInOnePassIsPaddingThenTheColour) {
    std::mt19937 random(11);
    QImage translucent(37, 23, QImage::Format_RGBA8888_Premultiplied);
    for (int y = 0; y < translucent.height(); ++y) {
        uchar* p = translucent.scanLine(y);
        for (int x = 0; x < translucent.width(); ++x) {
            const int a = int(random() % 256);
            for (int c = 0; c < 3; ++c)
                p[4 * x + c] = uchar(a ? int(random() % unsigned(a + 1)) : 0);
            p[4 * x + 3] = uchar(a);
        }
    }
    const QImage opaque = coordinates(9, 7).convertToFormat(QImage::Format_RGBX8888);
    const QImage empty;
    const struct {
        qint64 top, right, bottom, left;
    } margins[] = {{0, 0, 0, 0}, {40, 40, 40, 40}, {0, 3, 0, 0}, {5, 0, 1, -4}, {1, 2, 3, 4}};
    const std::array<double, 4> colours[] = {{0.2, 0.4, 0.8, 1}, {1, 1, 1, 0.5}, {1, 0, 0, 0}};
    for (const QImage* image : std::array<const QImage*, 3>{&translucent, &opaque, &empty})
        for (const auto& m : margins)
            for (const auto& c : colours) {
                const auto padded = CropEngine::pad(*image, {m.top, m.right, m.bottom, m.left});
                const auto onePass = CropEngine::padOverColor(*image, {m.top, m.right, m.bottom, m.left},
                                                              {c[0], c[1], c[2], c[3]});
                if (!padded) { // nothing to pad: both fail alike
                    EXPECT_FALSE(onePass);
                    continue;
                }
                const auto twoPasses = CropEngine::fillColorBackground(*padded, {c[0], c[1], c[2], c[3]});
                ASSERT_TRUE(twoPasses && onePass);
                ASSERT_EQ(onePass->size(), twoPasses->size());
                ASSERT_EQ(onePass->format(), twoPasses->format());
                for (int y = 0; y < onePass->height(); ++y)
                    ASSERT_EQ(std::memcmp(onePass->constScanLine(y), twoPasses->constScanLine(y),
                                          size_t(onePass->width()) * 4),
                              0)
                        << "row " << y << " of " << image->width() << "x" << image->height() << " padded "
                        << m.top << "," << m.right << "," << m.bottom << "," << m.left;
            }
    EXPECT_FALSE(CropEngine::padOverColor(opaque, {0, 0, 0, qint64(1) << 40}, {1, 1, 1, 1}));
}

TEST(GradientBackground, EndpointsFollowTheAngleClockwiseOnScreen) {
    const QImage image = clear(200, 100);
    const Px red{255, 0, 0, 255}, blue{0, 0, 255, 255};
    auto gradient = [&](double angle) {
        return *CropEngine::fillGradientBackground(image, {{1, 0, 0, 1}, {0, 0, 1, 1}, angle});
    };
    // 0°: from (0, 50) to (200, 50), left to right.
    const QImage zero = gradient(0);
    EXPECT_TRUE(near(at(zero, 0, 50), red, 2));
    EXPECT_TRUE(near(at(zero, 199, 50), blue, 2));
    EXPECT_TRUE(near(at(zero, 100, 0), Px{127, 0, 128, 255}, 2)) << "halfway, the same on every row";
    EXPECT_EQ(at(zero, 37, 0), at(zero, 37, 99));
    // 90°: from the top middle to the bottom middle.
    const QImage ninety = gradient(90);
    EXPECT_TRUE(near(at(ninety, 100, 0), red, 3));
    EXPECT_TRUE(near(at(ninety, 100, 99), blue, 3));
    EXPECT_EQ(at(ninety, 0, 30), at(ninety, 199, 30));
    // 180° right to left, 270° bottom to top.
    EXPECT_TRUE(near(at(gradient(180), 0, 50), blue, 2));
    EXPECT_TRUE(near(at(gradient(270), 100, 0), blue, 3));
    // 360° is 0°.
    const QImage full = gradient(360);
    for (int y = 0; y < 100; y += 9)
        for (int x = 0; x < 200; x += 7)
            ASSERT_EQ(at(full, x, y), at(zero, x, y));
    // 45°: from the top-left corner region to the bottom right; the far corners reach the ends.
    const QImage diagonal = gradient(45);
    EXPECT_TRUE(near(at(diagonal, 0, 0), red, 3));
    EXPECT_TRUE(near(at(diagonal, 199, 99), blue, 3));
    EXPECT_EQ(at(diagonal, 120, 10), at(diagonal, 110, 20)) << "lines at −45° share a colour";
}

TEST(GradientBackground, WorksOnASinglePixelAndUnderOpaqueImages) {
    const auto one = CropEngine::fillGradientBackground(clear(1, 1), {{1, 0, 0, 1}, {0, 0, 1, 1}, 0});
    ASSERT_TRUE(one);
    EXPECT_EQ(one->size(), QSize(1, 1));
    EXPECT_TRUE(near(at(*one, 0, 0), Px{128, 0, 127, 255}, 2));
    const QImage opaque = coordinates(4, 4).convertToFormat(QImage::Format_RGBX8888);
    EXPECT_EQ(CropEngine::fillGradientBackground(opaque, {{1, 0, 0, 1}, {0, 0, 1, 1}, 0})->cacheKey(),
              opaque.cacheKey());
}

TEST(ImageBackground, ScalesToCoverAndCentres) {
    // 100×100 over a 200×100 picture: factor 1, drawn at x = −50, 50 columns lost on each side.
    QImage picture = coordinates(200, 100);
    const auto over = CropEngine::fillImageBackground(clear(100, 100), picture);
    ASSERT_TRUE(over);
    EXPECT_EQ(at(*over, 0, 10), (Px{50, 10, 7, 255}));
    EXPECT_EQ(at(*over, 99, 90), (Px{149, 90, 7, 255}));

    // Over a 50×50 picture the factor is 2.
    QImage small = solid(50, 50, Qt::red);
    for (int y = 0; y < 50; ++y)
        for (int x = 25; x < 50; ++x)
            small.setPixelColor(x, y, Qt::blue);
    const auto scaled = CropEngine::fillImageBackground(clear(100, 100), small);
    EXPECT_TRUE(near(at(*scaled, 10, 50), Px{255, 0, 0, 255}, 2));
    EXPECT_TRUE(near(at(*scaled, 90, 50), Px{0, 0, 255, 255}, 2));

    // The image stays on top; an empty picture changes nothing.
    QImage image = clear(100, 100);
    image.setPixelColor(5, 5, Qt::green);
    EXPECT_EQ(at(*CropEngine::fillImageBackground(image, picture), 5, 5), (Px{0, 255, 0, 255}));
    EXPECT_EQ(CropEngine::fillImageBackground(image, QImage())->cacheKey(), image.cacheKey());
}

TEST(Canvas, OddDifferencesPutTheExtraRowOnTopAndColumnOnTheRight) {
    const QImage ten = solid(10, 10, Qt::black);
    const auto larger = CropEngine::canvas(ten, QSizeF(13, 13));
    ASSERT_TRUE(larger);
    const Margins m = marginsOf(*larger);
    EXPECT_EQ(m.left, 1);
    EXPECT_EQ(m.right, 2);
    EXPECT_EQ(m.bottom, 1);
    EXPECT_EQ(m.top, 2);

    // 13×13 on 10×10 loses 1 column at the left, 2 at the right, 1 row at the bottom and 2 at the top.
    const QImage thirteen = coordinates(13, 13);
    const auto smaller = CropEngine::canvas(thirteen, QSizeF(10, 10));
    ASSERT_EQ(smaller->size(), QSize(10, 10));
    EXPECT_EQ(at(*smaller, 0, 0), (Px{1, 2, 7, 255}));
    EXPECT_EQ(at(*smaller, 9, 9), (Px{10, 11, 7, 255}));
}

TEST(Canvas, SizesRoundAndAbsurdOnesFail) {
    const QImage image = coordinates(10, 8);
    EXPECT_EQ(CropEngine::canvas(image, QSizeF(10.4, 7.5))->cacheKey(), image.cacheKey());
    EXPECT_EQ(CropEngine::canvas(image, QSizeF(0.2, 0.2))->size(), QSize(1, 1));
    EXPECT_EQ(CropEngine::canvas(image, QSizeF(qQNaN(), 3))->size(), QSize(1, 3));
    EXPECT_FALSE(CropEngine::canvas(image, QSizeF(1e9, 1e9)));
    EXPECT_FALSE(CropEngine::canvas(image, QSizeF(qInf(), 10)));
}

TEST(Resize, ScalesToTheRoundedTarget) {
    const QImage image = solid(40, 20, QColor(200, 100, 50));
    const auto out = CropEngine::resize(image, QSizeF(99.5, 0.2));
    ASSERT_TRUE(out);
    EXPECT_EQ(out->size(), QSize(100, 1));
    EXPECT_TRUE(near(at(*out, 50, 0), Px{200, 100, 50, 255}));
    EXPECT_EQ(CropEngine::resize(image, QSizeF(40.3, 19.6))->cacheKey(), image.cacheKey());
    EXPECT_FALSE(CropEngine::resize(image, QSizeF(1e9, 1e9)));

    // Shrinking averages areas: a 1-pixel checkerboard halves to grey, without aliasing.
    QImage checker(64, 64, QImage::Format_RGBA8888_Premultiplied);
    for (int y = 0; y < 64; ++y)
        for (int x = 0; x < 64; ++x)
            checker.setPixelColor(x, y, ((x + y) & 1) ? Qt::white : Qt::black);
    const auto half = CropEngine::resize(checker, QSizeF(32, 32));
    for (int y = 0; y < 32; y += 7)
        for (int x = 0; x < 32; x += 5)
            EXPECT_TRUE(near(at(*half, x, y), Px{128, 128, 128, 255}, 2));

    // Growing keeps premultiplied values valid at hard alpha edges.
    QImage edge = clear(8, 8);
    for (int y = 0; y < 8; ++y)
        for (int x = 4; x < 8; ++x)
            edge.setPixelColor(x, y, Qt::white);
    const auto grown = CropEngine::resize(edge, QSizeF(33, 33));
    for (int y = 0; y < 33; ++y)
        for (int x = 0; x < 33; ++x) {
            const Px p = at(*grown, x, y);
            ASSERT_LE(std::max({p.r, p.g, p.b}), p.a) << x << "," << y;
        }
    // An opaque image stays opaque.
    EXPECT_FALSE(CropEngine::resize(image.convertToFormat(QImage::Format_RGBX8888), QSizeF(20, 10))
                     ->hasAlphaChannel());
}

TEST(Resize, ShrinkingAgreesWithOpenCVsAreaAverageAtAnyFactor) {
    // OpenCV's INTER_AREA is the reference: the same area weights, computed another way.
    std::mt19937 random(7);
    for (const auto& [sw, sh, dw, dh] : std::vector<std::array<int, 4>>{{300, 200, 200, 133},
                                                                        {300, 200, 150, 100},
                                                                        {301, 199, 97, 64},
                                                                        {64, 48, 63, 47},
                                                                        {50, 40, 50, 17},
                                                                        {500, 30, 7, 1},
                                                                        {1, 9, 1, 2},
                                                                        {17, 17, 1, 1},
                                                                        {1000, 700, 999, 3}}) {
        SCOPED_TRACE(testing::Message() << sw << "x" << sh << " -> " << dw << "x" << dh);
        // Random premultiplied pixels: colour never above alpha.
        QImage image(sw, sh, QImage::Format_RGBA8888_Premultiplied);
        for (int y = 0; y < sh; ++y)
            for (int x = 0; x < sw; ++x) {
                const int a = int(random() % 256);
                put(image, x, y, uchar(random() % (a + 1)), uchar(random() % (a + 1)),
                    uchar(random() % (a + 1)), uchar(a));
            }
        const auto ours = CropEngine::resize(image, QSizeF(dw, dh));
        ASSERT_TRUE(ours);
        ASSERT_EQ(ours->size(), QSize(dw, dh));
        const cv::Mat from(sh, sw, CV_8UC4, const_cast<uchar*>(image.constBits()),
                           size_t(image.bytesPerLine()));
        cv::Mat reference;
        cv::resize(from, reference, cv::Size(dw, dh), 0, 0, cv::INTER_AREA);
        int worst = 0;
        for (int y = 0; y < dh; ++y) {
            const uchar* p = ours->constScanLine(y);
            const uchar* q = reference.ptr<uchar>(y);
            for (int i = 0; i < dw * 4; i += 4) {
                for (int c = 0; c < 4; ++c)
                    worst = std::max(worst, std::abs(int(p[i + c]) - int(q[i + c])));
                ASSERT_LE(std::max({p[i], p[i + 1], p[i + 2]}), p[i + 3]) << "still premultiplied";
            }
        }
        EXPECT_LE(worst, 1) << "rounding only";
        // The wide instructions (where this processor has them) give the very bytes SSE2 gives, so
        // a result doesn't depend on the machine.
        QImage narrow(dw, dh, QImage::Format_RGBA8888_Premultiplied);
        AreaResize::shrink(image.constBits(), sw, sh, size_t(image.bytesPerLine()), narrow.bits(), dw, dh,
                           size_t(narrow.bytesPerLine()), AreaResize::Lanes::sse2);
        int differing = 0;
        for (int y = 0; y < dh; ++y)
            differing += std::memcmp(narrow.constScanLine(y), ours->constScanLine(y), size_t(dw) * 4) != 0;
        EXPECT_EQ(differing, 0) << "rows";
    }
}

TEST(ColorComponents, AnyColourModelComesOutAsSrgb) {
    const auto hsv = sRGBComponents(QColor::fromHsvF(0, 1, 1, 0.25f));
    ASSERT_TRUE(hsv);
    EXPECT_NEAR(hsv->r, 1, 1e-4);
    EXPECT_NEAR(hsv->g, 0, 1e-4);
    EXPECT_NEAR(hsv->a, 0.25, 1e-4);
    const auto cmyk = sRGBComponents(QColor::fromCmykF(0, 0, 1, 0));
    EXPECT_NEAR(cmyk->b, 0, 1e-4);
    EXPECT_NEAR(cmyk->r, 1, 1e-4);
    EXPECT_FALSE(sRGBComponents(QColor()));
}

TEST(Resize, EachAxisIsFilteredForItsOwnDirection) {
    // One black line every 4 pixels, across the axis that shrinks by 4: each output pixel covers
    // three white and one black, so it is 191 grey whatever the other axis does.
    const auto lines = [](int w, int h, bool vertical) {
        QImage image = solid(w, h, Qt::white).convertToFormat(QImage::Format_RGBX8888);
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x)
                if ((vertical ? x : y) % 4 == 0) image.setPixelColor(x, y, Qt::black);
        return image;
    };
    struct Case {
        QSize from, to;
        bool vertical;
    };
    for (const Case& c : {Case{QSize(400, 100), QSize(100, 200), true},  // narrower, taller
                          Case{QSize(100, 400), QSize(200, 100), false}, // wider, shorter
                          Case{QSize(400, 100), QSize(100, 50), true},   // smaller both ways
                          Case{QSize(400, 100), QSize(100, 100), true}}) {
        const auto out = CropEngine::resize(lines(c.from.width(), c.from.height(), c.vertical), QSizeF(c.to));
        ASSERT_TRUE(out) << c.from.width() << "×" << c.from.height();
        ASSERT_EQ(out->size(), c.to);
        for (const QPoint p :
             {QPoint(c.to.width() / 2, c.to.height() / 2), QPoint(3, 7), QPoint(c.to.width() - 2, 1)})
            EXPECT_NEAR(qRed(out->pixel(p)), 191, 1)
                << c.from.width() << "×" << c.from.height() << " → " << c.to.width() << "×" << c.to.height()
                << " at " << p.x() << "," << p.y();
    }
    // Growing both ways keeps the lines: black and white both still there.
    const auto grown = CropEngine::resize(lines(40, 10, true), QSizeF(80, 20));
    ASSERT_TRUE(grown);
    int darkest = 255, lightest = 0;
    for (int x = 0; x < 80; ++x) {
        darkest = std::min(darkest, qRed(grown->pixel(x, 10)));
        lightest = std::max(lightest, qRed(grown->pixel(x, 10)));
    }
    EXPECT_LT(darkest, 64);
    EXPECT_GT(lightest, 230);
}
