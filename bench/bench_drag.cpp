// A slider drag in the window on a 12-megapixel image: the time of each step, from the slider's move
// through the model's rebuild to the views' refresh, with keying, trim, padding and a background on.
#include "io/ImageFile.h"
#include "ui/ContentView.h"
#include "ui/MainWindow.h"
#include "ui/SettingsSidebar.h"

#include <QApplication>
#include <QSlider>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>
#include <opencv2/core.hpp>

#include <cmath>

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

void BM_DragThresholdSlider(benchmark::State& state) {
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("sheet.png"));
    ImageFile::save(sheet(), path, QStringLiteral("image/png"));
    MainWindow window;
    window.resize(900, 640);
    window.show();
    CropModel& model = window.content()->model();
    model.open({path});
    model.setKeyWhiteEnabled(true);
    model.setBgRemovalMode(BGRemovalMode::white);
    model.setTrimEnabled(true);
    model.setPaddingEnabled(true);
    model.setBackgroundEnabled(true);
    QApplication::processEvents();
    // The trim section's slider: the first visible slider after the switches were turned on.
    QSlider* slider = nullptr;
    for (QSlider* s : window.findChildren<QSlider*>())
        if (s->isVisibleTo(&window)) {
            slider = s;
            break;
        }
    if (!slider) {
        state.SkipWithError("no slider");
        return;
    }
    int step = 0;
    for (auto _ : state) {
        slider->setValue(1000 + (step++ * 37) % 4000); // a drag across the lower half of the range
        QApplication::processEvents();
    }
}
BENCHMARK(BM_DragThresholdSlider)->Unit(benchmark::kMillisecond)->Iterations(60);

} // namespace

int main(int argc, char** argv) {
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
