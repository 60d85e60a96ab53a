// The colour trace: region growing on a reduced copy, a palette, and one traced mask per colour.
// All colour arithmetic is on integers with fixed tie-breaks, so equal inputs give equal layers.
#include "vectorize/VectorizeEngine.h"

#include "engines/PixelOps.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>
#include <numeric>

namespace cutlark::VectorizeEngine {

namespace {

using namespace PixelOps;

int roundedSide(double v) {
    return std::max(1, int(std::round(v)));
}

struct Rgb {
    int r, g, b;
};

inline int distance2(const Rgb& a, const Rgb& b) {
    const int dr = a.r - b.r, dg = a.g - b.g, db = a.b - b.b;
    return dr * dr + dg * dg + db * db;
}

// The picture at most `longEdge` on its long side, premultiplied RGBA, tightly packed.
QImage rasterRGBA(const QImage& image, int longEdge) {
    const QImage src = rgbaPixels(image);
    if (src.isNull()) return QImage();
    const double L = std::max(src.width(), src.height());
    const double scale = longEdge >= L ? 1.0 : longEdge / L;
    const int w = roundedSide(src.width() * scale), h = roundedSide(src.height() * scale);
    QImage out(w, h, QImage::Format_RGBA8888_Premultiplied);
    if (out.isNull()) return QImage();
    try {
        const cv::Mat from(src.height(), src.width(), CV_8UC4, const_cast<uchar*>(src.constBits()),
                           size_t(src.bytesPerLine()));
        cv::Mat to(h, w, CV_8UC4, out.bits(), size_t(out.bytesPerLine()));
        if (w == src.width() && h == src.height())
            from.copyTo(to);
        else
            cv::resize(from, to, to.size(), 0, 0, cv::INTER_AREA);
    } catch (const cv::Exception&) {
        return QImage();
    }
    return out;
}

struct Region {
    qint64 sum[3] = {0, 0, 0};
    qint64 count = 0;
    Rgb mean{0, 0, 0};
};

struct PaletteEntry {
    Rgb color;
    qint64 count = 0;
};

} // namespace

int colorThreshold(double tolerance) {
    if (tolerance >= 100) return 65;
    return int(std::round(std::max(tolerance, 0.0) / 100 * 47 + 18)); // NaN counts as 0
}

std::optional<QImage> edgePreservingSimplify(const QImage& image, int passes) {
    if (passes < 1) return image;
    QImage src = rgbaPixels(image);
    if (src.isNull()) return std::nullopt;
    QImage out(src.size(), src.format());
    if (out.isNull()) return std::nullopt;
    try {
        cv::Mat a(src.height(), src.width(), CV_8UC4, const_cast<uchar*>(src.constBits()),
                  size_t(src.bytesPerLine()));
        cv::Mat b(out.height(), out.width(), CV_8UC4, out.bits(), size_t(out.bytesPerLine()));
        cv::Mat work = a.clone();
        for (int i = 0; i < passes; ++i) {
            cv::medianBlur(work, b, 3);
            if (i + 1 < passes) b.copyTo(work);
        }
    } catch (const cv::Exception&) {
        return std::nullopt;
    }
    return out;
}

void majorityFilter(std::vector<int>& labels, int w, int h, int labelCount, int passes) {
    if (labelCount < 1 || passes < 1) return;
    std::vector<int> next(labels.size());
    for (int pass = 0; pass < passes; ++pass) {
        // Read the map as it stood at the start of the pass, write a copy.
        for (int y = 0; y < h; ++y) {
            for (int x = 0; x < w; ++x) {
                const size_t i = size_t(y) * size_t(w) + size_t(x);
                if (labels[i] < 0) {
                    next[i] = -1; // transparency neither grows nor shrinks
                    continue;
                }
                // Only the (at most nine) labels present in the window can win, so they alone are counted.
                int seen[9], votes[9], kinds = 0;
                for (int dy = -1; dy <= 1; ++dy) {
                    const int yy = y + dy;
                    if (yy < 0 || yy >= h) continue;
                    for (int dx = -1; dx <= 1; ++dx) {
                        const int xx = x + dx;
                        if (xx < 0 || xx >= w) continue;
                        const int l = labels[size_t(yy) * size_t(w) + size_t(xx)];
                        if (l < 0) continue;
                        int k = 0;
                        while (k < kinds && seen[k] != l)
                            ++k;
                        if (k == kinds) seen[kinds] = l, votes[kinds++] = 0;
                        ++votes[k];
                    }
                }
                // Most votes; among equals the lowest label, as a scan from label 0 upwards would give.
                int best = seen[0], bestVotes = votes[0];
                for (int k = 1; k < kinds; ++k)
                    if (votes[k] > bestVotes || (votes[k] == bestVotes && seen[k] < best))
                        best = seen[k], bestVotes = votes[k];
                next[i] = best;
            }
        }
        labels.swap(next);
    }
}

namespace {

// The picture's regions, grown against their seed colour, never against a neighbour or the running
// mean, so a smooth gradient breaks into bands instead of flooding the picture. Absent for a noisy
// picture (more regions than a tenth of its pixels), refused before any palette work.
struct Regions {
    std::vector<int> regionOf; ///< per pixel, -1 for what is too transparent
    std::vector<Region> list;
};

std::optional<Regions> growRegions(const QImage& raster, int regionLimit) {
    const int w = raster.width(), h = raster.height();
    const qsizetype n = qsizetype(w) * h;
    const uint32_t* px = reinterpret_cast<const uint32_t*>(raster.constBits());
    Regions out;
    out.regionOf.assign(size_t(n), -1);
    std::vector<int>& regionOf = out.regionOf;
    std::vector<Region>& regions = out.list;
    std::vector<int> stack;
    auto colorAt = [&](qsizetype i) { return Rgb{int(red(px[i])), int(green(px[i])), int(blue(px[i]))}; };
    auto opaqueEnough = [&](qsizetype i) { return alpha(px[i]) >= 128; };
    for (qsizetype start = 0; start < n; ++start) {
        if (regionOf[size_t(start)] >= 0 || !opaqueEnough(start)) continue;
        const int index = int(regions.size());
        regions.emplace_back();
        Region& region = regions.back();
        const Rgb seed = colorAt(start);
        regionOf[size_t(start)] = index;
        stack.push_back(int(start));
        while (!stack.empty()) {
            const int i = stack.back();
            stack.pop_back();
            const Rgb c = colorAt(i);
            region.sum[0] += c.r, region.sum[1] += c.g, region.sum[2] += c.b, region.count += 1;
            const int x = i % w, y = i / w;
            auto visit = [&](int j) {
                if (regionOf[size_t(j)] >= 0 || !opaqueEnough(j) || distance2(colorAt(j), seed) > regionLimit)
                    return;
                regionOf[size_t(j)] = index; // labelled when pushed, so pushed once
                stack.push_back(j);
            };
            if (x > 0) visit(i - 1);
            if (x < w - 1) visit(i + 1);
            if (y > 0) visit(i - w);
            if (y < h - 1) visit(i + w);
        }
        if (qsizetype(regions.size()) > n / 10) return std::nullopt;
    }
    if (regions.empty()) return std::nullopt;
    for (Region& r : regions) {
        const qint64 c = std::max<qint64>(r.count, 1);
        r.mean = Rgb{int(r.sum[0] / c), int(r.sum[1] / c), int(r.sum[2] / c)};
    }
    return out;
}

// The palette the regions make, largest first: each region joins the closest entry within the
// limit, or founds one with its mean; then rare colours dissolve into the nearest survivor, judged
// by each region's own mean. `finalEntry` is each region's entry, `kept` the surviving entries.
struct Palette {
    std::vector<PaletteEntry> entries;
    std::vector<int> finalEntry;
    std::vector<int> kept;
};

Palette paletteOf(const std::vector<Region>& regions, int paletteLimit, qint64 minCount) {
    std::vector<int> order(regions.size());
    std::iota(order.begin(), order.end(), 0);
    std::stable_sort(order.begin(), order.end(),
                     [&](int a, int b) { return regions[size_t(a)].count > regions[size_t(b)].count; });
    Palette out;
    std::vector<PaletteEntry>& palette = out.entries;
    std::vector<int> entryOf(regions.size(), -1);
    for (int r : order) {
        const Region& region = regions[size_t(r)];
        int best = -1, bestDistance = 0;
        for (size_t e = 0; e < palette.size(); ++e) {
            const int d = distance2(region.mean, palette[e].color);
            if (d <= paletteLimit && (best < 0 || d < bestDistance)) best = int(e), bestDistance = d;
        }
        if (best < 0) {
            best = int(palette.size());
            palette.push_back(PaletteEntry{region.mean, 0});
        }
        palette[size_t(best)].count += region.count;
        entryOf[size_t(r)] = best;
    }
    for (size_t e = 0; e < palette.size(); ++e)
        if (palette[e].count >= minCount) out.kept.push_back(int(e));
    if (out.kept.empty()) out.kept.push_back(0);
    out.finalEntry.resize(regions.size());
    for (size_t r = 0; r < regions.size(); ++r) {
        const int e = entryOf[r];
        if (palette[size_t(e)].count >= minCount) {
            out.finalEntry[r] = e;
            continue;
        }
        int best = out.kept.front(), bestDistance = distance2(regions[r].mean, palette[size_t(best)].color);
        for (size_t k = 1; k < out.kept.size(); ++k) {
            const int d = distance2(regions[r].mean, palette[size_t(out.kept[k])].color);
            if (d < bestDistance) best = out.kept[k], bestDistance = d;
        }
        out.finalEntry[r] = best;
    }
    return out;
}

// Too busy for flat colour: transitions over the label map, −1 counting like any label.
bool tooBusy(const std::vector<int>& labels, int w, int h) {
    qint64 changes = 0;
    for (int y = 0; y < h; ++y)
        for (int x = 1; x < w; ++x)
            changes +=
                labels[size_t(y) * size_t(w) + size_t(x)] != labels[size_t(y) * size_t(w) + size_t(x - 1)];
    for (int y = 1; y < h; ++y)
        for (int x = 0; x < w; ++x)
            changes +=
                labels[size_t(y) * size_t(w) + size_t(x)] != labels[size_t(y - 1) * size_t(w) + size_t(x)];
    return double(changes) / double(qint64(w) * h) > 0.12;
}

// Stacked, the bottom layer covers the whole picture and every other layer also runs `kStackBand`
// pixels under the layers drawn above it: shared borders are painted twice, by the layer below and
// the one above, so no backdrop shows through between them, and where an upper layer's outline falls
// short of its pixels, what shows is the colour really beside it. (A layer running under *all* the
// layers above showed, in such slivers, whichever layer lay just below in the stack, often a colour
// from elsewhere in the picture: on two posterised photographs 1 % of the pixels worse.)
constexpr int kStackBand = 3;

// The mask of the layer at `level` (0 where it paints): its own pixels, or stacked, its pixels and
// everything above it within the band of its own. False when it has no pixels.
bool layerMask(QImage& mask, const std::vector<int>& labels, const std::vector<int>& levelOf, int entry,
               int level, bool stacked) {
    const int w = mask.width(), h = mask.height();
    bool any = false;
    for (int y = 0; y < h; ++y) {
        uchar* m = mask.scanLine(y);
        const int* l = labels.data() + size_t(y) * size_t(w);
        for (int x = 0; x < w; ++x) {
            const bool mine = stacked ? l[x] >= 0 && levelOf[size_t(l[x])] >= level : l[x] == entry;
            m[x] = mine ? 0 : 255;
            any |= mine;
        }
    }
    if (!any || !stacked || level == 0) return any;
    static const cv::Mat bandKernel =
        cv::getStructuringElement(cv::MORPH_ELLIPSE, cv::Size(2 * kStackBand + 1, 2 * kStackBand + 1));
    cv::Mat own(h, w, CV_8U), near;
    for (int y = 0; y < h; ++y) {
        const int* l = labels.data() + size_t(y) * size_t(w);
        uchar* o = own.ptr<uchar>(y);
        for (int x = 0; x < w; ++x)
            o[x] = l[x] == entry ? 255 : 0;
    }
    cv::dilate(own, near, bandKernel);
    for (int y = 0; y < h; ++y) {
        uchar* m = mask.scanLine(y);
        const uchar* g = near.ptr<uchar>(y);
        for (int x = 0; x < w; ++x)
            m[x] = g[x] ? m[x] : 255;
    }
    return true;
}

} // namespace

std::optional<VectorColorTrace> traceColor(const QImage& image, const TraceParams& params) {
    const int W = image.width(), H = image.height();
    if (W < 1 || H < 1) return std::nullopt;
    const QImage denoised = edgePreservingSimplify(image, params.denoisePasses).value_or(image);
    const QImage raster = rasterRGBA(denoised, 1000);
    if (raster.isNull()) return std::nullopt;
    const int w = raster.width(), h = raster.height();
    const qsizetype n = qsizetype(w) * h;
    const int T = colorThreshold(params.tolerance);
    auto regions = growRegions(raster, T * T);
    if (!regions) return std::nullopt;
    Palette palette =
        paletteOf(regions->list, (T + 13) * (T + 13), qint64(params.minFeatureFrac * double(n)));
    std::vector<int> labels(size_t(n), -1);
    for (qsizetype i = 0; i < n; ++i)
        if (regions->regionOf[size_t(i)] >= 0)
            labels[size_t(i)] = palette.finalEntry[size_t(regions->regionOf[size_t(i)])];
    regions.reset();
    if (params.cleanupPasses >= 1)
        majorityFilter(labels, w, h, int(palette.entries.size()), params.cleanupPasses);
    if (tooBusy(labels, w, h)) return std::nullopt;

    // The largest colour at the bottom.
    std::vector<int>& kept = palette.kept;
    std::stable_sort(kept.begin(), kept.end(), [&](int a, int b) {
        return palette.entries[size_t(a)].count > palette.entries[size_t(b)].count;
    });
    std::vector<int> levelOf(palette.entries.size(), -1);
    for (size_t k = 0; k < kept.size(); ++k)
        levelOf[size_t(kept[k])] = int(k);
    VectorColorTrace result;
    result.size = QSizeF(W, H);
    QImage mask(w, h, QImage::Format_Grayscale8);
    if (mask.isNull()) return std::nullopt;
    for (size_t level = 0; level < kept.size(); ++level) {
        const int entry = kept[level];
        // An entry left without pixels traces to nothing.
        if (!layerMask(mask, labels, levelOf, entry, int(level), params.stacked)) continue;
        QList<CurvedContour> fitted;
        QList<Contour> found =
            contours(mask, W, H, 0, params.minFeatureFrac, params.curves ? &fitted : nullptr);
        if (found.isEmpty()) continue;
        const Rgb& c = palette.entries[size_t(entry)].color;
        result.layers.append(
            VectorColorLayer{c.r / 255.0, c.g / 255.0, c.b / 255.0, std::move(found), std::move(fitted)});
    }
    if (result.layers.isEmpty()) return std::nullopt;
    return result;
}

} // namespace cutlark::VectorizeEngine
