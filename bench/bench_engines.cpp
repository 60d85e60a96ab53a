// The pixel engines on a 4000×3000 image, one thread, next to a plain read pass and a memcpy of the
// same 48 MB measured in this binary.
#include "engines/CollageSplitter.h"
#include "engines/CropEngine.h"
#include "engines/StickerEngine.h"
#include "io/ImageFile.h"
#include "model/CropModel.h"

#include <QCoreApplication>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>
#include <opencv2/core.hpp>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

using namespace cutlark;

namespace {

constexpr int W = 4000, H = 3000;

// A photograph-like block of 3000×2000 in the middle of a white (or transparent) sheet.
QImage sheet(bool transparentMargin) {
    QImage image(W, H, QImage::Format_RGBA8888_Premultiplied);
    quint32 noise = 99;
    for (int y = 0; y < H; ++y) {
        uchar* p = image.scanLine(y);
        for (int x = 0; x < W; ++x, p += 4) {
            const bool inside = x >= 500 && x < 3500 && y >= 500 && y < 2500;
            if (!inside) {
                const uchar v = transparentMargin ? 0 : 255;
                p[0] = p[1] = p[2] = p[3] = v;
                continue;
            }
            noise = noise * 1664525u + 1013904223u;
            p[0] = uchar(60 + (noise >> 27));
            p[1] = uchar(100 + 60 * std::sin(x * 0.01));
            p[2] = uchar(90 + 50 * std::cos(y * 0.01));
            p[3] = 255;
        }
    }
    return image;
}

const QImage& whiteSheet() {
    static const QImage image = sheet(false);
    return image;
}
const QImage& clearSheet() {
    static const QImage image = sheet(true);
    return image;
}

void BM_ReadPass(benchmark::State& state) {
    const QImage& image = whiteSheet();
    const auto* p = reinterpret_cast<const quint64*>(image.constBits());
    const size_t n = size_t(image.sizeInBytes()) / 8;
    for (auto _ : state) {
        quint64 sum = 0;
        for (size_t i = 0; i < n; ++i)
            sum += p[i];
        benchmark::DoNotOptimize(sum);
    }
}
BENCHMARK(BM_ReadPass)->Unit(benchmark::kMillisecond);

void BM_Memcpy(benchmark::State& state) {
    const QImage& image = whiteSheet();
    std::vector<uchar> to(size_t(image.sizeInBytes()));
    for (auto _ : state) {
        std::memcpy(to.data(), image.constBits(), to.size());
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_Memcpy)->Unit(benchmark::kMillisecond);

void BM_ContentRect(benchmark::State& state) {
    const auto buffer = CropEngine::Buffer::make(whiteSheet());
    for (auto _ : state)
        benchmark::DoNotOptimize(CropEngine::contentRect(*buffer, 25));
}
BENCHMARK(BM_ContentRect)->Unit(benchmark::kMillisecond);

void BM_AlphaContentRect(benchmark::State& state) {
    const auto buffer = CropEngine::Buffer::make(clearSheet());
    for (auto _ : state)
        benchmark::DoNotOptimize(CropEngine::alphaContentRect(*buffer, 0));
}
BENCHMARK(BM_AlphaContentRect)->Unit(benchmark::kMillisecond);

void BM_BackgroundIsMostlyWhite(benchmark::State& state) {
    const auto buffer = CropEngine::Buffer::make(whiteSheet());
    for (auto _ : state)
        benchmark::DoNotOptimize(CropEngine::backgroundIsMostlyWhite(*buffer, 0.85));
}
BENCHMARK(BM_BackgroundIsMostlyWhite)->Unit(benchmark::kMicrosecond);

void BM_KeyOutWhiteFlood(benchmark::State& state) {
    for (auto _ : state)
        benchmark::DoNotOptimize(CropEngine::keyOutWhite(whiteSheet(), 30, false));
}
BENCHMARK(BM_KeyOutWhiteFlood)->Unit(benchmark::kMillisecond);

void BM_KeyOutWhiteInternal(benchmark::State& state) {
    for (auto _ : state)
        benchmark::DoNotOptimize(CropEngine::keyOutWhite(whiteSheet(), 30, true));
}
BENCHMARK(BM_KeyOutWhiteInternal)->Unit(benchmark::kMillisecond);

void BM_Pad(benchmark::State& state) {
    for (auto _ : state)
        benchmark::DoNotOptimize(CropEngine::pad(whiteSheet(), {40, 40, 40, 40}));
}
BENCHMARK(BM_Pad)->Unit(benchmark::kMillisecond);

void BM_ColorBackground(benchmark::State& state) {
    for (auto _ : state)
        benchmark::DoNotOptimize(CropEngine::fillColorBackground(clearSheet(), {1, 0.5, 0.25, 1}));
}
BENCHMARK(BM_ColorBackground)->Unit(benchmark::kMillisecond);

// At the default 90° (one colour per row) and at 30° (every pixel its own colour).
void BM_GradientBackground(benchmark::State& state) {
    const double angle = double(state.range(0));
    for (auto _ : state)
        benchmark::DoNotOptimize(CropEngine::fillGradientBackground(
            clearSheet(), {{0.53, 0.81, 0.98, 1}, {0.15, 0.39, 0.78, 1}, angle}));
}
BENCHMARK(BM_GradientBackground)->Arg(90)->Arg(30)->Unit(benchmark::kMillisecond);

void BM_Canvas(benchmark::State& state) {
    for (auto _ : state)
        benchmark::DoNotOptimize(CropEngine::canvas(whiteSheet(), QSizeF(4100, 3100)));
}
BENCHMARK(BM_Canvas)->Unit(benchmark::kMillisecond);

// To 1024 wide (a factor of about 4) and to 2730 (about 1.47, a batch's 2048 from a trimmed photo).
void BM_Resize(benchmark::State& state) {
    const double width = double(state.range(0));
    for (auto _ : state)
        benchmark::DoNotOptimize(CropEngine::resize(whiteSheet(), QSizeF(width, width * 3 / 4)));
}
BENCHMARK(BM_Resize)->Arg(1024)->Arg(2730)->Unit(benchmark::kMillisecond);

// The sticker outline of a 2000×2000 subject (a disc with a notch on a transparent sheet), w = 14.
void BM_Sticker(benchmark::State& state) {
    static const QImage subject = [] {
        QImage image(2000, 2000, QImage::Format_RGBA8888_Premultiplied);
        image.fill(Qt::transparent);
        for (int y = 0; y < 2000; ++y) {
            uchar* p = image.scanLine(y);
            for (int x = 0; x < 2000; ++x, p += 4) {
                const double dx = x - 1000, dy = y - 1000;
                if (dx * dx + dy * dy > 999.0 * 999.0 || (x > 900 && x < 1100 && y < 600)) continue;
                p[0] = uchar(x / 8), p[1] = uchar(y / 8), p[2] = 90, p[3] = 255;
            }
        }
        return image;
    }();
    for (auto _ : state)
        benchmark::DoNotOptimize(StickerEngine::make(subject, 14));
}
BENCHMARK(BM_Sticker)->Unit(benchmark::kMillisecond);

// The sticker outline of a photograph's cut-out subject at 12 megapixels: a soft-edged blob over most
// of a 4000×3000 frame, as subject mode leaves it; w = 14 (the default) and 40 (the most).
const QImage& photoSubject() {
    static const QImage image = [] {
        QImage out(4000, 3000, QImage::Format_RGBA8888_Premultiplied);
        for (int y = 0; y < 3000; ++y) {
            uchar* p = out.scanLine(y);
            for (int x = 0; x < 4000; ++x, p += 4) {
                // An irregular outline: an ellipse whose radius wobbles with the angle.
                const double dx = (x - 2000) / 1800.0, dy = (y - 1500) / 1300.0;
                const double r = std::sqrt(dx * dx + dy * dy), t = std::atan2(dy, dx);
                const double edge = 1 + 0.08 * std::sin(7 * t) + 0.03 * std::sin(23 * t);
                const double a = std::clamp((edge - r) * 600.0 + 0.5, 0.0, 1.0); // a soft rim of ~2 px
                const uchar alpha = uchar(std::lround(a * 255));
                p[0] = uchar(alpha * (x & 255) / 255), p[1] = uchar(alpha * (y & 255) / 255),
                p[2] = uchar(alpha / 2);
                p[3] = alpha;
            }
        }
        return out;
    }();
    return image;
}

void BM_StickerPhoto12MP(benchmark::State& state) {
    const QImage& subject = photoSubject();
    for (auto _ : state)
        benchmark::DoNotOptimize(StickerEngine::make(subject, double(state.range(0))));
}
BENCHMARK(BM_StickerPhoto12MP)->Arg(14)->Arg(40)->Unit(benchmark::kMillisecond);

// Collage detection on a 4000×3000 sheet of 12 photographs in a 4 × 3 grid.
void BM_CollagePieces(benchmark::State& state) {
    static const QImage sheet = [] {
        QImage image(4000, 3000, QImage::Format_RGBA8888_Premultiplied);
        image.fill(Qt::white);
        quint32 noise = 5;
        for (int row = 0; row < 3; ++row)
            for (int col = 0; col < 4; ++col)
                for (int y = 80 + row * 980; y < 980 + row * 980; ++y) {
                    uchar* p = image.scanLine(y) + 4 * (80 + col * 980);
                    for (int x = 0; x < 860; ++x, p += 4) {
                        noise = noise * 1664525u + 1013904223u;
                        p[0] = uchar(noise >> 24), p[1] = uchar(90 + (x & 63)), p[2] = uchar(y & 127),
                        p[3] = 255;
                    }
                }
        return image;
    }();
    const auto buffer = CropEngine::Buffer::make(sheet);
    size_t found = 0;
    for (auto _ : state)
        found = size_t(CollageSplitter::pieces(*buffer, 10).size());
    state.counters["pieces"] = double(found);
}
BENCHMARK(BM_CollagePieces)->Unit(benchmark::kMillisecond);

// The rebuild a slider drag pays with keying, trim, padding and a colour background on.
void BM_PipelineKeyTrimPadColor(benchmark::State& state) {
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("sheet.png"));
    ImageFile::save(whiteSheet(), path, QStringLiteral("image/png"));
    CropModel model;
    model.open({path});
    model.setKeyWhiteEnabled(true);
    model.setTrimEnabled(true);
    model.setPaddingEnabled(true);
    model.setBackgroundEnabled(true);
    for (auto _ : state) {
        model.recomputeActive();
        benchmark::DoNotOptimize(model.processedImage().constBits());
    }
}
BENCHMARK(BM_PipelineKeyTrimPadColor)->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    // bench/peers.sh asks for the very same inputs to hand to the other tools.
    if (argc == 3 && std::strcmp(argv[1], "--write-inputs") == 0) {
        const QString dir = QString::fromLocal8Bit(argv[2]);
        const bool ok = ImageFile::save(whiteSheet(), dir + QStringLiteral("/white-sheet.png"),
                                        QStringLiteral("image/png")) &&
                        ImageFile::save(clearSheet(), dir + QStringLiteral("/clear-sheet.png"),
                                        QStringLiteral("image/png"));
        return ok ? 0 : 1;
    }
    cv::setNumThreads(1); // one thread, like the budgets
    whiteSheet();         // made before any timing starts
    clearSheet();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
