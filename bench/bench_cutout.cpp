// One subject cutout of a 12-megapixel photograph, end to end, with the real network on 2 threads.
#include "engines/VisionEngine.h"
#include "io/ImageFile.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QStandardPaths>

#include <benchmark/benchmark.h>
#include <opencv2/core.hpp>

#include <algorithm>
#include <cmath>
#include <cstdio>

using namespace cutlark;

namespace {

QImage photograph() {
    const QString path = QStandardPaths::writableLocation(QStandardPaths::GenericCacheLocation) +
                         QStringLiteral("/cutlark/testdata/astronaut.png");
    const auto loaded = ImageFile::load(path);
    if (!loaded) return QImage();
    return loaded->image.scaled(4000, 3000, Qt::IgnoreAspectRatio, Qt::SmoothTransformation);
}

// Peak resident memory of the process so far, in megabytes.
double peakMegabytes() {
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly)) return 0;
    for (const QByteArray& line : status.readAll().split('\n'))
        if (line.startsWith("VmHWM:")) return line.mid(6).trimmed().split(' ').first().toDouble() / 1024.0;
    return 0;
}

// Whole stage (scale, network, mask, composite), warm, on either backend: 0 ONNX Runtime, 1 OpenCV.
void BM_CutoutWarm(benchmark::State& state) {
    static const QImage image = photograph();
    const auto backend =
        state.range(0) == 0 ? VisionEngine::Backend::onnxRuntime : VisionEngine::Backend::openCV;
    VisionEngine::setBackend(backend);
    VisionEngine::preload();
    if (image.isNull() || !VisionEngine::isAvailable() || VisionEngine::loadedBackend() != backend) {
        state.SkipWithError(
            "needs the network, its runtime and the test photographs (./test.sh fetches them)");
        return;
    }
    for (auto _ : state)
        benchmark::DoNotOptimize(VisionEngine::computeCutout(image));
    state.SetLabel(backend == VisionEngine::Backend::onnxRuntime ? "onnxruntime" : "opencv-dnn");
    state.counters["peak_MB"] = peakMegabytes();
}
BENCHMARK(BM_CutoutWarm)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

// The composite alone on 12 megapixels, with and without cleaning the edge's colour: what the
// cleaning adds to the stage. The mask is a soft disc, as the network's would be at 1024 × 1024.
void BM_Composite(benchmark::State& state) {
    static const QImage image = photograph();
    if (image.isNull()) {
        state.SkipWithError("needs the test photographs (./test.sh fetches them)");
        return;
    }
    QImage mask(1024, 1024, QImage::Format_Grayscale8);
    for (int y = 0; y < 1024; ++y)
        for (int x = 0; x < 1024; ++x) {
            const double r = std::hypot(x - 512.0, y - 512.0);
            mask.scanLine(y)[x] = uchar(std::clamp(255.0 * (400.0 - r) / 3.0, 0.0, 255.0));
        }
    const bool clean = state.range(0) != 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(VisionEngine::composite(image, mask, clean));
    state.SetLabel(clean ? "edge colour cleaned" : "plain");
}
BENCHMARK(BM_Composite)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    cv::setNumThreads(2);
    if (!qEnvironmentVariableIsEmpty("MODEL")) VisionEngine::setModelPath(qEnvironmentVariable("MODEL"));
    // The first cutout of a process also loads the network and sets up its buffers.
    const QImage image = photograph();
    if (!image.isNull() && VisionEngine::isAvailable()) {
        QElapsedTimer timer;
        timer.start();
        const auto cut = VisionEngine::computeCutout(image);
        std::printf(
            "first cutout in a new process (network loaded on the way, %s): %lld ms, %s, peak %.0f MB\n",
            VisionEngine::loadedBackend() == VisionEngine::Backend::onnxRuntime ? "onnxruntime"
                                                                                : "opencv-dnn",
            static_cast<long long>(timer.elapsed()), cut ? "subject found" : "no subject", peakMegabytes());
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
