#include "TestSupport.h"

#include "engines/CropEngine.h"

#include <random>

#include <gtest/gtest.h>

using namespace cutlark;
using namespace cutlark::test;

namespace {

CropEngine::Buffer bufferOf(const QImage& image) {
    return *CropEngine::Buffer::make(image);
}

QImage transparent(int w, int h) {
    return solid(w, h, QColor(0, 0, 0, 0));
}

// The definition, pixel by pixel, as the oracle for the optimised scan.
std::optional<QRectF> naiveBounds(const QImage& image, auto qualifies) {
    int minX = INT_MAX, minY = INT_MAX, maxX = -1, maxY = -1;
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width(); ++x) {
            const uchar* p = image.constScanLine(y) + 4 * x;
            if (!qualifies(p)) continue;
            minX = std::min(minX, x);
            maxX = std::max(maxX, x);
            minY = std::min(minY, y);
            maxY = std::max(maxY, y);
        }
    if (maxX < 0) return std::nullopt;
    return QRectF(minX, minY, maxX - minX + 1, maxY - minY + 1);
}

} // namespace

TEST(ContentRect, FloorsFollowTheTable) {
    const struct {
        double threshold;
        int alphaFloor, whiteFloor;
    } rows[] = {{1, 2, 253},    {5, 12, 249},    {10, 25, 243},   {25, 63, 226},
                {50, 127, 197}, {100, 254, 140}, {150, 254, 140}, {qInf(), 254, 140}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.threshold);
        auto single = [&](uchar r, uchar g, uchar b, uchar a) {
            QImage image = transparent(5, 5);
            put(image, 2, 3, r, g, b, a);
            return CropEngine::contentRect(bufferOf(image), row.threshold);
        };
        const auto af = uchar(row.alphaFloor), wf = uchar(row.whiteFloor);
        EXPECT_FALSE(single(0, 0, 0, af)) << "alpha at the floor is background";
        if (row.alphaFloor < 254) {
            EXPECT_EQ(single(0, 0, 0, uchar(af + 1)), QRectF(2, 3, 1, 1));
        }
        EXPECT_FALSE(single(wf, wf, wf, 255)) << "white at the floor is background";
        EXPECT_EQ(single(uchar(wf - 1), wf, wf, 255), QRectF(2, 3, 1, 1));
        EXPECT_EQ(single(wf, wf, uchar(wf - 1), 255), QRectF(2, 3, 1, 1));
    }
}

TEST(ContentRect, ZeroNegativeAndNaNMeanTheWholeImage) {
    const auto white = bufferOf(solid(7, 4, Qt::white));
    for (double t : {0.0, -5.0, qQNaN()})
        EXPECT_EQ(CropEngine::contentRect(white, t), QRectF(0, 0, 7, 4)) << t;
    EXPECT_FALSE(CropEngine::contentRect(white, 1));
    EXPECT_EQ(CropEngine::contentRect(bufferOf(transparent(3, 3)), 0), QRectF(0, 0, 3, 3));
}

TEST(ContentRect, HalfTransparentWhiteIsContentAtTen) {
    QImage image = transparent(4, 4);
    put(image, 1, 1, 128, 128, 128, 128);
    EXPECT_EQ(CropEngine::contentRect(bufferOf(image), 10), QRectF(1, 1, 1, 1));
    EXPECT_FALSE(CropEngine::contentRect(bufferOf(image), 100)) << "only alpha 255 is content at 100";
}

TEST(ContentRect, OneBlackPixelOnTransparent) {
    QImage image = transparent(20, 12);
    put(image, 3, 7, 0, 0, 0, 255);
    for (double t : {1.0, 10.0, 50.0, 100.0})
        EXPECT_EQ(CropEngine::contentRect(bufferOf(image), t), QRectF(3, 7, 1, 1));
    for (int a : {0, 1, 128, 254})
        EXPECT_EQ(CropEngine::alphaContentRect(bufferOf(image), quint8(a)), QRectF(3, 7, 1, 1));
    EXPECT_FALSE(CropEngine::alphaContentRect(bufferOf(image), 255));
    EXPECT_FALSE(CropEngine::alphaContentRect(bufferOf(transparent(9, 9)), 0));
}

TEST(ContentRect, MatchesThePixelByPixelDefinitionOnRandomImages) {
    std::mt19937 random(7);
    for (int round = 0; round < 300; ++round) {
        const int w = 1 + int(random() % 150), h = 1 + int(random() % 40);
        QImage image = solid(w, h, Qt::white);
        // A few scattered marks of random strength on white, some transparent pixels.
        const int marks = int(random() % 6);
        for (int m = 0; m < marks; ++m) {
            const uchar a = uchar(random() % 256);
            const uchar v = uchar(std::min<unsigned>(a, random() % 256));
            put(image, int(random() % unsigned(w)), int(random() % unsigned(h)), v, v,
                uchar(std::min<unsigned>(a, 250)), a);
        }
        const double threshold = double(random() % 101);
        const double t = threshold / 100;
        const int af = int(t * 254), wf = int(t * -115 + 255);
        const auto expected = threshold <= 0
                                  ? std::optional<QRectF>(QRectF(0, 0, w, h))
                                  : naiveBounds(image, [&](const uchar* p) {
                                        return p[3] > af && !(p[0] >= wf && p[1] >= wf && p[2] >= wf);
                                    });
        ASSERT_EQ(CropEngine::contentRect(bufferOf(image), threshold), expected)
            << "round " << round << " size " << w << "x" << h << " threshold " << threshold;
        const auto minAlpha = quint8(random() % 256);
        ASSERT_EQ(CropEngine::alphaContentRect(bufferOf(image), minAlpha),
                  naiveBounds(image, [&](const uchar* p) { return p[3] > minAlpha; }))
            << "round " << round;
    }
}

TEST(MostlyWhite, BandsAndTheThreeOfFourRule) {
    // 40×40 looks at 1-pixel bands: dark in row 1 doesn't count.
    QImage small = solid(40, 40, Qt::white);
    for (int x = 0; x < 40; ++x)
        put(small, x, 1, 0, 0, 0, 255);
    EXPECT_TRUE(CropEngine::backgroundIsMostlyWhite(bufferOf(small), 0.85));
    // 100×300 looks at 2-pixel bands: dark rows 0 and 1 at the top fail it, and so do the bottom ones.
    QImage tall = solid(100, 300, Qt::white);
    for (int x = 0; x < 100; ++x) {
        put(tall, x, 1, 0, 0, 0, 255);
        put(tall, x, 298, 0, 0, 0, 255);
    }
    EXPECT_TRUE(CropEngine::backgroundIsMostlyWhite(bufferOf(tall), 0.5))
        << "rows 1 and 298 are half of their bands";
    EXPECT_FALSE(CropEngine::backgroundIsMostlyWhite(bufferOf(tall), 0.6));

    // A 200×200 sheet (4-pixel bands) with a black stripe down one side, then both sides.
    QImage sheet = solid(200, 200, Qt::white);
    for (int y = 0; y < 200; ++y)
        for (int x = 0; x < 4; ++x)
            put(sheet, x, y, 0, 0, 0, 255);
    EXPECT_TRUE(CropEngine::backgroundIsMostlyWhite(bufferOf(sheet), 0.85));
    for (int y = 0; y < 200; ++y)
        for (int x = 196; x < 200; ++x)
            put(sheet, x, y, 0, 0, 0, 255);
    EXPECT_FALSE(CropEngine::backgroundIsMostlyWhite(bufferOf(sheet), 0.85));

    EXPECT_TRUE(CropEngine::backgroundIsMostlyWhite(bufferOf(transparent(30, 30)), 0.85));
    EXPECT_FALSE(CropEngine::backgroundIsMostlyWhite(bufferOf(solid(30, 1, Qt::black)), 0.85)) << "2 of 4";
    EXPECT_TRUE(CropEngine::backgroundIsMostlyWhite(bufferOf(solid(30, 1, Qt::white)), 0.85));
    EXPECT_FALSE(CropEngine::backgroundIsMostlyWhite(bufferOf(solid(30, 30, QColor(219, 255, 255))), 0.85));
    EXPECT_TRUE(CropEngine::backgroundIsMostlyWhite(bufferOf(solid(30, 30, QColor(220, 220, 220))), 0.85));
    // Near-transparent counts as white whatever its colour; alpha 9 doesn't.
    QImage faint = transparent(30, 30);
    for (int y = 0; y < 30; ++y)
        for (int x = 0; x < 30; ++x)
            put(faint, x, y, 8, 0, 0, 8);
    EXPECT_TRUE(CropEngine::backgroundIsMostlyWhite(bufferOf(faint), 0.85));
    for (int y = 0; y < 30; ++y)
        for (int x = 0; x < 30; ++x)
            put(faint, x, y, 9, 0, 0, 9);
    EXPECT_FALSE(CropEngine::backgroundIsMostlyWhite(bufferOf(faint), 0.85));
}

TEST(MostlyWhite, FractionIsInclusive) {
    // Exactly 85 % white in every band: 100 px wide top band with 15 dark pixels, on a 100×100 (b = 2).
    QImage image = solid(100, 100, Qt::white);
    for (int y = 0; y < 100; ++y)
        for (int x = 0; x < 100; ++x)
            if ((x + y) % 20 < 3) put(image, x, y, 0, 0, 0, 255); // 15 % of every line
    EXPECT_TRUE(CropEngine::backgroundIsMostlyWhite(bufferOf(image), 0.85));
    EXPECT_FALSE(CropEngine::backgroundIsMostlyWhite(bufferOf(image), 0.851));
}
