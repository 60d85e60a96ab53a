// Touching up a 12-megapixel cutout: the time from a pointer move to the painted sheet for one
// segment of a stroke (the sheet works on a copy 2048 pixels long), the whole Done (the edits
// applied to the full cutout), for brushes of three sizes.
#include "engines/MaskEdits.h"
#include "ui/RefineCanvas.h"
#include "ui/RefineSheet.h"

#include <QApplication>

#include <benchmark/benchmark.h>

#include <cmath>
#include <cstring>

using namespace cutlark;

namespace {

struct Photo {
    QImage source{4000, 3000, QImage::Format_RGBA8888_Premultiplied};
    QImage cutout;
    Photo() {
        for (int y = 0; y < source.height(); ++y) {
            uchar* p = source.scanLine(y);
            for (int x = 0; x < source.width(); ++x) {
                p[4 * x] = uchar(x * 7);
                p[4 * x + 1] = uchar(y * 3);
                p[4 * x + 2] = 90;
                p[4 * x + 3] = 255;
            }
        }
        cutout = source.copy();
        for (int y = 0; y < cutout.height(); ++y)
            std::memset(cutout.scanLine(y), 0, size_t(cutout.width() / 2) * 4);
    }
};

const Photo& photo() {
    static const Photo p;
    return p;
}

// Where the pointer is at step i of a zig-zag across the picture.
QPointF along(int i) {
    const double t = (i % 400) / 400.0;
    return QPointF(0.1 + 0.8 * t, 0.5 + 0.3 * std::sin(t * 12));
}

void SegmentToPaintedSheet(benchmark::State& state) {
    RefineSheet sheet(photo().source, photo().cutout, {}, 0, false);
    sheet.resize(1280, 860);
    sheet.show();
    QApplication::processEvents();
    sheet.setBrushSize(state.range(0) / 4000.0);
    RefineCanvas* canvas = sheet.canvas();
    int i = 0;
    canvas->beginStroke(along(i));
    for (auto _ : state) {
        canvas->extendStroke(along(++i));
        canvas->repaint();  // the whole canvas, as a frame would be
        if (i % 100 == 0) { // a stroke ends and the next begins, as a person draws
            state.PauseTiming();
            canvas->endStroke();
            canvas->beginStroke(along(++i));
            state.ResumeTiming();
        }
    }
    canvas->endStroke();
}
BENCHMARK(SegmentToPaintedSheet)->Arg(20)->Arg(100)->Arg(400)->Unit(benchmark::kMillisecond)->UseRealTime();

void DoneAppliesTwentyStrokesAtFullSize(benchmark::State& state) {
    MaskEdits edits;
    for (int s = 0; s < 20; ++s) {
        MaskEdit e{s % 2 ? MaskEdit::Kind::restore : MaskEdit::Kind::erase, 0.025, 0.5, {}};
        for (int k = 0; k < 40; ++k)
            e.points << along(s * 20 + k);
        edits << e;
    }
    for (auto _ : state)
        benchmark::DoNotOptimize(MaskEditing::apply(photo().cutout, photo().source, edits));
}
BENCHMARK(DoneAppliesTwentyStrokesAtFullSize)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

int main(int argc, char** argv) {
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
