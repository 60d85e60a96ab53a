// Opening an image into an item, what an item holds, and a rebuild at default settings.
#include "engines/CropEngine.h"
#include "io/ImageFile.h"
#include "model/CropModel.h"

#include <QCoreApplication>
#include <QFile>
#include <QImageReader>
#include <QImageWriter>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <cmath>

using namespace cutlark;

namespace {

// A 4000×3000 photograph-like picture: smooth shading with fine texture, so the JPEG is of a
// realistic size (a flat picture would decode unrealistically fast).
QImage photoLike(int w, int h) {
    QImage image(w, h, QImage::Format_RGB32);
    quint32 noise = 12345;
    for (int y = 0; y < h; ++y) {
        QRgb* row = reinterpret_cast<QRgb*>(image.scanLine(y));
        for (int x = 0; x < w; ++x) {
            noise = noise * 1664525u + 1013904223u;
            const int n = int(noise >> 28) - 8;
            const int r = int(128 + 100 * std::sin(x * 0.003) + n);
            const int g = int(128 + 90 * std::cos(y * 0.004) + n);
            const int b = int(128 + 80 * std::sin((x + y) * 0.002) + n);
            row[x] = qRgb(qBound(0, r, 255), qBound(0, g, 255), qBound(0, b, 255));
        }
    }
    return image;
}

struct Fixture {
    QTemporaryDir dir;
    QString jpeg;
    Fixture() {
        jpeg = dir.filePath(QStringLiteral("photo.jpg"));
        QImageWriter writer(jpeg, "jpeg");
        writer.setQuality(90);
        writer.write(photoLike(4000, 3000));
    }
};

Fixture& fixture() {
    static Fixture f;
    return f;
}

// The yardstick: Qt decoding the file on its own.
void BM_QtBareDecode(benchmark::State& state) {
    const QString path = fixture().jpeg;
    for (auto _ : state) {
        QImageReader reader(path);
        QImage image = reader.read();
        benchmark::DoNotOptimize(image.constBits());
    }
}
BENCHMARK(BM_QtBareDecode)->Unit(benchmark::kMillisecond)->UseRealTime();

// What opening costs per file: decode, orientation, and the item's pixel buffer.
void BM_OpenIntoItem(benchmark::State& state) {
    const QString path = fixture().jpeg;
    double bytesPerPixel = 0;
    for (auto _ : state) {
        auto loaded = ImageFile::load(path);
        auto buffer = CropEngine::Buffer::make(loaded->image);
        benchmark::DoNotOptimize(buffer->pixels());
        const double pixels = double(buffer->width() * buffer->height());
        const double held = double(loaded->image.sizeInBytes()) +
                            (buffer->sharesStore() ? 0.0 : double(buffer->pixelImage().sizeInBytes()));
        bytesPerPixel = held / pixels;
    }
    state.counters["bytes_per_pixel"] = bytesPerPixel;
}
BENCHMARK(BM_OpenIntoItem)->Unit(benchmark::kMillisecond)->UseRealTime();

// The whole open path of the model, for one file.
void BM_ModelOpen(benchmark::State& state) {
    const QString path = fixture().jpeg;
    for (auto _ : state) {
        CropModel model;
        model.open({path});
        benchmark::DoNotOptimize(model.processedImage().constBits());
    }
}
BENCHMARK(BM_ModelOpen)->Unit(benchmark::kMillisecond)->UseRealTime();

// Opening eight such files in one call: they are decoded side by side on the thread pool.
void BM_ModelOpenEight(benchmark::State& state) {
    QStringList paths;
    for (int i = 0; i < 8; ++i) {
        const QString copy = fixture().dir.filePath(QStringLiteral("copy%1.jpg").arg(i));
        QFile::copy(fixture().jpeg, copy);
        paths << copy;
    }
    for (auto _ : state) {
        CropModel model;
        model.open(paths);
        benchmark::DoNotOptimize(model.items().size());
    }
}
BENCHMARK(BM_ModelOpenEight)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(2);

// A rebuild with every setting at its default: must hand back the source itself.
void BM_RecomputeDefaults(benchmark::State& state) {
    CropModel model;
    model.open({fixture().jpeg});
    const qint64 source = model.active()->buffer.image().cacheKey();
    for (auto _ : state) {
        model.recomputeActive();
        benchmark::DoNotOptimize(model.processedImage().cacheKey());
    }
    if (model.processedImage().cacheKey() != source)
        state.SkipWithError("the result isn't the source itself");
}
BENCHMARK(BM_RecomputeDefaults)->Unit(benchmark::kMicrosecond);

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
