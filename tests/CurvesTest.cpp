#include "TestSupport.h"

#include "vectorize/CurveFit.h"
#include "vectorize/VectorizeEngine.h"

#include <QPainter>
#include <QRegularExpression>

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <numbers>
#include <random>

using namespace cutlark;
using namespace cutlark::test;
namespace VE = VectorizeEngine;

namespace {

// A silhouette trace's parameters with curves fitted.
TraceParams curvesOn() {
    TraceParams params;
    params.curves = true;
    return params;
}

// Black shapes drawn with antialiasing on a white picture.
QImage drawn(QSize size, const std::function<void(QPainter&)>& draw) {
    QImage image = solid(size.width(), size.height(), Qt::white);
    QPainter p(&image);
    p.setRenderHint(QPainter::Antialiasing);
    p.setPen(Qt::NoPen);
    p.setBrush(Qt::black);
    draw(p);
    return image;
}

// Points along every segment of a curved outline, `perSegment` to each.
std::vector<QPointF> sampled(const CurvedContour& c, int perSegment = 50) {
    std::vector<QPointF> out;
    QPointF from = c.start;
    for (const CurveSegment& s : c.segments) {
        for (int i = 0; i < perSegment; ++i) {
            const double t = double(i) / perSegment, u = 1 - t;
            out.push_back(s.cubic ? from * (u * u * u) + s.c1 * (3 * u * u * t) + s.c2 * (3 * u * t * t) +
                                        s.end * (t * t * t)
                                  : from * u + s.end * t);
        }
        from = s.end;
    }
    return out;
}

} // namespace

TEST(Curves, ACircleIsAFewCurvesOnTheTrueCircle) {
    const QImage disc = drawn(QSize(160, 160), [](QPainter& p) { p.drawEllipse(QPointF(80, 80), 50, 50); });
    const VectorTraceOutcome t = VE::trace(disc, curvesOn());
    ASSERT_EQ(t.kind, VectorTraceOutcome::Kind::traced);
    ASSERT_EQ(t.trace.curves.size(), 1);
    const CurvedContour& c = t.trace.curves.first();
    EXPECT_LE(c.segments.size(), 8);
    double worst = 0;
    for (const QPointF& p : sampled(c))
        worst = std::max(worst, std::abs(std::hypot(p.x() - 80, p.y() - 80) - 50));
    std::printf("circle of radius 50: %d segments, %.3f px from the true circle at worst\n",
                int(c.segments.size()), worst);
    EXPECT_LE(worst, 0.25);
    for (const CurveSegment& s : c.segments)
        EXPECT_TRUE(s.cubic);
    // The polygon is still there, as before.
    EXPECT_EQ(t.trace.contours, VE::trace(disc).trace.contours);
    EXPECT_TRUE(VE::trace(disc).trace.curves.isEmpty());
}

TEST(Curves, ASquareKeepsItsFourCornersAndStraightSides) {
    for (const double turn : {0.0, 45.0}) {
        SCOPED_TRACE(turn);
        const QImage square = drawn(QSize(200, 200), [turn](QPainter& p) {
            p.translate(100, 100);
            p.rotate(turn);
            p.drawRect(QRectF(-50, -50, 100, 100));
        });
        const VectorTraceOutcome t = VE::trace(square, curvesOn());
        ASSERT_EQ(t.trace.curves.size(), 1);
        const CurvedContour& c = t.trace.curves.first();
        ASSERT_EQ(c.segments.size(), 4);
        // Each side a line from corner to corner, each corner where the square has one.
        const double r = 50 * std::sqrt(2.0);
        for (const CurveSegment& s : c.segments) {
            EXPECT_FALSE(s.cubic);
            double nearest = 1e9;
            for (int k = 0; k < 4; ++k) {
                const double a = (turn + 45 + 90 * k) * std::numbers::pi / 180;
                nearest = std::min(nearest, std::hypot(s.end.x() - 100 - r * std::cos(a),
                                                       s.end.y() - 100 - r * std::sin(a)));
            }
            EXPECT_LE(nearest, turn == 0 ? 0.01 : 0.5) << s.end.x() << "," << s.end.y();
        }
    }
}

TEST(Curves, AnSCurveFollowsItsSineWithinAQuarterPixel) {
    // A band whose upper edge is y = 100 + 30 sin(x / 40) over 20 ≤ x ≤ 280, bottom at 200.
    const auto edge = [](double x) { return 100 + 30 * std::sin(x / 40); };
    const QImage band = drawn(QSize(300, 220), [&](QPainter& p) {
        QPolygonF shape;
        for (int i = 0; i <= 520; ++i)
            shape << QPointF(20 + i * 0.5, edge(20 + i * 0.5));
        shape << QPointF(280, 200) << QPointF(20, 200);
        p.drawPolygon(shape);
    });
    const VectorTraceOutcome t = VE::trace(band, curvesOn());
    ASSERT_EQ(t.trace.curves.size(), 1);
    const CurvedContour& c = t.trace.curves.first();
    double worst = 0;
    int onTheEdge = 0;
    for (const QPointF& p : sampled(c)) {
        if (p.x() < 24 || p.x() > 276 || p.y() > 190) continue; // the sine's part of the outline
        worst = std::max(worst, std::abs(p.y() - edge(p.x())));
        ++onTheEdge;
    }
    std::printf("S-curve: %d segments in all, %.3f px from the sine at worst\n", int(c.segments.size()),
                worst);
    EXPECT_GT(onTheEdge, 100);
    EXPECT_LE(worst, 0.3);
    EXPECT_LE(c.segments.size(), 12);
}

TEST(Curves, ATinyCurvedDocumentByteForByte) {
    CurvedContour c;
    c.start = QPointF(1, 2);
    c.segments = {CurveSegment{true, QPointF(3, 0), QPointF(5.5, 0), QPointF(7, 2)},
                  CurveSegment{false, {}, {}, QPointF(7, 6)}, CurveSegment{false, {}, {}, QPointF(1, 2)}};
    VectorTrace trace;
    trace.size = QSizeF(8, 7);
    trace.contours = {Contour{QPointF(1, 2), QPointF(7, 2), QPointF(7, 6)}};
    trace.curves = {c};
    EXPECT_EQ(VE::svg(trace, VectorizeStyle::silhouette, 1),
              QStringLiteral("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                             "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"8\" height=\"7\" "
                             "viewBox=\"0 0 8 7\">\n"
                             "<path fill=\"#111111\" fill-rule=\"evenodd\" "
                             "d=\"M1 2c2-2 4.5-2 6 0l0 4z\"/>\n</svg>"));
    // A curve that closes the outline is written out before z. A second contour starts relative to
    // the first one's start; points are rounded on the absolute grid (7.04 and 7.08 both stand at
    // 7.0 and 7.1, not 0.04 further each time); a repeated command drops its letter; a fraction
    // after a fraction and a negative number need no blank.
    c.segments.removeLast();
    c.segments.append(CurveSegment{true, QPointF(4, 7), QPointF(2, 5), QPointF(1, 2)});
    CurvedContour second;
    second.start = QPointF(1.54, 2.46);
    second.segments = {CurveSegment{false, {}, {}, QPointF(3.04, 2.46)},
                       CurveSegment{false, {}, {}, QPointF(3.08, 4.96)},
                       CurveSegment{true, QPointF(2.5, 5.04), QPointF(2, 5.04), QPointF(1.54, 4.46)},
                       CurveSegment{true, QPointF(1.54, 4), QPointF(1.54, 3), QPointF(1.54, 2.46)}};
    EXPECT_EQ(VE::pathD(QList<CurvedContour>{c, second}),
              QStringLiteral("M1 2c2-2 4.5-2 6 0l0 4c-3 1-5-1-6-4zm.5.5l1.5 0 .1 2.5c-.6 0-1.1 0-1.6-.5 0-.5 "
                             "0-1.5 0-2z"));
    // The preview draws the curve: the bulge above y = 2 is filled.
    trace.curves = {c};
    const QImage preview = VE::preview(trace, VectorizeStyle::silhouette, 1);
    EXPECT_GT(qAlpha(preview.pixel(4, 1)), 128);
    trace.curves.clear();
    EXPECT_EQ(qAlpha(VE::preview(trace, VectorizeStyle::silhouette, 1).pixel(4, 1)), 0);
}

TEST(Curves, AnSvgRendererDrawsTheCompactDocumentAsThePreviewDrawsTheCurves) {
    // Rings, a star, a turned rounded box and small dots: relative numbers of every sign and size,
    // many contours.
    const QImage art = drawn(QSize(240, 160), [](QPainter& p) {
        QPainterPath rings;
        rings.setFillRule(Qt::OddEvenFill);
        for (double r : {60.0, 45.0, 30.0, 18.0})
            rings.addEllipse(QPointF(80, 80), r, r);
        p.drawPath(rings);
        QPolygonF star;
        for (int i = 0; i < 10; ++i) {
            const double a = i * std::numbers::pi / 5, r = i % 2 ? 14.0 : 34.0;
            star << QPointF(190 + r * std::sin(a), 60 - r * std::cos(a));
        }
        p.drawPolygon(star);
        p.save();
        p.translate(190, 125);
        p.rotate(23);
        p.drawRoundedRect(QRectF(-35, -15, 70, 30), 9, 9);
        p.restore();
        for (int i = 0; i < 5; ++i)
            p.drawEllipse(QPointF(150 + 9 * i, 150), 2.5 + 0.4 * i, 2.5 + 0.4 * i);
    });
    const VectorTraceOutcome t = VE::trace(art, curvesOn());
    ASSERT_EQ(t.kind, VectorTraceOutcome::Kind::traced);
    ASSERT_GE(t.trace.curves.size(), 8);
    const QImage back = renderedSvg(VE::svg(t.trace, VectorizeStyle::silhouette, 1), art.size());
    const QImage preview = VE::preview(t.trace, VectorizeStyle::silhouette, 1);
    ASSERT_EQ(preview.size(), back.size());
    // Only the antialiased rim may differ, and only by the document's 0.05 px of rounding.
    int inked = 0, apart = 0;
    for (int y = 0; y < art.height(); ++y)
        for (int x = 0; x < art.width(); ++x) {
            const int a = qAlpha(back.pixel(x, y)), b = qAlpha(preview.pixel(x, y));
            inked += a > 128;
            apart += std::abs(a - b) > 48;
        }
    EXPECT_GT(inked, 6000);
    EXPECT_LE(apart, 3);
}

TEST(Curves, ColourLayersAreCurvedToo) {
    QImage art = solid(200, 200, QColor(250, 245, 230));
    {
        QPainter p(&art);
        p.setRenderHint(QPainter::Antialiasing);
        p.setPen(Qt::NoPen);
        p.setBrush(QColor(30, 60, 140));
        p.drawEllipse(QPointF(100, 100), 60, 60);
    }
    TraceParams params;
    params.curves = true;
    const auto t = VE::traceColor(art, params);
    ASSERT_TRUE(t);
    ASSERT_EQ(t->layers.size(), 2);
    for (const VectorColorLayer& layer : t->layers)
        EXPECT_EQ(layer.curves.size(), layer.contours.size());
    const QRegularExpression curveCommand(QStringLiteral(" d=\"[^\"]*c"));
    EXPECT_TRUE(VE::colorSVG(*t).contains(curveCommand));
    EXPECT_FALSE(VE::colorSVG(*VE::traceColor(art)).contains(curveCommand));
}

TEST(Stacking, AbuttingColoursLeaveNoGapAndKeepTheirOrder) {
    // Two colours meeting along a slanted line: traced apart, antialiased rendering shows the
    // backdrop along the seam; stacked, the bottom layer runs under the top one.
    QImage art(240, 160, QImage::Format_ARGB32_Premultiplied);
    for (int y = 0; y < 160; ++y)
        for (int x = 0; x < 240; ++x)
            art.setPixel(x, y, x * 3 < 240 + y ? qRgb(200, 40, 40) : qRgb(40, 40, 200));
    const auto seamAlpha = [&](const VectorColorTrace& t) {
        const QImage back = renderedSvg(VE::colorSVG(t), art.size());
        int lowest = 255;
        for (int y = 2; y < 158; ++y)
            for (int x = 2; x < 238; ++x)
                lowest = std::min(lowest, qAlpha(back.pixel(x, y)));
        return lowest;
    };
    const auto apart = VE::traceColor(art);
    ASSERT_TRUE(apart);
    TraceParams params;
    params.stacked = true;
    const auto stacked = VE::traceColor(art, params);
    ASSERT_TRUE(stacked);
    ASSERT_EQ(stacked->layers.size(), 2);
    EXPECT_LT(seamAlpha(*apart), 250) << "apart, the seam shows through";
    EXPECT_GE(seamAlpha(*stacked), 250);
    // Same colours in the same order; the bottom layer covers the whole picture.
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(stacked->layers[i].r, apart->layers[i].r);
        EXPECT_EQ(stacked->layers[i].b, apart->layers[i].b);
    }
    EXPECT_EQ(stacked->layers.first().contours.size(), 1);
    const QRectF bottom = VE::painterPath(stacked->layers.first().contours).boundingRect();
    EXPECT_EQ(bottom, QRectF(0, 0, 240, 160));
    EXPECT_EQ(stacked->layers.last().contours, apart->layers.last().contours) << "the top layer is as it was";
    // With curves as well.
    params.curves = true;
    const auto both = VE::traceColor(art, params);
    ASSERT_TRUE(both);
    EXPECT_GE(seamAlpha(*both), 250);
}

TEST(Stacking, ALayerRunsOnlyABandUnderTheLayersAboveItAndTheBottomOneUnderAll) {
    // Orange everywhere (the bottom), a teal frame with a purple square inside it, and a second
    // purple square out in the orange. Stacked, teal runs a few pixels under the purple it touches
    // and no further: where purple's outline falls short, teal (its real neighbour) shows, never a
    // colour from elsewhere.
    QImage art(240, 160, QImage::Format_ARGB32_Premultiplied);
    art.fill(qRgb(230, 140, 30));
    {
        QPainter p(&art);
        p.fillRect(QRect(40, 30, 160, 100), QColor(20, 140, 140));
        p.fillRect(QRect(100, 60, 40, 40), QColor(120, 40, 160));
        p.fillRect(QRect(10, 10, 20, 20), QColor(120, 40, 160));
    }
    TraceParams params;
    params.stacked = true;
    const auto t = VE::traceColor(art, params);
    ASSERT_TRUE(t);
    ASSERT_EQ(t->layers.size(), 3);
    const QPainterPath bottom = VE::painterPath(t->layers[0].contours),
                       teal = VE::painterPath(t->layers[1].contours),
                       purple = VE::painterPath(t->layers[2].contours);
    EXPECT_EQ(bottom.boundingRect(), QRectF(0, 0, 240, 160));
    EXPECT_TRUE(bottom.contains(QPointF(120, 80)) && bottom.contains(QPointF(20, 20)));
    EXPECT_TRUE(teal.contains(QPointF(60, 50)));
    EXPECT_TRUE(teal.contains(QPointF(101.5, 80))) << "under purple's edge";
    EXPECT_FALSE(teal.contains(QPointF(120, 80))) << "not under the middle of purple";
    EXPECT_FALSE(teal.contains(QPointF(20, 20))) << "not under the purple it doesn't touch";
    EXPECT_TRUE(purple.contains(QPointF(120, 80)) && purple.contains(QPointF(20, 20)));
    const QImage back = renderedSvg(VE::colorSVG(*t), art.size());
    int lowest = 255;
    for (int y = 0; y < 160; ++y)
        for (int x = 0; x < 240; ++x)
            lowest = std::min(lowest, qAlpha(back.pixel(x, y)));
    EXPECT_GE(lowest, 250);
}

TEST(Curves, NoisyAndJaggedChainsEndWhereTheyStart) {
    // A random walk of 50 000 points with no corner (the fit splits and splits), and a zigzag whose
    // every point is a corner: both fitted in bounded depth and time, closed where they began.
    std::mt19937 random(11);
    std::vector<QPointF> walk{QPointF(0, 0)};
    for (int i = 1; i < 50000; ++i)
        walk.push_back(walk.back() + QPointF(double(random() % 3) - 1, double(random() % 3) - 1));
    std::vector<QPointF> zigzag;
    std::vector<int> all;
    for (int i = 0; i < 20000; ++i) {
        zigzag.push_back(QPointF(i * 0.5, (i % 2) * 8.0));
        all.push_back(i);
    }
    for (int i = 19999; i >= 0; --i)
        zigzag.push_back(QPointF(i * 0.5, 100 + (i % 2) * 8.0));
    for (const auto& [chain, candidates] :
         {std::pair{walk, std::vector<int>{}}, std::pair{zigzag, CurveFit::corners(zigzag, all)}}) {
        const CurvedContour c = CurveFit::fitClosed(chain, candidates, 0.3);
        ASSERT_FALSE(c.segments.isEmpty());
        EXPECT_LT(QLineF(c.segments.last().end, c.start).length(), 1e-9);
        for (const CurveSegment& s : c.segments)
            ASSERT_TRUE(std::isfinite(s.end.x()) && std::isfinite(s.c1.y()));
    }
}

// How much of the ink a trace rendered back at the picture's size shares with the picture's own.
double renderedIoU(const QImage& picture, const VectorTrace& trace) {
    const QImage back = renderedSvg(VE::svg(trace, VectorizeStyle::silhouette, 1), picture.size());
    qint64 both = 0, either = 0;
    for (int y = 0; y < picture.height(); ++y)
        for (int x = 0; x < picture.width(); ++x) {
            const bool ink = qGray(picture.pixel(x, y))<128, traced = qAlpha(back.pixel(x, y))> 128;
            both += ink && traced;
            either += ink || traced;
        }
    return double(both) / double(std::max<qint64>(either, 1));
}

TEST(Curves, LargeDrawingsAreTracedAsExactlyAsTheirOwnPixels) {
    // Larger than the working mask (1400 px) and the detector (1024 px): the curves follow the
    // picture's own pixels. Measured here: 0.9988 for the glyphs and 0.9996 for the silhouette
    // (0.9920 and 0.9975 when they were fitted to the detector's shrunk chain).
    QImage glyphs = solid(2400, 1100, Qt::white);
    {
        // A "B" as a type designer draws it: a stem with serifs, two bowls with their counters,
        // binary, as a scan thresholded is.
        QPainter p(&glyphs);
        QPainterPath b;
        b.setFillRule(Qt::OddEvenFill);
        b.addRect(QRectF(200, 150, 170, 800));
        b.addRect(QRectF(120, 150, 330, 60));
        b.addRect(QRectF(120, 890, 330, 60));
        b.moveTo(370, 150);
        b.arcTo(QRectF(150, 150, 520, 400), 90, -180);
        b.closeSubpath();
        b.moveTo(370, 500);
        b.arcTo(QRectF(120, 500, 640, 450), 90, -180);
        b.closeSubpath();
        QPainterPath counters;
        counters.addEllipse(QRectF(370, 230, 200, 240));
        counters.addEllipse(QRectF(370, 580, 290, 290));
        QPainterPath g;
        g.addEllipse(QRectF(1000, 250, 900, 700));
        g.addEllipse(QRectF(1200, 420, 500, 360));
        g.addRect(QRectF(1800, 150, 300, 90));
        p.setPen(Qt::NoPen);
        p.setBrush(Qt::black);
        p.drawPath(b.united(QPainterPath()).subtracted(counters));
        p.drawPath(g);
    }
    const VectorTraceOutcome text = VE::trace(glyphs, curvesOn());
    ASSERT_EQ(text.kind, VectorTraceOutcome::Kind::traced);
    const double glyphIoU = renderedIoU(glyphs, text.trace);
    EXPECT_GE(glyphIoU, 0.998);

    QImage animal = solid(3000, 2000, Qt::white);
    {
        QPainter p(&animal);
        p.setPen(Qt::NoPen);
        p.setBrush(Qt::black);
        QPainterPath body(QPointF(600, 1200));
        body.cubicTo(QPointF(700, 500), QPointF(1900, 400), QPointF(2300, 900));
        body.cubicTo(QPointF(2700, 700), QPointF(2850, 1000), QPointF(2500, 1150));
        body.cubicTo(QPointF(2300, 1700), QPointF(1100, 1800), QPointF(600, 1200));
        p.drawPath(body);
        p.drawEllipse(QPointF(500, 900), 260, 220);
        for (int leg = 0; leg < 4; ++leg)
            p.drawRoundedRect(QRectF(900 + leg * 380, 1350, 110, 520), 50, 50);
    }
    const VectorTraceOutcome silhouette = VE::trace(animal, curvesOn());
    ASSERT_EQ(silhouette.kind, VectorTraceOutcome::Kind::traced);
    const double animalIoU = renderedIoU(animal, silhouette.trace);
    EXPECT_GE(animalIoU, 0.999);
    // The polygons of the same trace stay what they were: the curves alone changed.
    EXPECT_EQ(VE::trace(animal).trace.contours, silhouette.trace.contours);
}
