// Touch-ups of a cutout by hand: their text, where their points land after a turn, and exactly
// which pixels each one changes.
#include "TestSupport.h"

#include "engines/CropEngine.h"
#include "engines/MaskEdits.h"

#include <QPainter>

#include <gtest/gtest.h>

#include <cmath>

using namespace cutlark;
using namespace cutlark::test;

namespace {

MaskEdit brush(MaskEdit::Kind kind, double size, double softness, QList<QPointF> points) {
    MaskEdit e;
    e.kind = kind;
    e.size = size;
    e.softness = softness;
    e.points = std::move(points);
    return e;
}

} // namespace

TEST(MaskEdits, TextRoundTripsAndRefusesWhatIsntAnEdit) {
    const MaskEdits edits{brush(MaskEdit::Kind::erase, 0.05, 0.25, {{0.1, 0.2}, {0.15, 0.25}}),
                          brush(MaskEdit::Kind::restore, 0.002, 1, {{-0.5, 1.5}}),
                          MaskEdit{MaskEdit::Kind::dropIsland, 0.04, 0.5, {{0.3, 0.4}}}};
    const QString text = MaskEditing::toText(edits);
    EXPECT_EQ(text,
              QStringLiteral("erase 0.05 0.25 0.1,0.2 0.15,0.25; restore 0.002 1 -0.5,1.5; drop 0.3,0.4"));
    EXPECT_EQ(MaskEditing::fromText(text), edits);
    EXPECT_EQ(MaskEditing::fromText(QString()), MaskEdits());
    for (const char* bad : {"erase", "erase 0.05 0.5", "erase 0 0.5 0.1,0.1", "erase 0.05 1.5 0.1,0.1",
                            "paint 0.05 0.5 0.1,0.1", "drop 0.1,0.1 0.2,0.2", "drop 3,0.1",
                            "erase 0.05 0.5 0.1;", "restore 0.05 0.5 0.1,nan"})
        EXPECT_FALSE(MaskEditing::fromText(QLatin1String(bad))) << bad;
}

TEST(MaskEdits, PointsFollowEveryTurnAndMirrorAsThePixelsDo) {
    // A 5 × 3 picture with one marked pixel: after each of the eight orientations the marked pixel
    // sits where fromSource says, and toSource brings it back.
    QImage s(5, 3, QImage::Format_RGBA8888_Premultiplied);
    s.fill(Qt::black);
    s.setPixel(1, 0, qRgba(255, 255, 255, 255));
    const QPointF centre((1 + 0.5) / 5, (0 + 0.5) / 3);
    for (bool mirrored : {false, true})
        for (int turns = 0; turns < 4; ++turns) {
            const QImage o = *CropEngine::oriented(s, turns, mirrored);
            const QPointF p = MaskEditing::fromSource(centre, turns, mirrored);
            const int x = int(std::floor(p.x() * o.width())), y = int(std::floor(p.y() * o.height()));
            EXPECT_EQ(qRed(o.pixel(x, y)), 255) << turns << " turns, mirrored " << mirrored;
            const QPointF back = MaskEditing::toSource(p, turns, mirrored);
            EXPECT_NEAR(back.x(), centre.x(), 1e-12);
            EXPECT_NEAR(back.y(), centre.y(), 1e-12);
        }
}

TEST(MaskEdits, EraseAndRestoreChangeExactlyThePixelsUnderTheBrush) {
    const QImage src = coordinates(200, 100);
    const QImage cut = src.copy();
    EXPECT_EQ(MaskEditing::apply(cut, src, {}).cacheKey(), cut.cacheKey()) << "no edits: the cutout itself";

    // A hard brush 20 px across (0.1 of the longer side) along y = 50 from x = 50 to 150.
    const MaskEdit erase = brush(MaskEdit::Kind::erase, 0.1, 0, {{0.25, 0.5}, {0.75, 0.5}});
    const QImage erased = MaskEditing::apply(cut, src, {erase});
    int inside = 0, outside = 0, changedFar = 0;
    for (int y = 0; y < 100; ++y)
        for (int x = 0; x < 200; ++x) {
            const double dx = std::max({50.0 - (x + 0.5), 0.0, (x + 0.5) - 150.0});
            const double d = std::hypot(dx, (y + 0.5) - 50.0); // from the stroke's path
            const QRgb now = erased.pixel(x, y);
            if (d < 8.5) inside += qAlpha(now) == 0 ? 0 : 1; // the path runs through pixel centres
            if (d > 11) changedFar += now == cut.pixel(x, y) ? 0 : 1;
            if (d > 11) ++outside;
        }
    EXPECT_EQ(inside, 0) << "the brush's inside is erased";
    EXPECT_EQ(changedFar, 0) << "nothing beyond its rim changes";
    EXPECT_GT(outside, 15000);

    // Restoring over the middle of the erased stroke brings the source's own bytes back there.
    const MaskEdit restore = brush(MaskEdit::Kind::restore, 0.06, 0, {{0.5, 0.5}});
    const QImage restored = MaskEditing::apply(cut, src, {erase, restore});
    for (int x = 95; x < 105; ++x)
        EXPECT_EQ(restored.pixel(x, 50), src.pixel(x, 50)) << x;
    EXPECT_EQ(qAlpha(restored.pixel(70, 50)), 0) << "the rest of the stroke stays erased";

    // A soft brush fades: the centre goes, the rim only partly.
    const QImage soft = MaskEditing::apply(cut, src, {brush(MaskEdit::Kind::erase, 0.2, 1, {{0.5, 0.5}})});
    EXPECT_LT(qAlpha(soft.pixel(100, 50)), 40);
    const int rim = qAlpha(soft.pixel(100, 50 + 14));
    EXPECT_GT(rim, 60);
    EXPECT_LT(rim, 255);
}

TEST(MaskEdits, ADroppedIslandGoesWholeWithItsRimAndNothingElse) {
    const QImage src = coordinates(120, 80);
    // Two opaque discs with soft rims on nothing.
    QImage cut(120, 80, QImage::Format_RGBA8888_Premultiplied);
    cut.fill(Qt::transparent);
    {
        QPainter p(&cut);
        p.setRenderHint(QPainter::Antialiasing);
        p.setPen(Qt::NoPen);
        p.setBrush(QColor(200, 100, 50));
        p.drawEllipse(QPointF(30, 40), 15, 15);
        p.drawEllipse(QPointF(90, 40), 10, 10);
    }
    const MaskEdit drop{MaskEdit::Kind::dropIsland, 0.04, 0.5, {{90.0 / 120, 40.0 / 80}}};
    const QImage out = MaskEditing::apply(cut, src, {drop});
    int left = 0, right = 0;
    for (int y = 0; y < 80; ++y)
        for (int x = 0; x < 120; ++x) {
            if (x < 60) left += out.pixel(x, y) == cut.pixel(x, y) ? 0 : 1;
            if (x >= 60) right += qAlpha(out.pixel(x, y)) == 0 ? 0 : 1;
        }
    EXPECT_EQ(left, 0) << "the other island stays byte for byte";
    EXPECT_EQ(right, 0) << "the island and its soft rim are gone";
    // A click beside the islands drops nothing.
    const MaskEdit miss{MaskEdit::Kind::dropIsland, 0.04, 0.5, {{0.5, 0.05}}};
    EXPECT_TRUE(MaskEditing::apply(cut, src, {miss}) == cut);
}
