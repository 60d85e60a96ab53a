#include "TestSupport.h"

#include "vectorize/VectorizeEngine.h"

#include <QPainter>

#include <gtest/gtest.h>

using namespace cutlark;
using namespace cutlark::test;
namespace VE = VectorizeEngine;

namespace {

QImage white(int w, int h) {
    return solid(w, h, Qt::white);
}
QImage clear(int w, int h) {
    return solid(w, h, QColor(0, 0, 0, 0));
}

void fillRect(QImage& image, const QRect& r, const QColor& c) {
    for (int y = r.top(); y <= r.bottom(); ++y)
        for (int x = r.left(); x <= r.right(); ++x)
            image.setPixelColor(x, y, c);
}

QRectF boundsOf(const Contour& c) {
    double x0 = c.first().x(), y0 = c.first().y(), x1 = x0, y1 = y0;
    for (const QPointF& p : c) {
        x0 = std::min(x0, p.x()), y0 = std::min(y0, p.y());
        x1 = std::max(x1, p.x()), y1 = std::max(y1, p.y());
    }
    return QRectF(QPointF(x0, y0), QPointF(x1, y1));
}

} // namespace

// --- the mask ---

TEST(BinaryMask, DarknessOrAlphaDecidesWithLimit129) {
    // Opaque: darkness mode; luma 126 is foreground, 127 background.
    QImage greys = white(4, 1);
    greys.setPixelColor(0, 0, QColor(126, 126, 126));
    greys.setPixelColor(1, 0, QColor(127, 127, 127));
    auto m = VE::binaryMask(greys);
    ASSERT_TRUE(m);
    EXPECT_EQ(m->mask.constScanLine(0)[0], 0);
    EXPECT_EQ(m->mask.constScanLine(0)[1], 255);
    EXPECT_EQ(m->mask.constScanLine(0)[2], 255);

    // Any alpha below 250 means alpha mode: 128 is background, 129 foreground, colour plays no part.
    QImage alphas = clear(4, 1);
    alphas.scanLine(0)[3] = 128;
    alphas.scanLine(0)[4 + 3] = 129;
    alphas.scanLine(0)[8 + 0] = 255, alphas.scanLine(0)[8 + 1] = 255, alphas.scanLine(0)[8 + 2] = 255,
                           alphas.scanLine(0)[8 + 3] = 255;
    m = VE::binaryMask(alphas);
    EXPECT_EQ(m->mask.constScanLine(0)[0], 255);
    EXPECT_EQ(m->mask.constScanLine(0)[1], 0);
    EXPECT_EQ(m->mask.constScanLine(0)[2], 0) << "white counts as foreground in alpha mode";

    // Alpha 250 everywhere still reads as darkness.
    QImage faint = solid(3, 1, QColor(255, 255, 255, 250));
    EXPECT_EQ(VE::binaryMask(faint)->mask.constScanLine(0)[0], 255);
}

TEST(BinaryMask, WorkingSizeIsCappedAt1400) {
    const auto m = VE::binaryMask(white(4000, 2000));
    ASSERT_TRUE(m);
    EXPECT_EQ(m->mask.size(), QSize(1400, 700));
    EXPECT_EQ(VE::binaryMask(white(700, 30))->mask.size(), QSize(700, 30));
    EXPECT_FALSE(VE::binaryMask(QImage()));
}

TEST(BinaryMask, BusynessOfCheckerboards) {
    QImage fine(64, 64, QImage::Format_RGBA8888_Premultiplied);
    for (int y = 0; y < 64; ++y)
        for (int x = 0; x < 64; ++x)
            fine.setPixelColor(x, y, ((x + y) & 1) ? Qt::black : Qt::white);
    EXPECT_NEAR(VE::binaryMask(fine)->busyness, 2.0 * 63 * 64 / (64 * 64), 1e-9);
    EXPECT_EQ(VE::trace(fine).kind, VectorTraceOutcome::Kind::tooDetailed);

    auto checker = [](int cell) {
        QImage image(1000, 1000, QImage::Format_RGBA8888_Premultiplied);
        for (int y = 0; y < 1000; ++y)
            for (int x = 0; x < 1000; ++x)
                image.setPixelColor(x, y, ((x / cell + y / cell) & 1) ? Qt::black : Qt::white);
        return image;
    };
    EXPECT_NEAR(VE::binaryMask(checker(40))->busyness, 0.048, 0.001);
    EXPECT_EQ(VE::trace(checker(40)).kind, VectorTraceOutcome::Kind::traced);
    EXPECT_EQ(VE::trace(checker(20)).kind, VectorTraceOutcome::Kind::tooDetailed);
}

TEST(BinaryMask, BusynessOfExactlyPointZeroSixPasses) {
    // Seven stripes across 100 × 100: six boundaries of 100 transitions each, 600 / 10000 = 0.06.
    QImage stripes = white(100, 100);
    for (int s = 1; s < 7; s += 2)
        fillRect(stripes, QRect(s * 14, 0, 14, 100), Qt::black);
    const auto m = VE::binaryMask(stripes);
    EXPECT_DOUBLE_EQ(m->busyness, 0.06);
    EXPECT_EQ(VE::trace(stripes).kind, VectorTraceOutcome::Kind::traced);
    fillRect(stripes, QRect(0, 0, 7, 100), Qt::black); // one more boundary
    EXPECT_EQ(VE::trace(stripes).kind, VectorTraceOutcome::Kind::tooDetailed);
}

// --- the trace ---

TEST(Trace, WhitePageHasNoShape) {
    EXPECT_EQ(VE::trace(white(300, 200)).kind, VectorTraceOutcome::Kind::noShape);
    EXPECT_EQ(VE::trace(clear(300, 200)).kind, VectorTraceOutcome::Kind::noShape);
    EXPECT_EQ(VE::trace(QImage()).kind, VectorTraceOutcome::Kind::noShape);
}

TEST(Trace, ABlackSquareOnWhiteRunsRoundTheSquare) {
    QImage page = white(300, 200);
    fillRect(page, QRect(50, 40, 100, 80), Qt::black);
    const auto outcome = VE::trace(page);
    ASSERT_EQ(outcome.kind, VectorTraceOutcome::Kind::traced);
    ASSERT_EQ(outcome.trace.contours.size(), 1);
    EXPECT_EQ(outcome.trace.size, QSizeF(300, 200));
    const QRectF b = boundsOf(outcome.trace.contours.first());
    EXPECT_NEAR(b.left(), 50, 0.6);
    EXPECT_NEAR(b.top(), 40, 0.6);
    EXPECT_NEAR(b.right(), 150, 0.6);
    EXPECT_NEAR(b.bottom(), 120, 0.6);
    EXPECT_LE(outcome.trace.contours.first().size(), 8) << "straight sides carry no extra points";
}

TEST(Trace, AlphaModeTracesWhiteOnTransparentAndOnePixelFlipsTheMode) {
    QImage sheet = clear(200, 200);
    fillRect(sheet, QRect(60, 60, 80, 80), Qt::white);
    const auto a = VE::trace(sheet);
    ASSERT_EQ(a.kind, VectorTraceOutcome::Kind::traced);
    EXPECT_NEAR(boundsOf(a.trace.contours.first()).width(), 80, 1.2);

    QImage drawing = white(200, 200);
    fillRect(drawing, QRect(60, 60, 80, 80), Qt::black);
    drawing.setPixelColor(0, 0, QColor(255, 255, 255, 200)); // one pixel below 250
    const auto b = VE::trace(drawing);
    ASSERT_EQ(b.kind, VectorTraceOutcome::Kind::traced);
    EXPECT_GT(boundsOf(b.trace.contours.first()).width(), 195)
        << "everything else is foreground: a page-sized shape";
}

TEST(Trace, TheAreaFloorKeepsTwentyByTwentyAndDropsNineteen) {
    QImage page = white(1000, 1000);
    fillRect(page, QRect(100, 100, 20, 20), Qt::black);
    fillRect(page, QRect(500, 500, 19, 19), Qt::black);
    const auto outcome = VE::trace(page);
    ASSERT_EQ(outcome.kind, VectorTraceOutcome::Kind::traced);
    ASSERT_EQ(outcome.trace.contours.size(), 1);
    EXPECT_NEAR(boundsOf(outcome.trace.contours.first()).left(), 100, 0.6);
}

TEST(Trace, ADonutGivesOutlineAndHole) {
    QImage page = white(400, 400);
    {
        QPainter p(&page);
        p.setRenderHint(QPainter::Antialiasing);
        p.setBrush(Qt::black);
        p.setPen(Qt::NoPen);
        p.drawEllipse(QPointF(200, 200), 150, 150);
        p.setBrush(Qt::white);
        p.drawEllipse(QPointF(200, 200), 60, 60);
    }
    const auto outcome = VE::trace(page);
    ASSERT_EQ(outcome.kind, VectorTraceOutcome::Kind::traced);
    ASSERT_EQ(outcome.trace.contours.size(), 2);
    QList<double> widths;
    for (const Contour& c : outcome.trace.contours)
        widths << boundsOf(c).width();
    std::sort(widths.begin(), widths.end());
    EXPECT_NEAR(widths[0], 120, 2);
    EXPECT_NEAR(widths[1], 300, 2);
}

TEST(Trace, CoordinatesAreInSourcePixels) {
    QImage page = white(4000, 2000);
    fillRect(page, QRect(2000, 500, 2000, 1000), Qt::black); // reaches the right edge
    const auto outcome = VE::trace(page);
    ASSERT_EQ(outcome.kind, VectorTraceOutcome::Kind::traced);
    const QRectF b = boundsOf(outcome.trace.contours.first());
    EXPECT_NEAR(b.right(), 4000, 3) << "though the mask is 1400 × 700";
    EXPECT_NEAR(b.left(), 2000, 4);
    EXPECT_NEAR(b.top(), 500, 4);
}

TEST(Straighten, CollinearPointsGoAndShapesStopAtThree) {
    const Contour rectangle = {{0, 0}, {5, 0}, {10, 0}, {10, 5}, {10, 10}, {5, 10}, {0, 10}, {0, 5}};
    EXPECT_EQ(VE::straighten(rectangle, 1.2), (Contour{{0, 0}, {10, 0}, {10, 10}, {0, 10}}));
    const Contour triangle = {{0, 0}, {10, 0}, {5, 0.1}};
    EXPECT_EQ(VE::straighten(triangle, 5), triangle);
    const Contour square = {{0, 0}, {1, 0}, {1, 1}, {0, 1}};
    EXPECT_EQ(VE::straighten(square, 100).size(), 3);
    EXPECT_EQ(VE::straighten(rectangle, 0), rectangle);
    EXPECT_EQ(VE::straighten(rectangle, -1), rectangle);
    // A spike along the chord's direction has a distance near 0 and goes.
    const Contour spike = {{0, 0}, {10, 0}, {20, 0}, {15, 0}, {20, 10}, {0, 10}};
    EXPECT_FALSE(VE::straighten(spike, 0.5).contains(QPointF(20, 0)));
}

TEST(Straighten, EpsilonFromSmoothing) {
    EXPECT_DOUBLE_EQ(VE::epsilonFor(0), 0.001);
    EXPECT_DOUBLE_EQ(VE::epsilonFor(50), 0.013);
    EXPECT_DOUBLE_EQ(VE::epsilonFor(100), 0.025);
    EXPECT_DOUBLE_EQ(VE::epsilonFor(250), 0.025);
    EXPECT_DOUBLE_EQ(VE::epsilonFor(-3), 0.001);
}

// --- SVG and previews ---

TEST(Svg, SilhouetteDocumentByteForByte) {
    const VectorTrace t{{{{2, 2}, {8, 2}, {8, 8}, {2, 8}}}, QSizeF(10, 10), {}};
    EXPECT_EQ(
        VE::svg(t, VectorizeStyle::silhouette, 3),
        QStringLiteral(
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"10\" height=\"10\" viewBox=\"0 0 10 10\">\n"
            "<path fill=\"#111111\" fill-rule=\"evenodd\" d=\"M2.0 2.0L8.0 2.0L8.0 8.0L2.0 8.0Z\"/>\n"
            "</svg>"));
    EXPECT_EQ(
        VE::svg(t, VectorizeStyle::outline, 3),
        QStringLiteral(
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"10\" height=\"10\" viewBox=\"0 0 10 10\">\n"
            "<path fill=\"none\" stroke=\"#111111\" stroke-width=\"3.0\" stroke-linejoin=\"round\" "
            "d=\"M2.0 2.0L8.0 2.0L8.0 8.0L2.0 8.0Z\"/>\n"
            "</svg>"));
    const VectorTrace odd{{}, QSizeF(640.9, 480.2), {}};
    EXPECT_TRUE(VE::svg(odd, VectorizeStyle::silhouette, 1)
                    .contains(QStringLiteral("width=\"640\" height=\"480\" viewBox=\"0 0 640 480\"")));
    EXPECT_TRUE(VE::svg(odd, VectorizeStyle::silhouette, 1).contains(QStringLiteral(" d=\"\"/>")))
        << "an empty path still stands";
}

TEST(Svg, PathDataOfTwoTriangles) {
    EXPECT_EQ(VE::pathD(QList<Contour>{{{2, 2}, {8, 2}, {8, 8}}, {}, {{3.5, 3.5}, {4, 3.5}, {4, 4.5}}}),
              QStringLiteral("M2.0 2.0L8.0 2.0L8.0 8.0ZM3.5 3.5L4.0 3.5L4.0 4.5Z"));
    EXPECT_EQ(VE::pathD(QList<Contour>{{{0.04, 0.06}, {10.25, 1e4}, {0, 0}}}),
              QStringLiteral("M0.0 0.1L10.2 10000.0L0.0 0.0Z"));
    EXPECT_EQ(VE::pathD(QList<Contour>{}), QString());
}

TEST(Svg, ColourDocumentByteForByte) {
    const Contour square = {{2, 2}, {8, 2}, {8, 8}, {2, 8}};
    VectorColorTrace t{{VectorColorLayer{1.0, 0.0, 0.0, {square}, {}},
                        VectorColorLayer{1.0, 0.5, 0.0, {square}, {}}, VectorColorLayer{0, 0, 0, {}, {}}},
                       QSizeF(10, 10)};
    EXPECT_EQ(
        VE::colorSVG(t),
        QStringLiteral(
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"10\" height=\"10\" viewBox=\"0 0 10 10\">\n"
            "<path fill=\"#FF0000\" fill-rule=\"evenodd\" d=\"M2.0 2.0L8.0 2.0L8.0 8.0L2.0 8.0Z\"/>\n"
            "<path fill=\"#FF8000\" fill-rule=\"evenodd\" d=\"M2.0 2.0L8.0 2.0L8.0 8.0L2.0 8.0Z\"/>\n"
            "</svg>"));
    EXPECT_EQ(VE::colorSVG(VectorColorTrace{{}, QSizeF(3, 4)}),
              QStringLiteral(
                  "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                  "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"3\" height=\"4\" viewBox=\"0 0 3 4\">\n"
                  "</svg>"));
}

TEST(Svg, PreviewsFillEvenOddInTheFixedGrey) {
    const Contour outer = {{10, 10}, {90, 10}, {90, 90}, {10, 90}};
    const Contour hole = {{40, 40}, {60, 40}, {60, 60}, {40, 60}};
    const VectorTrace t{{outer, hole}, QSizeF(100, 100), {}};
    const QImage filled = VE::preview(t, VectorizeStyle::silhouette, 2);
    ASSERT_EQ(filled.size(), QSize(100, 100));
    EXPECT_EQ(filled.pixel(20, 20), QColor::fromRgbF(0.1f, 0.11f, 0.13f).rgba());
    EXPECT_EQ(qAlpha(filled.pixel(50, 50)), 0) << "the hole stays unpainted";
    EXPECT_EQ(qAlpha(filled.pixel(5, 5)), 0);
    const QImage stroked = VE::preview(t, VectorizeStyle::outline, 4);
    EXPECT_EQ(qAlpha(stroked.pixel(20, 20)), 0);
    EXPECT_EQ(qAlpha(stroked.pixel(10, 50)), 255);
    EXPECT_EQ(qAlpha(stroked.pixel(40, 50)), 255) << "the hole is stroked like any contour";
    EXPECT_TRUE(
        VE::preview(VectorTrace{{outer}, QSizeF(0.5, 100), {}}, VectorizeStyle::silhouette, 1).isNull());

    const VectorColorTrace colours{
        {VectorColorLayer{1, 0, 0, {outer}, {}}, VectorColorLayer{0, 0, 1, {hole}, {}}}, QSizeF(100, 100)};
    const QImage both = VE::colorPreview(colours);
    EXPECT_EQ(both.pixel(20, 20), qRgb(255, 0, 0));
    EXPECT_EQ(both.pixel(50, 50), qRgb(0, 0, 255)) << "a later layer covers an earlier one";
}

// --- colour ---

TEST(ColorTrace, ThresholdTable) {
    EXPECT_EQ(VE::colorThreshold(-5), 18);
    EXPECT_EQ(VE::colorThreshold(0), 18);
    EXPECT_EQ(VE::colorThreshold(25), 30);
    EXPECT_EQ(VE::colorThreshold(45), 39);
    EXPECT_EQ(VE::colorThreshold(50), 42);
    EXPECT_EQ(VE::colorThreshold(75), 53);
    EXPECT_EQ(VE::colorThreshold(99), 65);
    EXPECT_EQ(VE::colorThreshold(100), 65);
}

TEST(ColorTrace, TwoHalvesGiveTwoLayersInDiscoveryOrder) {
    QImage image = solid(200, 200, QColor(0, 0, 255));
    fillRect(image, QRect(0, 0, 100, 200), QColor(255, 0, 0));
    const auto t = VE::traceColor(image, TraceParams{0, 0.001, 1, 0});
    ASSERT_TRUE(t);
    ASSERT_EQ(t->layers.size(), 2);
    EXPECT_EQ(t->size, QSizeF(200, 200));
    EXPECT_EQ(t->layers[0].r, 1.0);
    EXPECT_EQ(t->layers[0].b, 0.0);
    EXPECT_EQ(t->layers[1].b, 1.0);
}

TEST(ColorTrace, TransparencyMakesNoLayer) {
    QImage square = clear(100, 100);
    fillRect(square, QRect(20, 20, 60, 60), QColor(0, 128, 0));
    const auto t = VE::traceColor(square, TraceParams{45, 3e-5, 1, 0});
    ASSERT_TRUE(t);
    ASSERT_EQ(t->layers.size(), 1);
    EXPECT_FALSE(VE::traceColor(clear(50, 50), TraceParams{45, 3e-5, 1, 0}));
    EXPECT_FALSE(VE::traceColor(solid(50, 50, QColor(255, 0, 0, 127)), TraceParams{45, 3e-5, 1, 0}));
    EXPECT_FALSE(VE::traceColor(QImage(), TraceParams{45, 3e-5, 1, 0}));
}

TEST(ColorTrace, RegionsGrowAgainstTheirSeedAndJoinThePalette) {
    // Adjacent (100) and (110): distance 300, within the region limit 324: one region, weighted mean.
    QImage adjacent = solid(100, 100, QColor(100, 100, 100));
    fillRect(adjacent, QRect(0, 0, 100, 25), QColor(110, 110, 110));
    auto t = VE::traceColor(adjacent, TraceParams{0, 0.001, 1, 0});
    ASSERT_TRUE(t);
    ASSERT_EQ(t->layers.size(), 1);
    EXPECT_EQ(qRound(t->layers[0].r * 255), 102);

    // Separated by a white bar: two regions, one palette entry (300 ≤ 961), the larger area's mean.
    QImage apart = white(100, 100);
    fillRect(apart, QRect(0, 0, 100, 30), QColor(110, 110, 110));
    fillRect(apart, QRect(0, 50, 100, 50), QColor(100, 100, 100));
    t = VE::traceColor(apart, TraceParams{0, 0.001, 1, 0});
    ASSERT_EQ(t->layers.size(), 2);
    EXPECT_EQ(qRound(t->layers[0].r * 255), 100)
        << "the greys together are the largest colour: the bottom layer";
    EXPECT_EQ(qRound(t->layers[1].r * 255), 255);

    // (100) and (120): distance 1200, two entries at tolerance 0 and one at 25 (limit 1849).
    fillRect(apart, QRect(0, 0, 100, 30), QColor(120, 120, 120));
    EXPECT_EQ(VE::traceColor(apart, TraceParams{0, 0.001, 1, 0})->layers.size(), 3);
    EXPECT_EQ(VE::traceColor(apart, TraceParams{25, 0.001, 1, 0})->layers.size(), 2);
}

TEST(ColorTrace, NoisePicturesAreRefused) {
    QImage checker(100, 100, QImage::Format_RGBA8888_Premultiplied);
    for (int y = 0; y < 100; ++y)
        for (int x = 0; x < 100; ++x)
            checker.setPixelColor(x, y, ((x + y) & 1) ? QColor(255, 0, 0) : QColor(0, 0, 255));
    EXPECT_FALSE(VE::traceColor(checker, TraceParams{45, 3e-5, 0, 0})) << "too many regions";
}

TEST(ColorTrace, ReducedCopyButSourceCoordinates) {
    QImage wide = white(3000, 1500);
    fillRect(wide, QRect(1500, 300, 1500, 900), QColor(200, 30, 30));
    const auto t = VE::traceColor(wide, TraceParams{45, 3e-5, 1, 0});
    ASSERT_TRUE(t);
    EXPECT_EQ(t->size, QSizeF(3000, 1500));
    ASSERT_EQ(t->layers.size(), 2);
    EXPECT_NEAR(boundsOf(t->layers[1].contours.first()).right(), 3000, 4);
    EXPECT_NEAR(boundsOf(t->layers[1].contours.first()).left(), 1500, 4);
}

TEST(ColorTrace, RareColoursDissolveAndRunsRepeat) {
    QImage image = white(300, 300);
    fillRect(image, QRect(0, 0, 150, 300), QColor(20, 120, 40));
    fillRect(image, QRect(200, 200, 4, 4), QColor(250, 0, 250)); // a speck far from all others
    const auto a =
        VE::traceColor(image, TraceParams{45, 0.001, 0, 0}); // no median: the speck reaches the palette
    ASSERT_TRUE(a);
    EXPECT_EQ(a->layers.size(), 2) << "the speck's count is below the minimum: no layer of its own";
    const auto b = VE::traceColor(image, TraceParams{45, 0.001, 0, 0});
    ASSERT_TRUE(b);
    EXPECT_EQ(VE::colorSVG(*a), VE::colorSVG(*b)) << "two runs, the same layers";
}

TEST(MajorityFilter, FiveVotesWinAndTiesGoLow) {
    // A 3 × 3 block: centre label 2, five of label 1 and three of label 0 around it.
    std::vector<int> labels = {1, 1, 1, 1, 2, 1, 0, 0, 0};
    VE::majorityFilter(labels, 3, 3, 3, 1);
    EXPECT_EQ(labels[4], 1);
    // A tie of 4 against 4 and one third label: the lower wins.
    std::vector<int> tie = {3, 3, 3, 3, 1, 2, 2, 2, 2};
    VE::majorityFilter(tie, 3, 3, 4, 1);
    EXPECT_EQ(tie[4], 2);
    // Transparency neither grows nor shrinks; no pass, no change.
    std::vector<int> holes = {-1, 0, 0, 0, -1, 0, 0, 0, -1};
    VE::majorityFilter(holes, 3, 3, 1, 3);
    EXPECT_EQ(holes, (std::vector<int>{-1, 0, 0, 0, -1, 0, 0, 0, -1}));
    std::vector<int> untouched = {1, 0, 1};
    VE::majorityFilter(untouched, 3, 1, 2, 0);
    EXPECT_EQ(untouched, (std::vector<int>{1, 0, 1}));
}

// --- quality, measured ---

TEST(Quality, SilhouetteOfALargeDrawingCoversItsPixels) {
    // A clean black-on-white drawing of 4000 × 3000: discs, a ring, bars, a polygon, a thick curve.
    QImage drawing = white(4000, 3000);
    {
        QPainter p(&drawing);
        p.setRenderHint(QPainter::Antialiasing);
        p.setPen(Qt::NoPen);
        p.setBrush(Qt::black);
        p.drawEllipse(QPointF(800, 800), 500, 500);
        p.drawRect(QRectF(1600, 300, 1800, 260));
        p.drawPolygon(
            QPolygonF({QPointF(1700, 1100), QPointF(3600, 900), QPointF(3200, 2400), QPointF(2100, 2000)}));
        p.setBrush(Qt::white);
        p.drawEllipse(QPointF(800, 800), 220, 220);
        p.setBrush(Qt::NoBrush);
        p.setPen(QPen(Qt::black, 90, Qt::SolidLine, Qt::RoundCap));
        QPainterPath curve(QPointF(300, 2700));
        curve.cubicTo(QPointF(900, 1500), QPointF(1300, 2900), QPointF(1800, 2600));
        p.drawPath(curve);
    }
    const auto outcome = VE::trace(drawing);
    ASSERT_EQ(outcome.kind, VectorTraceOutcome::Kind::traced);
    const QImage back = renderedSvg(VE::svg(outcome.trace, VectorizeStyle::silhouette, 1), drawing.size());
    const double iou = intersectionOverUnion(
        4000, 3000, [&](int x, int y) { return qRed(drawing.pixel(x, y)) < 128; },
        [&](int x, int y) { return qAlpha(back.pixel(x, y)) >= 128; });
    std::printf("silhouette trace of a 4000 × 3000 drawing: intersection over union %.4f\n", iou);
    EXPECT_GE(iou, 0.98);
}

TEST(Quality, ColourTraceGivesPixelsTheirOwnColour) {
    // A flat illustration of 8 colours at 2000 × 2000.
    QImage art = solid(2000, 2000, QColor(250, 245, 230));
    {
        QPainter p(&art);
        p.setRenderHint(QPainter::Antialiasing);
        p.setPen(Qt::NoPen);
        const QColor colours[] = {QColor(30, 60, 140),  QColor(230, 80, 40),  QColor(250, 200, 40),
                                  QColor(40, 150, 80),  QColor(120, 40, 120), QColor(20, 20, 20),
                                  QColor(180, 220, 240)};
        p.setBrush(colours[0]);
        p.drawRect(0, 1300, 2000, 700);
        p.setBrush(colours[6]);
        p.drawEllipse(QPointF(1500, 500), 380, 380);
        p.setBrush(colours[2]);
        p.drawEllipse(QPointF(1500, 500), 200, 200);
        p.setBrush(colours[3]);
        p.drawPolygon(QPolygonF({QPointF(100, 1300), QPointF(700, 400), QPointF(1300, 1300)}));
        p.setBrush(colours[1]);
        p.drawRoundedRect(QRectF(900, 1450, 800, 400), 80, 80);
        p.setBrush(colours[4]);
        p.drawEllipse(QPointF(400, 1650), 250, 180);
        p.setBrush(colours[5]);
        p.drawRect(QRectF(660, 900, 80, 400));
    }
    const auto t = VE::traceColor(art, TraceParams{45, 3e-5, 2, 3});
    ASSERT_TRUE(t);
    const QImage back = renderedSvg(VE::colorSVG(*t), art.size());
    qint64 good = 0, total = 0;
    for (int y = 0; y < 2000; ++y)
        for (int x = 0; x < 2000; ++x) {
            const QRgb a = art.pixel(x, y), b = back.pixel(x, y);
            const int dr = qRed(a) - qRed(b), dg = qGreen(a) - qGreen(b), db = qBlue(a) - qBlue(b);
            good += dr * dr + dg * dg + db * db <= 300;
            ++total;
        }
    const double share = double(good) / double(total);
    std::printf("colour trace of a 2000 × 2000 illustration: %zu layers, %.2f %% of pixels within 300\n",
                size_t(t->layers.size()), share * 100);
    EXPECT_GE(share, 0.97);
}
