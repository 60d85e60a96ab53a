// A slider drag in the window on a 12-megapixel image, one benchmark per slider of a product shot's
// sections: the time of each step from the slider's move through the model's rebuild to the painted
// window, with keying, trim, a sticker outline, padding, a gradient background and a resize on.
#include "io/ImageFile.h"
#include "ui/ContentView.h"
#include "ui/MainWindow.h"
#include "ui/SettingsSidebar.h"

#include <QApplication>
#include <QSlider>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>
#include <opencv2/core.hpp>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <vector>

using namespace cutlark;

namespace {

QImage sheet() {
    QImage image(4000, 3000, QImage::Format_RGB32);
    image.fill(Qt::white);
    for (int y = 600; y < 2400; ++y) {
        QRgb* row = reinterpret_cast<QRgb*>(image.scanLine(y));
        for (int x = 800; x < 3200; ++x)
            row[x] = qRgb((x * 7) & 255, (y * 3) & 255, 90);
    }
    return image;
}

// A product shot as the sections a person turns on for one: white keying, trim, a sticker outline,
// padding, a gradient background and a resize to 2048 wide.
struct ProductShot {
    QTemporaryDir dir;
    MainWindow window;
    QSlider* slider = nullptr;
    explicit ProductShot(const char* sliderName) {
        const QString path = dir.filePath(QStringLiteral("sheet.png"));
        ImageFile::save(sheet(), path, QStringLiteral("image/png"));
        window.resize(1280, 900);
        window.show();
        CropModel& model = window.content()->model();
        model.open({path});
        model.setKeyWhiteEnabled(true);
        model.setBgRemovalMode(BGRemovalMode::white);
        model.setTrimEnabled(true);
        model.setStickerEnabled(true);
        model.setPaddingEnabled(true);
        model.setPaddingUniform(QLatin1String(sliderName) != QLatin1String("padTop"));
        model.setBackgroundEnabled(true);
        model.setBackgroundKind(BackgroundKind::gradient);
        model.setResizeEnabled(true);
        model.setResizeWidth(2048);
        QApplication::processEvents();
        slider = window.findChild<QSlider*>(QLatin1String(sliderName));
    }
};

// One step of a drag: the slider moves, the model rebuilds, and the whole window is painted at once
// (a frame paints only what changed, so this is the most one can cost). The median step is the
// figure; the slider is held, so steps build drafts, and the release builds the picture in full.
void dragSlider(benchmark::State& state, const char* name, bool held = true) {
    ProductShot shot(name);
    if (!shot.slider || !shot.slider->isVisibleTo(&shot.window)) {
        state.SkipWithError("no such slider showing");
        return;
    }
    std::vector<double> steps;
    int step = 0;
    shot.slider->setSliderDown(held); // held, as a mouse drag holds it; else every step builds in full
    for (auto _ : state) {
        const auto t0 = std::chrono::steady_clock::now();
        shot.slider->setValue(1000 + (step++ * 37) % 4000); // across the lower half of the range
        shot.window.repaint(); // the whole window painted at once: more than any one frame asks
        QApplication::processEvents();
        steps.push_back(
            std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count());
    }
    // The release builds the picture in full, once.
    const auto released = std::chrono::steady_clock::now();
    shot.slider->setSliderDown(false);
    QApplication::processEvents();
    shot.window.repaint();
    std::sort(steps.begin(), steps.end());
    state.counters["median_ms"] = steps[steps.size() / 2];
    state.counters["worst_ms"] = steps.back();
    state.counters["release_ms"] =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - released).count();
}

BENCHMARK_CAPTURE(dragSlider, trimThreshold, "threshold")->Unit(benchmark::kMillisecond)->Iterations(30);
BENCHMARK_CAPTURE(dragSlider, keyThreshold, "keyThreshold")->Unit(benchmark::kMillisecond)->Iterations(30);
BENCHMARK_CAPTURE(dragSlider, stickerWidth, "strokeWidth")->Unit(benchmark::kMillisecond)->Iterations(30);
BENCHMARK_CAPTURE(dragSlider, padding, "padAmount")->Unit(benchmark::kMillisecond)->Iterations(30);
BENCHMARK_CAPTURE(dragSlider, paddingTop, "padTop")->Unit(benchmark::kMillisecond)->Iterations(30);
BENCHMARK_CAPTURE(dragSlider, gradientAngle, "gradientAngle")->Unit(benchmark::kMillisecond)->Iterations(30);
// The same steps built in full each time (keys, or a build without drafts): what a step costs
// without them.
BENCHMARK_CAPTURE(dragSlider, trimThresholdInFull, "threshold", false)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(30);
BENCHMARK_CAPTURE(dragSlider, gradientAngleInFull, "gradientAngle", false)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(30);

} // namespace

int main(int argc, char** argv) {
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
