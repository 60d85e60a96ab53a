#include "engines/MaskEdits.h"

#include "engines/PixelOps.h"

#include <QStringList>

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>
#include <vector>

namespace cutlark::MaskEditing {

namespace {

using namespace PixelOps;

constexpr int kOpaque = 128;  // an island is what stays above half coverage…
constexpr int kRimWidth = 24; // …with the faint rim that fades out from it (the widest edge is ~20 px)

const char* kindName(MaskEdit::Kind kind) {
    switch (kind) {
    case MaskEdit::Kind::erase:
        return "erase";
    case MaskEdit::Kind::restore:
        return "restore";
    case MaskEdit::Kind::dropIsland:
        return "drop";
    }
    return "erase";
}

bool number(const QString& text, double lo, double hi, double& out) {
    bool ok = false;
    out = text.toDouble(&ok);
    return ok && std::isfinite(out) && out >= lo && out <= hi;
}

bool point(const QString& text, QPointF& out) {
    const QStringList xy = text.split(QLatin1Char(','));
    double x = 0, y = 0;
    if (xy.size() != 2 || !number(xy[0], -1, 2, x) || !number(xy[1], -1, 2, y)) return false;
    out = QPointF(x, y);
    return true;
}

// Radius and hard core of a brush in pixels of a w × h picture.
struct Brush {
    double radius;
    double core;
};
Brush brushOf(const MaskEdit& edit, int w, int h) {
    const double radius = std::max(0.5, edit.size * std::max(w, h) / 2);
    return {radius, radius * (1 - std::clamp(edit.softness, 0.0, 1.0))};
}

// Drops the island under `at`: the region above half coverage that holds it, with the faint rim
// that fades out from it. Nothing when the point isn't on the mask.
void dropIsland(QImage& out, const QPointF& at) {
    const int w = out.width(), h = out.height();
    const int px = int(std::floor(at.x() * w)), py = int(std::floor(at.y() * h));
    if (px < 0 || py < 0 || px >= w || py >= h) return;
    cv::Mat alpha(h, w, CV_8U);
    for (int y = 0; y < h; ++y) {
        const uchar* s = out.constScanLine(y);
        uchar* a = alpha.ptr<uchar>(y);
        for (int x = 0; x < w; ++x)
            a[x] = s[4 * x + 3];
    }
    if (alpha.at<uchar>(py, px) < kOpaque) return;
    // The island: flood its opaque part, then let it take the rim that fades out from it (the
    // faint pixels reached from it without passing through another opaque region).
    cv::Mat island = cv::Mat::zeros(h + 2, w + 2, CV_8U);
    cv::Mat opaque = alpha >= kOpaque;
    cv::floodFill(opaque, island, cv::Point(px, py), 0, nullptr, 0, 0,
                  4 | cv::FLOODFILL_MASK_ONLY | (255 << 8));
    cv::Mat core = island(cv::Rect(1, 1, w, h)).clone();
    cv::Mat faint = (alpha > 0) & (alpha < kOpaque);
    cv::Mat grown = core.clone(), next;
    for (int i = 0; i < kRimWidth; ++i) { // the rim is a few pixels wide; stop when it stops growing
        cv::dilate(grown, next, cv::Mat());
        next &= (faint | core);
        if (cv::countNonZero(next != grown) == 0) break;
        grown = next;
    }
    for (int y = 0; y < h; ++y) {
        const uchar* g = grown.ptr<uchar>(y);
        uchar* d = out.scanLine(y);
        for (int x = 0; x < w; ++x)
            if (g[x]) std::fill_n(d + 4 * x, 4, uchar(0));
    }
}

} // namespace

QString toText(const MaskEdits& edits) {
    QStringList parts;
    for (const MaskEdit& e : edits) {
        QStringList words{QLatin1String(kindName(e.kind))};
        if (e.kind != MaskEdit::Kind::dropIsland)
            words << QString::number(e.size) << QString::number(e.softness);
        for (const QPointF& p : e.points)
            words << QString::number(p.x()) + QLatin1Char(',') + QString::number(p.y());
        parts << words.join(QLatin1Char(' '));
    }
    return parts.join(QStringLiteral("; "));
}

std::optional<MaskEdits> fromText(const QString& text) {
    MaskEdits edits;
    if (text.trimmed().isEmpty()) return edits;
    const QStringList parts = text.split(QLatin1Char(';'));
    for (const QString& part : parts) {
        const QStringList words = part.simplified().split(QLatin1Char(' '), Qt::SkipEmptyParts);
        if (words.isEmpty()) return std::nullopt;
        MaskEdit e;
        qsizetype first = 1;
        if (words[0] == QLatin1String("drop")) {
            e.kind = MaskEdit::Kind::dropIsland;
        } else if (words[0] == QLatin1String("erase") || words[0] == QLatin1String("restore")) {
            e.kind = words[0] == QLatin1String("erase") ? MaskEdit::Kind::erase : MaskEdit::Kind::restore;
            if (words.size() < 3 || !number(words[1], kSmallestSize, kLargestSize, e.size) ||
                !number(words[2], 0, 1, e.softness))
                return std::nullopt;
            first = 3;
        } else {
            return std::nullopt;
        }
        for (qsizetype i = first; i < words.size(); ++i) {
            QPointF p;
            if (!point(words[i], p)) return std::nullopt;
            e.points << p;
        }
        if (e.points.isEmpty() || (e.kind == MaskEdit::Kind::dropIsland && e.points.size() != 1))
            return std::nullopt;
        edits << e;
    }
    return edits;
}

QPointF fromSource(const QPointF& s, int quarterTurns, bool mirrored) {
    QPointF p = mirrored ? QPointF(1 - s.x(), s.y()) : s;
    for (int i = 0; i < ((quarterTurns % 4) + 4) % 4; ++i)
        p = QPointF(1 - p.y(), p.x()); // a quarter turn clockwise
    return p;
}

QPointF toSource(const QPointF& o, int quarterTurns, bool mirrored) {
    QPointF p = o;
    for (int i = 0; i < ((quarterTurns % 4) + 4) % 4; ++i)
        p = QPointF(p.y(), 1 - p.x()); // a quarter turn back
    return mirrored ? QPointF(1 - p.x(), p.y()) : p;
}

QRect paintBrush(QImage& into, const MaskEdit& edit) {
    const int w = into.width(), h = into.height();
    if (edit.points.isEmpty() || w < 1 || h < 1) return QRect();
    const Brush b = brushOf(edit, w, h);
    double left = edit.points[0].x() * w, right = left, top = edit.points[0].y() * h, bottom = top;
    for (const QPointF& p : edit.points) {
        left = std::min(left, p.x() * w);
        right = std::max(right, p.x() * w);
        top = std::min(top, p.y() * h);
        bottom = std::max(bottom, p.y() * h);
    }
    const double m = b.radius + 2;
    const QRect box = QRectF(QPointF(left - m, top - m), QPointF(right + m, bottom + m))
                          .toAlignedRect()
                          .intersected(QRect(0, 0, w, h));
    if (box.isEmpty()) return QRect();
    // The distance of each pixel of the box from the stroke's path (drawn one pixel wide through
    // the pixels' centres), then the brush's profile on it: solid within the core, a smooth fall to
    // nothing at the rim, and at least one pixel of fall so that a hard brush is smooth too.
    cv::Mat path(box.height(), box.width(), CV_8U, cv::Scalar(255));
    std::vector<cv::Point> points;
    for (const QPointF& p : edit.points)
        points.emplace_back(int(std::floor(p.x() * w)) - box.left(), int(std::floor(p.y() * h)) - box.top());
    for (size_t i = 1; i < points.size(); ++i)
        cv::line(path, points[i - 1], points[i], cv::Scalar(0), 1, cv::LINE_8);
    for (const cv::Point& p : points) // a point outside the box still counts where it clips
        if (p.x >= 0 && p.y >= 0 && p.x < path.cols && p.y < path.rows) path.at<uchar>(p) = 0;
    cv::Mat distance;
    cv::distanceTransform(path, distance, cv::DIST_L2, cv::DIST_MASK_PRECISE);
    const double core = std::min(b.core, b.radius - 1);
    const double fall = b.radius - core;
    for (int y = 0; y < box.height(); ++y) {
        const float* d = distance.ptr<float>(y);
        uchar* out = into.scanLine(box.top() + y) + box.left();
        for (int x = 0; x < box.width(); ++x) {
            const double t = std::clamp((b.radius - d[x]) / fall, 0.0, 1.0);
            const uchar v = uchar(std::lround(255 * t * t * (3 - 2 * t))); // smoothstep
            out[x] = std::max(out[x], v);
        }
    }
    return box;
}

void blendBox(QImage& out, const QImage& base, const QImage& source, const QImage& cover, const QRect& box,
              MaskEdit::Kind kind) {
    const QRect r = box.intersected(out.rect());
    const bool erase = kind == MaskEdit::Kind::erase;
    for (int y = r.top(); y <= r.bottom() && !r.isEmpty(); ++y) {
        const uchar* c = cover.constScanLine(y);
        const uchar* s = source.constScanLine(y);
        const uchar* b = base.constScanLine(y);
        uchar* d = out.scanLine(y);
        for (int x = r.left(); x <= r.right(); ++x) {
            const int a = c[x];
            for (int k = 4 * x; k < 4 * x + 4; ++k) {
                // Restore moves towards the source's own pixel (the cutout's edge colours may lie
                // on either side of it), Erase towards nothing.
                const int target = erase ? 0 : s[k];
                const int diff = (target - b[k]) * a;
                d[k] = uchar(b[k] + (diff >= 0 ? (diff + 127) / 255 : -((-diff + 127) / 255)));
            }
        }
    }
}

QImage apply(const QImage& cutout, const QImage& source, const MaskEdits& edits) {
    if (edits.isEmpty() || cutout.isNull()) return cutout;
    QImage out = rgbaPixels(cutout).copy();
    const QImage src = rgbaPixels(source);
    if (out.isNull() || src.size() != out.size()) return out.isNull() ? QImage() : out;
    const int w = out.width(), h = out.height();
    QImage cover;
    for (const MaskEdit& e : edits) {
        if (e.kind == MaskEdit::Kind::dropIsland) {
            dropIsland(out, e.points.value(0));
            continue;
        }
        if (cover.isNull()) {
            cover = QImage(w, h, QImage::Format_Grayscale8);
            if (cover.isNull()) return QImage();
            cover.fill(0);
        }
        // Only the brush's box is read and cleared again, so a stroke costs what it covers.
        const QRect box = paintBrush(cover, e);
        blendBox(out, out, src, cover, box, e.kind);
        for (int y = box.top(); y <= box.bottom() && !box.isEmpty(); ++y)
            std::fill_n(cover.scanLine(y) + box.left(), box.width(), uchar(0));
    }
    return out;
}

} // namespace cutlark::MaskEditing
