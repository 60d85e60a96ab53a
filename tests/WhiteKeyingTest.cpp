#include "TestSupport.h"

#include "engines/CropEngine.h"

#include <deque>
#include <random>

#include <gtest/gtest.h>

using namespace cutlark;
using namespace cutlark::test;

namespace {

bool cleared(const QImage& image, int x, int y) {
    return *reinterpret_cast<const quint32*>(image.constScanLine(y) + 4 * x) == 0;
}

// Picture from rows of characters: '#' black, '.' white.
QImage drawing(std::initializer_list<const char*> rows) {
    const int h = int(rows.size()), w = int(std::strlen(*rows.begin()));
    QImage image = solid(w, h, Qt::white);
    int y = 0;
    for (const char* r : rows) {
        for (int x = 0; x < w; ++x)
            if (r[x] == '#') put(image, x, y, 0, 0, 0, 255);
        ++y;
    }
    return image;
}

// Which pixels were cleared, as rows of characters: 'o' cleared, '-' kept.
std::vector<std::string> clearedMap(const QImage& image) {
    std::vector<std::string> out;
    for (int y = 0; y < image.height(); ++y) {
        std::string row;
        for (int x = 0; x < image.width(); ++x)
            row += cleared(image, x, y) ? 'o' : '-';
        out.push_back(row);
    }
    return out;
}

// Breadth-first 4-neighbour flood from the border, pixel by pixel: the oracle for the scanline fill.
std::vector<bool> naiveFlood(const QImage& image, int floor) {
    const int w = image.width(), h = image.height();
    auto keyable = [&](int x, int y) {
        const uchar* p = image.constScanLine(y) + 4 * x;
        return p[3] < 9 || (p[0] >= floor && p[1] >= floor && p[2] >= floor);
    };
    std::vector<bool> reached(size_t(w * h), false);
    std::deque<QPoint> queue;
    auto visit = [&](int x, int y) {
        if (x < 0 || y < 0 || x >= w || y >= h || reached[size_t(y * w + x)] || !keyable(x, y)) return;
        reached[size_t(y * w + x)] = true;
        queue.push_back(QPoint(x, y));
    };
    for (int x = 0; x < w; ++x)
        visit(x, 0), visit(x, h - 1);
    for (int y = 0; y < h; ++y)
        visit(0, y), visit(w - 1, y);
    while (!queue.empty()) {
        const QPoint p = queue.front();
        queue.pop_front();
        visit(p.x() - 1, p.y()), visit(p.x() + 1, p.y()), visit(p.x(), p.y() - 1), visit(p.x(), p.y() + 1);
    }
    return reached;
}

} // namespace

TEST(WhiteKeying, FloorsFollowTheTable) {
    const struct {
        double threshold;
        int floor;
    } rows[] = {{0, 255},  {1, 253},   {5, 248},   {10, 241}, {25, 221},      {30, 214},    {50, 187},
                {75, 153}, {100, 120}, {250, 120}, {-4, 255}, {qQNaN(), 255}, {qInf(), 120}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.threshold);
        for (bool internal : {false, true}) {
            const uchar f = uchar(row.floor);
            QImage at = solid(3, 3, QColor(f, f, f));
            const auto keyedAt = CropEngine::keyOutWhite(at, row.threshold, internal);
            ASSERT_TRUE(keyedAt);
            EXPECT_TRUE(cleared(*keyedAt, 1, 1)) << "grey at the floor is keyed";
            if (row.floor < 255) {
                QImage below = solid(3, 3, QColor(f, f, uchar(f - 1)));
                const auto keyedBelow = CropEngine::keyOutWhite(below, row.threshold, internal);
                EXPECT_EQ(keyedBelow->cacheKey(), below.cacheKey())
                    << "one level darker is kept: the image itself";
            }
        }
    }
}

TEST(WhiteKeying, AllWhiteGoesFullyTransparentInBothModes) {
    for (bool internal : {false, true}) {
        const auto keyed = CropEngine::keyOutWhite(solid(6, 4, Qt::white), 0, internal);
        ASSERT_TRUE(keyed);
        for (const auto& row : clearedMap(*keyed))
            EXPECT_EQ(row, "oooooo");
    }
}

TEST(WhiteKeying, FloodStopsAtAClosedRing) {
    const QImage ring = drawing({".....", ".###.", ".#.#.", ".###.", "....."});
    const auto flood = CropEngine::keyOutWhite(ring, 30, false);
    EXPECT_EQ(clearedMap(*flood), (std::vector<std::string>{"ooooo", "o---o", "o---o", "o---o", "ooooo"}));
    const auto internal = CropEngine::keyOutWhite(ring, 30, true);
    EXPECT_EQ(clearedMap(*internal), (std::vector<std::string>{"ooooo", "o---o", "o-o-o", "o---o", "ooooo"}));
}

TEST(WhiteKeying, FloodEntersABrokenRing) {
    const QImage broken = drawing({".....", ".#.#.", ".#.#.", ".###.", "....."});
    EXPECT_EQ(clearedMap(*CropEngine::keyOutWhite(broken, 30, false)),
              (std::vector<std::string>{"ooooo", "o-o-o", "o-o-o", "o---o", "ooooo"}));
}

TEST(WhiteKeying, DiagonalContactDoesNotCarryTheFill) {
    // The ring's corners are white: the fill enters them and stops; the centre touches them only diagonally.
    const QImage corners = drawing({".....", "..#..", ".#.#.", "..#..", "....."});
    EXPECT_EQ(clearedMap(*CropEngine::keyOutWhite(corners, 30, false)),
              (std::vector<std::string>{"ooooo", "oo-oo", "o---o", "oo-oo", "ooooo"}));
    // A one-pixel diagonal line of ink holds the fill back.
    const QImage diagonal = drawing({"#....", ".#...", "..#..", "...#.", "....#"});
    const auto keyed = CropEngine::keyOutWhite(diagonal, 30, false);
    EXPECT_EQ(clearedMap(*keyed), (std::vector<std::string>{"-oooo", "o-ooo", "oo-oo", "ooo-o", "oooo-"}));
}

TEST(WhiteKeying, NoKeyableBorderMeansTheImageItself) {
    // A dark frame around a white interior: nothing is reached, even though the inside is white.
    QImage photo = solid(8, 8, QColor(90, 60, 30));
    for (int y = 2; y < 6; ++y)
        for (int x = 2; x < 6; ++x)
            put(photo, x, y, 255, 255, 255, 255);
    EXPECT_EQ(CropEngine::keyOutWhite(photo, 30, false)->cacheKey(), photo.cacheKey());
    EXPECT_NE(CropEngine::keyOutWhite(photo, 30, true)->cacheKey(), photo.cacheKey());
    const QImage dark = solid(8, 8, QColor(90, 60, 30));
    EXPECT_EQ(CropEngine::keyOutWhite(dark, 30, true)->cacheKey(), dark.cacheKey())
        << "internal mode with nothing keyable also hands back its input";
}

TEST(WhiteKeying, ThresholdZeroKeysOnlyPureWhiteAndNearTransparent) {
    QImage image = solid(4, 1, Qt::white);
    put(image, 1, 0, 254, 255, 255, 255);
    put(image, 2, 0, 40, 10, 0, 8); // alpha 8: keyable whatever its colour
    put(image, 3, 0, 9, 9, 9, 9);   // alpha 9: subject to the colour test
    const auto keyed = CropEngine::keyOutWhite(image, 0, true);
    EXPECT_EQ(clearedMap(*keyed), (std::vector<std::string>{"o-o-"}));
}

TEST(WhiteKeying, ThresholdHundredKeysMidGreysConnectedToTheBorder) {
    QImage image = solid(5, 5, QColor(120, 130, 200));
    put(image, 2, 2, 119, 200, 200, 255);
    const auto keyed = CropEngine::keyOutWhite(image, 100, false);
    EXPECT_EQ(clearedMap(*keyed), (std::vector<std::string>{"ooooo", "ooooo", "oo-oo", "ooooo", "ooooo"}));
}

TEST(WhiteKeying, HalfTransparentWhiteIsKeyedOnlyByALowFloor) {
    QImage image = solid(3, 3, QColor(0, 0, 0, 0));
    put(image, 1, 1, 128, 128, 128, 128);
    EXPECT_FALSE(cleared(*CropEngine::keyOutWhite(image, 50, true), 1, 1)); // floor 187
    EXPECT_TRUE(cleared(*CropEngine::keyOutWhite(image, 95, true), 1, 1));  // floor 126
}

TEST(WhiteKeying, TransparentMarginsAreReachedAndZeroed) {
    // A faint coloured margin (alpha 1…8), then white behind it, then ink.
    QImage image = solid(9, 9, Qt::white);
    for (int i = 0; i < 9; ++i) {
        put(image, i, 0, 3, 1, 2, uchar(1 + i % 8));
        put(image, 0, i, 5, 0, 0, 5);
    }
    put(image, 4, 4, 0, 0, 0, 255);
    const auto keyed = CropEngine::keyOutWhite(image, 30, false);
    ASSERT_NE(keyed->cacheKey(), image.cacheKey());
    for (int i = 0; i < 9; ++i) {
        EXPECT_TRUE(cleared(*keyed, i, 0));
        EXPECT_TRUE(cleared(*keyed, 0, i));
    }
    EXPECT_TRUE(cleared(*keyed, 3, 3)) << "the white behind the margin is reached";
    EXPECT_FALSE(cleared(*keyed, 4, 4));

    // A fully transparent border counts as a change: a new image whose margin bytes are all zero.
    QImage framed = solid(5, 5, QColor(0, 0, 0));
    for (int i = 0; i < 5; ++i)
        put(framed, i, 0, 0, 0, 0, 0);
    const auto refilled = CropEngine::keyOutWhite(framed, 30, false);
    EXPECT_NE(refilled->cacheKey(), framed.cacheKey());
}

TEST(WhiteKeying, KeptPixelsAreUntouchedAndOpaqueInputGainsAlpha) {
    QImage opaque = coordinates(40, 30).convertToFormat(QImage::Format_RGBX8888);
    for (int x = 0; x < 40; ++x)
        put(opaque, x, 0, 255, 255, 255, 255);
    const auto keyed = CropEngine::keyOutWhite(opaque, 30, false);
    ASSERT_TRUE(keyed);
    EXPECT_TRUE(keyed->hasAlphaChannel());
    EXPECT_TRUE(cleared(*keyed, 10, 0));
    for (int y = 1; y < 30; ++y)
        ASSERT_EQ(std::memcmp(keyed->constScanLine(y), opaque.constScanLine(y), 40 * 4), 0) << y;
}

TEST(WhiteKeying, ScanlineFloodMatchesThePixelByPixelFlood) {
    std::mt19937 random(11);
    for (int round = 0; round < 200; ++round) {
        const int w = 1 + int(random() % 70), h = 1 + int(random() % 50);
        QImage image(w, h, QImage::Format_RGBA8888_Premultiplied);
        // Mostly white with ink strokes and a few faint pixels: many pockets and channels.
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                const unsigned r = random() % 100;
                if (r < 30)
                    put(image, x, y, 20, 20, 20, 255);
                else if (r < 33)
                    put(image, x, y, 2, 2, 2, 4);
                else if (r < 40)
                    put(image, x, y, 230, 230, 200, 255);
                else
                    put(image, x, y, 255, 255, 255, 255);
            }
        const double threshold = double(random() % 60);
        const int floor = int(threshold / 100 * -135 + 255);
        const std::vector<bool> expected = naiveFlood(image, floor);
        const auto keyed = CropEngine::keyOutWhite(image, threshold, false);
        ASSERT_TRUE(keyed);
        const bool any = std::find(expected.begin(), expected.end(), true) != expected.end();
        ASSERT_EQ(keyed->cacheKey() != image.cacheKey(), any) << "round " << round;
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                const bool wasCleared = any && cleared(*keyed, x, y);
                const bool wasZero = cleared(image, x, y);
                ASSERT_EQ(wasCleared && !wasZero, expected[size_t(y * w + x)] && !wasZero)
                    << "round " << round << " at " << x << "," << y;
            }
    }
}
