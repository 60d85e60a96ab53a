#include "engines/Decontamination.h"

#include "engines/PixelOps.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>
#include <vector>

namespace cutlark::Decontamination {

namespace {

using namespace PixelOps;

// Premultiplied sums of a cell's fully covered pixels and the sum of their alphas; after filling,
// the straight colour the cell stands for.
struct Cell {
    float r = 0, g = 0, b = 0, a = 0;
};

struct Level {
    int w = 0, h = 0;
    std::vector<Cell> cells;
    Cell& at(int x, int y) { return cells[size_t(y) * size_t(w) + size_t(x)]; }
    const Cell& at(int x, int y) const { return cells[size_t(y) * size_t(w) + size_t(x)]; }

    // Bilinear between cell centres, positions in this level's cells, edges clamped.
    Cell sample(float fx, float fy) const {
        fx = std::clamp(fx, 0.f, float(w - 1));
        fy = std::clamp(fy, 0.f, float(h - 1));
        const int x0 = int(fx), y0 = int(fy);
        const int x1 = std::min(x0 + 1, w - 1), y1 = std::min(y0 + 1, h - 1);
        const float tx = fx - float(x0), ty = fy - float(y0);
        const Cell &c00 = at(x0, y0), &c10 = at(x1, y0), &c01 = at(x0, y1), &c11 = at(x1, y1);
        auto mix = [&](float Cell::*m) {
            const float top = c00.*m + (c10.*m - c00.*m) * tx;
            const float bottom = c01.*m + (c11.*m - c01.*m) * tx;
            return top + (bottom - top) * ty;
        };
        return {mix(&Cell::r), mix(&Cell::g), mix(&Cell::b), 1.f};
    }
};

} // namespace

int cellSideFor(int width, int height) {
    return std::max(1, (std::max(width, height) + 1023) / 1024);
}

namespace {

// Fills a pyramid whose finest level holds the sums of the pixels that count: each coarser level
// sums four cells of the finer one, up to a single cell; then, from the top down, a cell trusts its
// own pixels in proportion to how much of it they cover (a quarter of its area counts as wholly) and
// takes the rest from the level above. Afterwards every cell holds a straight colour.
// Cells of the finest level outside `wanted` are left unfilled: nothing reads them.
void fillPyramid(std::vector<Level>& levels, int f, const cv::Mat& wanted) {
    while (levels.back().w > 1 || levels.back().h > 1) {
        const Level& fine = levels.back();
        Level coarse;
        coarse.w = (fine.w + 1) / 2;
        coarse.h = (fine.h + 1) / 2;
        coarse.cells.resize(size_t(coarse.w) * size_t(coarse.h));
        for (int y = 0; y < fine.h; ++y)
            for (int x = 0; x < fine.w; ++x) {
                const Cell& c = fine.at(x, y);
                Cell& d = coarse.at(x / 2, y / 2);
                d.r += c.r;
                d.g += c.g;
                d.b += c.b;
                d.a += c.a;
            }
        levels.push_back(std::move(coarse));
    }
    double area = double(f) * double(f) * std::pow(4.0, double(levels.size() - 1));
    for (size_t i = levels.size(); i-- > 0;) {
        Level& level = levels[i];
        const float full = float(std::max(1.0, area / 4.0) * 255.0);
        const Level* above = i + 1 < levels.size() ? &levels[i + 1] : nullptr;
        for (int y = 0; y < level.h; ++y)
            for (int x = 0; x < level.w; ++x) {
                if (i == 0 && !wanted.at<uchar>(y, x)) continue;
                Cell& c = level.at(x, y);
                const float trust = std::min(1.f, c.a / full);
                Cell own;
                if (c.a > 0) own = {c.r * 255.f / c.a, c.g * 255.f / c.a, c.b * 255.f / c.a, 1.f};
                if (!above || trust >= 1.f) {
                    c = own;
                    continue;
                }
                const Cell from =
                    above->sample((float(x) + 0.5f) / 2.f - 0.5f, (float(y) + 0.5f) / 2.f - 0.5f);
                c = {own.r * trust + from.r * (1 - trust), own.g * trust + from.g * (1 - trust),
                     own.b * trust + from.b * (1 - trust), 1.f};
            }
        area /= 4.0;
    }
}

} // namespace

void pullForeground(const QImage& source, const cv::Mat& coverage, QImage& cutout, int cellSide) {
    const int W = source.width(), H = source.height();
    if (W < 1 || H < 1 || coverage.cols != W || coverage.rows != H || cutout.size() != source.size()) return;
    const int f = std::max(1, cellSide);
    const int cw = (W + f - 1) / f, ch = (H + f - 1) / f;

    // Which cells hold partly covered pixels; only they and their near neighbours are read for
    // colour, so a thin edge around a large subject costs little more than reading the coverage.
    cv::Mat near(ch, cw, CV_8U, cv::Scalar(0));
    bool anyFull = false, anyEmpty = false, anyPartial = false;
    for (int y = 0; y < H; ++y) {
        const uchar* m = coverage.ptr<uchar>(y);
        uchar* cells = near.ptr<uchar>(y / f);
        for (int cx = 0, x = 0; cx < cw; ++cx) {
            uchar partial = 0;
            for (const int end = std::min(W, x + f); x < end; ++x) {
                const uchar v = m[x];
                anyFull |= v == 255;
                anyEmpty |= v == 0;
                partial |= uchar(v != 0 && v != 255);
            }
            cells[cx] |= partial;
            anyPartial |= partial != 0;
        }
    }
    if (!anyFull || !anyPartial || !anyEmpty) return;
    // Two cells around, and at least eight pixels, so each side of the edge has pixels of its own.
    const int reach = std::max(2, (8 + f - 1) / f);
    cv::dilate(near, near, cv::getStructuringElement(cv::MORPH_RECT, cv::Size(2 * reach + 1, 2 * reach + 1)));

    // The finest levels: the subject's (fully covered) and the old background's (uncovered) pixels.
    std::vector<Level> subject(1), background(1);
    for (std::vector<Level>* levels : {&subject, &background}) {
        (*levels)[0].w = cw;
        (*levels)[0].h = ch;
        (*levels)[0].cells.resize(size_t(cw) * size_t(ch));
    }
    for (int y = 0; y < H; ++y) {
        const uchar* m = coverage.ptr<uchar>(y);
        const uchar* cells = near.ptr<uchar>(y / f);
        const uint32_t* s = row(source, y);
        Cell* fg = &subject[0].cells[size_t(y / f) * size_t(cw)];
        Cell* bg = &background[0].cells[size_t(y / f) * size_t(cw)];
        for (int cx = 0; cx < cw; ++cx) {
            if (!cells[cx]) continue;
            for (int x = cx * f, end = std::min(W, x + f); x < end; ++x) {
                if (m[x] != 0 && m[x] != 255) continue;
                const uint32_t v = s[x];
                Cell& c = m[x] == 255 ? fg[cx] : bg[cx];
                c.r += float(red(v));
                c.g += float(green(v));
                c.b += float(blue(v));
                c.a += float(alpha(v));
            }
        }
    }
    fillPyramid(subject, f, near);
    fillPyramid(background, f, near);

    // A partly covered pixel is read as a mixture of the subject's colour nearby and the old
    // background's nearby: how far along that line it lies says how much background it holds, and
    // that much of the difference is added back. A pixel of pure subject stays as it is, texture
    // and all; one of pure background becomes the subject's colour.
    const float inv = 1.f / float(f);
    for (int y = 0; y < H; ++y) {
        const uchar* m = coverage.ptr<uchar>(y);
        const uint32_t* s = row(source, y);
        uint32_t* d = row(cutout, y);
        const float fy = (float(y) + 0.5f) * inv - 0.5f;
        for (int x = 0; x < W; ++x) {
            if (m[x] == 0 || m[x] == 255) continue;
            const uint32_t a = alpha(d[x]), sa = alpha(s[x]);
            if (a == 0 || sa == 0) continue;
            const float fx = (float(x) + 0.5f) * inv - 0.5f;
            const Cell F = subject[0].sample(fx, fy), B = background[0].sample(fx, fy);
            const float unit = 255.f / float(sa);
            const float ir = float(red(s[x])) * unit, ig = float(green(s[x])) * unit,
                        ib = float(blue(s[x])) * unit;
            const float dr = F.r - B.r, dg = F.g - B.g, db = F.b - B.b;
            const float span = dr * dr + dg * dg + db * db;
            float missing = 0; // the share of old background in the pixel
            if (span > 1.f) {
                const float along = ((ir - B.r) * dr + (ig - B.g) * dg + (ib - B.b) * db) / span;
                missing = 1.f - std::clamp(along, 0.f, 1.f);
            }
            auto premultiplied = [a](float v) {
                return std::min(a, uint32_t(std::lround(std::clamp(v, 0.f, 255.f) * float(a) / 255.f)));
            };
            d[x] = premultiplied(ir + missing * dr) | (premultiplied(ig + missing * dg) << 8) |
                   (premultiplied(ib + missing * db) << 16) | (a << 24);
        }
    }
}

} // namespace cutlark::Decontamination
