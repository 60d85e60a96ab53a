// The silhouette trace: mask, busyness, contours, straightening.
#include "vectorize/VectorizeEngine.h"

#include "engines/PixelOps.h"
#include "vectorize/CurveFit.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>

namespace cutlark::VectorizeEngine {

namespace {

using namespace PixelOps;

int roundedSide(double v) {
    return std::max(1, int(std::round(v)));
}

// Brings an RGBA (or grey) picture to the target size: whole-factor area averaging first, which is
// cheap and alias-free, then a bilinear step for the rest.
cv::Mat reduced(const cv::Mat& source, cv::Size target) {
    if (source.size() == target) return source;
    const int k = std::min(source.cols / target.width, source.rows / target.height);
    cv::Mat from = source;
    if (k >= 2) {
        const cv::Size whole(source.cols / k, source.rows / k);
        cv::resize(source(cv::Rect(0, 0, whole.width * k, whole.height * k)), from, whole, 0, 0,
                   cv::INTER_AREA);
    }
    if (from.size() == target) return from;
    cv::Mat out;
    cv::resize(from, out, target, 0, 0, cv::INTER_LINEAR);
    return out;
}

// Unequal neighbour pairs, across then down.
qint64 transitions(const uchar* m, int w, int h) {
    qint64 count = 0;
    for (int y = 0; y < h; ++y) {
        const uchar* r = m + qsizetype(y) * w;
        for (int x = 1; x < w; ++x)
            count += r[x] != r[x - 1];
    }
    for (int y = 1; y < h; ++y) {
        const uchar* r = m + qsizetype(y) * w;
        const uchar* above = r - w;
        for (int x = 0; x < w; ++x)
            count += r[x] != above[x];
    }
    return count;
}

// The contour of boundary pixel centres moved half a pixel towards the background, so that it runs
// along the pixel edges: without this every shape would come out a pixel too thin. The background
// lies on the left of the direction of travel for outer boundaries and holes alike.
std::vector<cv::Point2d> onPixelEdges(const std::vector<cv::Point>& chain) {
    const size_t n = chain.size();
    std::vector<cv::Point2d> out(n);
    const cv::Point2d centre(0.5, 0.5); // pixel (i, j) covers [i, i + 1] × [j, j + 1]
    for (size_t i = 0; i < n; ++i) {
        const cv::Point2d prev = cv::Point2d(chain[(i + n - 1) % n]) + centre,
                          cur = cv::Point2d(chain[i]) + centre,
                          next = cv::Point2d(chain[(i + 1) % n]) + centre;
        auto normal = [](cv::Point2d d) {
            const double len = std::hypot(d.x, d.y);
            return len > 0 ? cv::Point2d(-d.y / len, d.x / len) : cv::Point2d(0, 0);
        };
        const cv::Point2d n1 = normal(cur - prev), n2 = normal(next - cur);
        cv::Point2d sum = n1 + n2;
        const double len = std::hypot(sum.x, sum.y);
        if (len < 1e-9) {
            // A spike (the chain turns back on itself): push straight out along the spike's side.
            sum = n1.x != 0 || n1.y != 0 ? n1 : n2;
            out[i] = cur + sum * 0.5;
            continue;
        }
        const cv::Point2d dir = sum / len;
        // Miter: half a pixel off each edge, at most a pixel from the centre.
        const double cosHalf = std::max(dir.x * n1.x + dir.y * n1.y, 0.5);
        out[i] = cur + dir * (0.5 / cosHalf);
    }
    return out;
}

// Kept inside the picture: edges along its border stay on it.
std::vector<cv::Point2f> clamped(const std::vector<cv::Point2d>& chain, double maxX, double maxY) {
    std::vector<cv::Point2f> out;
    out.reserve(chain.size());
    for (const cv::Point2d& p : chain)
        out.emplace_back(float(std::clamp(p.x, 0.0, maxX)), float(std::clamp(p.y, 0.0, maxY)));
    return out;
}

// Where the pixel boundary runs on average, for curves: the midpoints of the edges between the
// foreground pixels and the background ones lie, along a run at angle θ, 0.5 / (|cos θ| + |sin θ|)
// off the boundary pixels' centres — half a pixel on a level run but only 0.35 on a diagonal, where
// the miter of `onPixelEdges` (drawn for polygons, which need the full half pixel at their corners)
// would stand 0.15 pixel too far out. Each centre moves that far along the normal of the chain's
// direction over two pixels either side, never looking past a corner; the corners themselves keep
// their miter points.
std::vector<QPointF> onEdgeMidlines(const std::vector<cv::Point>& chain,
                                    const std::vector<cv::Point2f>& mitred, const std::vector<int>& corners,
                                    double maxX, double maxY) {
    const int n = int(chain.size());
    // Steps from each point back to the last corner and on to the next (2 at most matters).
    std::vector<int> back(static_cast<size_t>(n), 2), ahead(static_cast<size_t>(n), 2);
    for (int c : corners)
        for (int d = 0; d <= 2; ++d) {
            int& b = back[size_t((c + d) % n)];
            b = std::min(b, d);
            int& a = ahead[size_t(((c - d) % n + n) % n)];
            a = std::min(a, d);
        }
    std::vector<QPointF> out(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i) {
        const cv::Point a = chain[size_t((i - back[size_t(i)] + n) % n)],
                        b = chain[size_t((i + ahead[size_t(i)]) % n)];
        double dx = b.x - a.x, dy = b.y - a.y;
        const double len = std::hypot(dx, dy);
        if (len < 1e-9) { // a corner, or a chain too short to have a direction
            out[size_t(i)] = QPointF(double(mitred[size_t(i)].x), double(mitred[size_t(i)].y));
            continue;
        }
        dx /= len, dy /= len;
        const double offset = 0.5 / (std::abs(dx) + std::abs(dy));
        const cv::Point c = chain[size_t(i)];
        out[size_t(i)] = QPointF(std::clamp(c.x + 0.5 - dy * offset, 0.0, maxX),
                                 std::clamp(c.y + 0.5 + dx * offset, 0.0, maxY));
    }
    return out;
}

// The chain fitted with curves, its corners found among the polygon's vertices, scaled to pixels of
// the source.
CurvedContour curved(const std::vector<cv::Point>& raw, const std::vector<cv::Point2f>& points,
                     const std::vector<cv::Point2f>& vertices, double maxX, double maxY, double sx, double sy,
                     double tolerance = kCurveTolerance) {
    std::vector<QPointF> chain;
    chain.reserve(points.size());
    for (const cv::Point2f& p : points)
        chain.emplace_back(double(p.x), double(p.y));
    // The polygon's vertices are points of the chain, in its order (from wherever it starts).
    std::vector<int> candidates;
    const size_t n = points.size();
    size_t at = 0;
    for (const cv::Point2f& v : vertices) {
        for (size_t k = 0; k < n; ++k) {
            const size_t i = (at + k) % n;
            if (points[i] == v) {
                candidates.push_back(int(i));
                at = i;
                break;
            }
        }
    }
    std::sort(candidates.begin(), candidates.end());
    candidates.erase(std::unique(candidates.begin(), candidates.end()), candidates.end());
    const std::vector<int> corners = CurveFit::corners(chain, candidates);
    CurvedContour c =
        CurveFit::fitClosed(onEdgeMidlines(raw, points, corners, maxX, maxY), corners, tolerance);
    const auto scaled = [&](QPointF p) { return QPointF(p.x() * sx, p.y() * sy); };
    c.start = scaled(c.start);
    for (CurveSegment& s : c.segments) {
        s.c1 = scaled(s.c1);
        s.c2 = scaled(s.c2);
        s.end = scaled(s.end);
    }
    return c;
}

double polygonArea(const Contour& c) {
    double sum = 0;
    const qsizetype n = c.size();
    for (qsizetype i = 0; i < n; ++i) {
        const QPointF& p = c[(i + n - 1) % n];
        const QPointF& q = c[i];
        sum += (p.x() + q.x()) * (p.y() - q.y());
    }
    return std::abs(sum) * 0.5;
}

} // namespace

std::optional<BinaryMask> binaryMask(const QImage& image) {
    return binaryMask(image, 1400);
}

std::optional<BinaryMask> binaryMask(const QImage& image, int longestSide) {
    const int W = image.width(), H = image.height();
    if (W < 1 || H < 1) return std::nullopt;
    const QImage src = rgbaPixels(image);
    if (src.isNull()) return std::nullopt;
    const double L = std::max(W, H);
    const double scale = L <= longestSide ? 1.0 : longestSide / L;
    const int w = roundedSide(W * scale), h = roundedSide(H * scale);
    cv::Mat drawn;
    try {
        const cv::Mat full(H, W, CV_8UC4, const_cast<uchar*>(src.constBits()), size_t(src.bytesPerLine()));
        drawn = reduced(full, cv::Size(w, h));
    } catch (const cv::Exception&) {
        return std::nullopt;
    }

    // One mode for the whole picture: alpha as soon as any pixel is below 250, darkness otherwise.
    bool alphaMode = false;
    for (int y = 0; y < h && !alphaMode; ++y) {
        const uint32_t* r = drawn.ptr<uint32_t>(y);
        for (int x = 0; x < w; ++x)
            if (alpha(r[x]) < 250) {
                alphaMode = true;
                break;
            }
    }
    QImage mask(w, h, QImage::Format_Grayscale8);
    if (mask.isNull()) return std::nullopt;
    for (int y = 0; y < h; ++y) {
        const uint32_t* r = drawn.ptr<uint32_t>(y);
        uchar* m = mask.scanLine(y);
        for (int x = 0; x < w; ++x) {
            const uint32_t v = r[x];
            const uint32_t value =
                alphaMode ? alpha(v) : 255 - (299 * red(v) + 587 * green(v) + 114 * blue(v)) / 1000;
            m[x] = value >= 129 ? 0 : 255; // 129, not 128: alpha 128 is background
        }
    }
    // Grayscale8 rows are padded to 4 bytes; count on a tight copy.
    std::vector<uchar> tight(size_t(w) * size_t(h));
    for (int y = 0; y < h; ++y)
        std::memcpy(tight.data() + size_t(y) * size_t(w), mask.constScanLine(y), size_t(w));
    const double busyness = double(transitions(tight.data(), w, h)) / (double(w) * double(h));
    return BinaryMask{mask, busyness};
}

double epsilonFor(double smoothing) {
    if (smoothing >= 100) return 0.025;
    return std::max(smoothing, 0.0) / 100 * 0.024 + 0.001; // NaN counts as 0
}

namespace {

// A chain on a w × h raster as the points along its pixel edges, the polygon approximating them at
// `epsilon`, and that polygon scaled to the source by sx, sy; absent when it has under 3 vertices.
struct ChainPolygon {
    std::vector<cv::Point2f> points;
    std::vector<cv::Point2f> approx;
    Contour scaled;
};
std::optional<ChainPolygon> chainPolygon(const std::vector<cv::Point>& chain, int w, int h, double epsilon,
                                         double sx, double sy) {
    if (chain.size() < 2) return std::nullopt;
    ChainPolygon p;
    // The approximation works on 32-bit floats, like the detector's normalised points.
    p.points = clamped(onPixelEdges(chain), w, h);
    try {
        cv::approxPolyDP(p.points, p.approx, epsilon, true);
    } catch (const cv::Exception&) {
        p.approx = p.points; // the raw contour stands in for a failed approximation
    }
    if (p.approx.size() < 3) return std::nullopt;
    p.scaled.reserve(qsizetype(p.approx.size()));
    for (const cv::Point2f& v : p.approx)
        p.scaled.append(QPointF(double(v.x) * sx, double(v.y) * sy));
    return p;
}

// The curves of every chain of `foreground` (the mask at its own size, mw × mh), scaled to the
// source: corners found among the vertices of each chain's polygon at `epsilon`, chains whose
// polygon holds less than `floor` source pixels left out, as the polygons are.
QList<CurvedContour> curvesAtFullSize(const cv::Mat& foreground, double epsilon, double floor, int fullW,
                                      int fullH) {
    QList<CurvedContour> out;
    std::vector<std::vector<cv::Point>> chains;
    try {
        cv::findContours(foreground, chains, cv::RETR_LIST, cv::CHAIN_APPROX_NONE);
    } catch (const cv::Exception&) {
        return out;
    }
    const int mw = foreground.cols, mh = foreground.rows;
    const double sx = double(fullW) / mw, sy = double(fullH) / mh;
    // A third of a pixel up to 2048 pixels a side; beyond, the same share of the picture, so that a
    // 12-megapixel silhouette isn't followed into every step of its staircase edges.
    const double tolerance = kCurveTolerance * std::max(1.0, std::max(mw, mh) / 2048.0);
    for (const auto& chain : chains) {
        const auto p = chainPolygon(chain, mw, mh, epsilon, sx, sy);
        if (!p || polygonArea(p->scaled) < floor) continue;
        out.append(curved(chain, p->points, p->approx, mw, mh, sx, sy, tolerance));
    }
    return out;
}

} // namespace

QList<Contour> contours(const QImage& mask, int fullW, int fullH, double smoothing, double minAreaFrac,
                        QList<CurvedContour>* curves, const QImage& curveMask) {
    QList<Contour> out;
    if (mask.isNull() || fullW < 1 || fullH < 1) return out;
    const QImage grey =
        mask.format() == QImage::Format_Grayscale8 ? mask : mask.convertToFormat(QImage::Format_Grayscale8);
    const int mw = grey.width(), mh = grey.height();
    // The detector looks at the mask brought to at most 1024 on its long side.
    const double detectorScale = std::min(1.0, 1024.0 / std::max(mw, mh));
    const int dw = roundedSide(mw * detectorScale), dh = roundedSide(mh * detectorScale);
    std::vector<std::vector<cv::Point>> chains;
    cv::Mat wholeForeground; // the mask at its own size, for curves, when the detector shrinks it
    try {
        const cv::Mat m(mh, mw, CV_8U, const_cast<uchar*>(grey.constBits()), size_t(grey.bytesPerLine()));
        cv::Mat foreground;
        cv::threshold(m, foreground, 127, 255, cv::THRESH_BINARY_INV); // dark on light: 0 is foreground
        if (curves && !curveMask.isNull() && curveMask.format() == QImage::Format_Grayscale8) {
            const cv::Mat fine(curveMask.height(), curveMask.width(), CV_8U,
                               const_cast<uchar*>(curveMask.constBits()), size_t(curveMask.bytesPerLine()));
            cv::threshold(fine, wholeForeground, 127, 255, cv::THRESH_BINARY_INV);
        }
        if (dw != mw || dh != mh) {
            if (curves && wholeForeground.empty()) wholeForeground = foreground.clone();
            cv::Mat scaled;
            cv::resize(foreground, scaled, cv::Size(dw, dh), 0, 0, cv::INTER_LINEAR);
            cv::threshold(scaled, foreground, 127, 255, cv::THRESH_BINARY);
        }
        cv::findContours(foreground, chains, cv::RETR_LIST, cv::CHAIN_APPROX_NONE);
    } catch (const cv::Exception&) {
        return out;
    }

    // Normalised units to detector pixels; never below the height of a pixel step, so that a staircase
    // reads as the line it stands for.
    const double epsilon = std::max(epsilonFor(smoothing) * std::max(dw, dh), 0.75);
    const double M = std::max(fullW, fullH);
    const double tolerance = M / std::min(M, 1024.0) * 1.2;
    const double floor = minAreaFrac * double(fullW) * double(fullH);
    const double sx = double(fullW) / dw, sy = double(fullH) / dh;
    for (const auto& chain : chains) {
        auto p = chainPolygon(chain, dw, dh, epsilon, sx, sy);
        if (!p) continue;
        Contour c = straighten(std::move(p->scaled), tolerance);
        if (c.size() < 3) continue;
        if (polygonArea(c) < floor) continue; // holes are judged by themselves, like outlines
        out.append(std::move(c));
        if (curves && wholeForeground.empty())
            curves->append(curved(chain, p->points, p->approx, dw, dh, sx, sy));
    }
    // Curves follow the mask at its own size: fitted to the detector's shrunk chain, a large
    // glyph's edges would only be as exact as that raster's pixels, a pixel or two of the source.
    if (curves && !wholeForeground.empty())
        curves->append(
            curvesAtFullSize(wholeForeground, epsilon * wholeForeground.cols / dw, floor, fullW, fullH));
    return out;
}

Contour straighten(Contour c, double tol) {
    if (c.size() < 4 || !(tol > 0)) return c;
    bool deleted = true;
    while (deleted && c.size() >= 4) {
        deleted = false;
        qsizetype i = 0;
        while (i < c.size() && c.size() > 3) {
            const qsizetype n = c.size();
            const QPointF prev = c[(i - 1 + n) % n], cur = c[i], next = c[i + 1 == n ? 0 : i + 1];
            const double dx = next.x() - prev.x(), dy = next.y() - prev.y();
            const double len = std::hypot(dx, dy);
            // Distance from the infinite line through the neighbours, not from the segment.
            const double d =
                len < 1e-9
                    ? std::hypot(cur.x() - prev.x(), cur.y() - prev.y())
                    : std::abs(prev.y() * next.x() + (cur.x() * dy - cur.y() * dx) - prev.x() * next.y()) /
                          len;
            if (d < tol) {
                c.removeAt(i);
                deleted = true;
            } else {
                ++i;
            }
        }
    }
    return c;
}

VectorTraceOutcome trace(const QImage& image, const TraceParams& params) {
    const double smoothing = params.smoothing;
    const bool curves = params.curves;
    VectorTraceOutcome outcome;
    const int W = image.width(), H = image.height();
    if (W < 1 || H < 1) return outcome;
    const auto mask = binaryMask(image);
    if (!mask) return outcome;
    if (mask->busyness > 0.06) {
        outcome.kind = VectorTraceOutcome::Kind::tooDetailed;
        return outcome;
    }
    QList<CurvedContour> fitted;
    // Curves of a picture larger than the working mask follow a mask at the picture's own size.
    QImage fine;
    if (curves && mask->mask.size() != QSize(W, H))
        if (const auto whole = binaryMask(image, std::max(W, H))) fine = whole->mask;
    QList<Contour> found = contours(mask->mask, W, H, smoothing, 0.0004, curves ? &fitted : nullptr, fine);
    if (found.isEmpty()) return outcome;
    outcome.kind = VectorTraceOutcome::Kind::traced;
    outcome.trace = VectorTrace{std::move(found), QSizeF(W, H), std::move(fitted)};
    return outcome;
}

} // namespace cutlark::VectorizeEngine
