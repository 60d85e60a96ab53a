// The vectorizer: a silhouette trace of a 4000×3000 drawing and a colour trace of a 2000×2000
// illustration, one thread; and the helpers bench/peers.sh uses to compare with potrace.
#include "model/ImageFile.h"
#include "vectorize/VectorizeEngine.h"

#include <QCoreApplication>
#include <QFile>
#include <QPainter>
#include <QPainterPath>
#include <QSvgRenderer>

#include <benchmark/benchmark.h>
#include <opencv2/core.hpp>

#include <cstdio>
#include <cstring>

using namespace cutlark;

namespace {

QImage drawing() {
    QImage image(4000, 3000, QImage::Format_RGBA8888_Premultiplied);
    image.fill(Qt::white);
    QPainter p(&image);
    p.setRenderHint(QPainter::Antialiasing);
    p.setPen(Qt::NoPen);
    p.setBrush(Qt::black);
    p.drawEllipse(QPointF(900, 900), 600, 600);
    p.drawRect(QRectF(1700, 250, 2000, 300));
    p.drawPolygon(
        QPolygonF({QPointF(1800, 1000), QPointF(3700, 800), QPointF(3300, 2500), QPointF(2200, 2100)}));
    p.setBrush(Qt::white);
    p.drawEllipse(QPointF(900, 900), 250, 250);
    p.drawEllipse(QPointF(2700, 1600), 200, 120);
    p.setBrush(Qt::NoBrush);
    p.setPen(QPen(Qt::black, 80, Qt::SolidLine, Qt::RoundCap));
    QPainterPath curve(QPointF(300, 2750));
    curve.cubicTo(QPointF(900, 1500), QPointF(1400, 2950), QPointF(1900, 2650));
    p.drawPath(curve);
    p.end();
    return image;
}

QImage illustration() {
    QImage art(2000, 2000, QImage::Format_RGBA8888_Premultiplied);
    art.fill(QColor(250, 245, 230));
    QPainter p(&art);
    p.setRenderHint(QPainter::Antialiasing);
    p.setPen(Qt::NoPen);
    p.setBrush(QColor(30, 60, 140));
    p.drawRect(0, 1300, 2000, 700);
    p.setBrush(QColor(180, 220, 240));
    p.drawEllipse(QPointF(1500, 500), 380, 380);
    p.setBrush(QColor(250, 200, 40));
    p.drawEllipse(QPointF(1500, 500), 200, 200);
    p.setBrush(QColor(40, 150, 80));
    p.drawPolygon(QPolygonF({QPointF(100, 1300), QPointF(700, 400), QPointF(1300, 1300)}));
    p.setBrush(QColor(230, 80, 40));
    p.drawRoundedRect(QRectF(900, 1450, 800, 400), 80, 80);
    p.setBrush(QColor(120, 40, 120));
    p.drawEllipse(QPointF(400, 1650), 250, 180);
    p.setBrush(QColor(20, 20, 20));
    p.drawRect(QRectF(660, 900, 80, 400));
    p.end();
    return art;
}

void BM_Trace(benchmark::State& state) {
    static const QImage image = drawing();
    for (auto _ : state)
        benchmark::DoNotOptimize(VectorizeEngine::trace(image, 0));
}
BENCHMARK(BM_Trace)->Unit(benchmark::kMillisecond);

void BM_TraceColor(benchmark::State& state) {
    static const QImage image = illustration();
    for (auto _ : state)
        benchmark::DoNotOptimize(VectorizeEngine::traceColor(image, TraceParams{45, 3e-5, 2, 3}));
}
BENCHMARK(BM_TraceColor)->Unit(benchmark::kMillisecond);

// Intersection over union of the ink of a picture and an SVG rendered back at its size.
double iou(const QImage& picture, const QString& svgPath) {
    QSvgRenderer renderer(svgPath);
    if (!renderer.isValid()) return -1;
    QImage back(picture.size(), QImage::Format_ARGB32_Premultiplied);
    back.fill(Qt::transparent);
    QPainter p(&back);
    renderer.render(&p);
    p.end();
    qint64 both = 0, either = 0;
    for (int y = 0; y < picture.height(); ++y)
        for (int x = 0; x < picture.width(); ++x) {
            const bool ink = qRed(picture.pixel(x, y)) < 128;
            const bool traced = qAlpha(back.pixel(x, y)) >= 128;
            both += ink && traced;
            either += ink || traced;
        }
    return either ? double(both) / double(either) : 1.0;
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    cv::setNumThreads(1);
    // bench/peers.sh: the drawing as PNG and PBM for potrace, our SVG of it, and the IoU of any SVG.
    if (argc == 3 && std::strcmp(argv[1], "--write-inputs") == 0) {
        const QString dir = QString::fromLocal8Bit(argv[2]);
        const QImage image = drawing();
        image.save(dir + QStringLiteral("/drawing.png"));
        image.convertToFormat(QImage::Format_Mono).save(dir + QStringLiteral("/drawing.pbm"), "PBM");
        const auto outcome = VectorizeEngine::trace(image, 0);
        QFile svg(dir + QStringLiteral("/ours.svg"));
        if (!svg.open(QIODevice::WriteOnly)) return 1;
        svg.write(VectorizeEngine::svg(outcome.trace, VectorizeStyle::silhouette, 1).toUtf8());
        return 0;
    }
    if (argc == 4 && std::strcmp(argv[1], "--iou") == 0) {
        const QImage picture = ImageFile::load(QString::fromLocal8Bit(argv[2]))->image;
        std::printf("%.4f\n", iou(picture, QString::fromLocal8Bit(argv[3])));
        return 0;
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
