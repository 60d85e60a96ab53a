// The vectorizer: a silhouette trace of a 4000×3000 drawing and a colour trace of a 2000×2000
// illustration, one thread; the helpers bench/peers.sh uses to compare with potrace; and
// --curves DIR, bench/curves.sh's comparison of smooth curves with potrace on text and icons.
#include "io/ImageFile.h"
#include "vectorize/VectorizeEngine.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QGuiApplication>
#include <QPainter>
#include <QPainterPath>
#include <QProcess>
#include <QSvgRenderer>

#include <benchmark/benchmark.h>
#include <opencv2/core.hpp>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>
#include <optional>
#include <vector>

using namespace cutlark;

namespace {

// A silhouette trace's parameters with curves fitted.
TraceParams curvesOn() {
    TraceParams params;
    params.curves = true;
    return params;
}

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
        benchmark::DoNotOptimize(VectorizeEngine::trace(image));
}
BENCHMARK(BM_Trace)->Unit(benchmark::kMillisecond);

void BM_TraceCurves(benchmark::State& state) {
    static const QImage image = drawing();
    for (auto _ : state)
        benchmark::DoNotOptimize(VectorizeEngine::trace(image, curvesOn()));
}
BENCHMARK(BM_TraceCurves)->Unit(benchmark::kMillisecond);

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

// --- smooth curves against potrace (bench/curves.sh) ---

// A drawing of text or icons, drawable at any scale so that the truth can be drawn at 4x.
struct Drawing {
    QString name;
    QSize size;
    std::function<void(QPainter&)> draw;
    bool binary = false; ///< drawn without antialiasing, as a thresholded scan is
};

QImage render(const Drawing& d, int scale) {
    QImage image(d.size * scale, QImage::Format_RGBA8888_Premultiplied);
    image.fill(Qt::white);
    QPainter p(&image);
    p.setRenderHint(QPainter::Antialiasing, !d.binary);
    p.setRenderHint(QPainter::TextAntialiasing, !d.binary);
    p.scale(scale, scale);
    p.setPen(Qt::NoPen);
    p.setBrush(Qt::black);
    d.draw(p);
    return image;
}

Drawing text(const QString& name, const QString& family, int pixels, const QString& words, QSize size,
             bool binary = false, bool italic = false, bool bold = false) {
    return Drawing{name, size,
                   [=](QPainter& p) {
                       QFont font(family);
                       font.setPixelSize(pixels);
                       font.setItalic(italic);
                       font.setBold(bold);
                       QPainterPath path;
                       path.addText(QPointF(pixels * 0.2, size.height() / 2.0 + pixels * 0.35), font, words);
                       p.drawPath(path);
                   },
                   binary};
}

std::vector<Drawing> drawings() {
    std::vector<Drawing> out;
    out.push_back(text(QStringLiteral("sans-24"), QStringLiteral("DejaVu Sans"), 24,
                       QStringLiteral("Quick brown fox, jumps! Qg&@"), QSize(420, 110)));
    out.push_back(text(QStringLiteral("serif-48"), QStringLiteral("DejaVu Serif"), 48,
                       QStringLiteral("Cyclic Qs & gS"), QSize(440, 150)));
    out.push_back(text(QStringLiteral("mono-90"), QStringLiteral("DejaVu Sans Mono"), 90,
                       QStringLiteral("a@5%R"), QSize(300 + 90, 120)));
    out.push_back(text(QStringLiteral("serif-200"), QStringLiteral("DejaVu Serif"), 200,
                       QStringLiteral("Q&g"), QSize(520, 270)));
    out.push_back(text(QStringLiteral("sans-120"), QStringLiteral("DejaVu Sans"), 120,
                       QStringLiteral("S8ebo"), QSize(440, 160)));
    // Binary text at large sizes in four faces, and more antialiased faces.
    out.push_back(text(QStringLiteral("serif-260-binary"), QStringLiteral("DejaVu Serif"), 260,
                       QStringLiteral("HEBag"), QSize(900, 340), true));
    out.push_back(text(QStringLiteral("sans-bold-300-binary"), QStringLiteral("DejaVu Sans"), 300,
                       QStringLiteral("RSk3"), QSize(980, 390), true, false, true));
    out.push_back(text(QStringLiteral("serif-italic-240-binary"), QStringLiteral("DejaVu Serif"), 240,
                       QStringLiteral("fQy&"), QSize(820, 330), true, true));
    out.push_back(text(QStringLiteral("sans-36-binary"), QStringLiteral("DejaVu Sans"), 36,
                       QStringLiteral("Binary scans, 36 px"), QSize(420, 80), true));
    out.push_back(text(QStringLiteral("serif-italic-64"), QStringLiteral("DejaVu Serif"), 64,
                       QStringLiteral("Italic fig"), QSize(420, 110), false, true));
    out.push_back(text(QStringLiteral("sans-bold-160"), QStringLiteral("DejaVu Sans"), 160,
                       QStringLiteral("B@w"), QSize(520, 220), false, false, true));
    // Silhouettes of an animal at about 1, 4 and 12 megapixels, binary.
    for (const auto& [name, side] :
         {std::pair{"animal-1mp", 1200}, std::pair{"animal-4mp", 2400}, std::pair{"animal-12mp", 4200}}) {
        const double k = side / 3000.0;
        out.push_back(Drawing{QString::fromLatin1(name), QSize(side, int(side * 2 / 3.0)),
                              [k](QPainter& p) {
                                  p.scale(k, k);
                                  QPainterPath body(QPointF(600, 1200));
                                  body.cubicTo(QPointF(700, 500), QPointF(1900, 400), QPointF(2300, 900));
                                  body.cubicTo(QPointF(2700, 700), QPointF(2850, 1000), QPointF(2500, 1150));
                                  body.cubicTo(QPointF(2300, 1700), QPointF(1100, 1800), QPointF(600, 1200));
                                  p.drawPath(body);
                                  p.drawEllipse(QPointF(500, 900), 260, 220);
                                  p.drawEllipse(QPointF(380, 680), 60, 140);
                                  for (int leg = 0; leg < 4; ++leg)
                                      p.drawRoundedRect(QRectF(900 + leg * 380, 1350, 110, 520), 50, 50);
                              },
                              true});
    }
    out.push_back(Drawing{QStringLiteral("icon-heart-gear"), QSize(400, 400), [](QPainter& p) {
                              QPainterPath heart(QPointF(100, 80));
                              heart.cubicTo(QPointF(100, 40), QPointF(40, 30), QPointF(30, 80));
                              heart.cubicTo(QPointF(25, 120), QPointF(80, 150), QPointF(100, 180));
                              heart.cubicTo(QPointF(120, 150), QPointF(175, 120), QPointF(170, 80));
                              heart.cubicTo(QPointF(160, 30), QPointF(100, 40), QPointF(100, 80));
                              p.drawPath(heart);
                              QPainterPath gear;
                              for (int k = 0; k < 12; ++k) {
                                  const double a = k * M_PI / 6, b = a + M_PI / 12;
                                  const QPointF c(280, 280);
                                  const auto at = [&](double ang, double r) {
                                      return c + QPointF(std::cos(ang) * r, std::sin(ang) * r);
                                  };
                                  if (k == 0) gear.moveTo(at(a - 0.1, 100));
                                  gear.lineTo(at(a - 0.1, 100));
                                  gear.lineTo(at(a + 0.1, 100));
                                  gear.lineTo(at(b - 0.12, 80));
                                  gear.lineTo(at(b + 0.12, 80));
                              }
                              gear.closeSubpath();
                              gear.addEllipse(QPointF(280, 280), 35, 35);
                              gear.setFillRule(Qt::OddEvenFill);
                              p.drawPath(gear);
                          }});
    out.push_back(Drawing{QStringLiteral("icon-app"), QSize(300, 300), [](QPainter& p) {
                              QPainterPath icon;
                              icon.addRoundedRect(QRectF(20, 20, 260, 260), 60, 60);
                              icon.addEllipse(QPointF(150, 130), 70, 70);
                              QPolygonF star;
                              for (int k = 0; k < 10; ++k) {
                                  const double r = k % 2 ? 22 : 55, a = -M_PI / 2 + k * M_PI / 5;
                                  star << QPointF(150 + r * std::cos(a), 130 + r * std::sin(a));
                              }
                              icon.addPolygon(star);
                              icon.addRect(QRectF(60, 225, 180, 22));
                              icon.setFillRule(Qt::OddEvenFill);
                              p.drawPath(icon);
                          }});
    return out;
}

QImage renderedSvg(const QByteArray& svg, QSize size) {
    QSvgRenderer renderer(svg);
    QImage back(size, QImage::Format_ARGB32_Premultiplied);
    back.fill(Qt::transparent);
    QPainter p(&back);
    p.setRenderHint(QPainter::Antialiasing);
    renderer.render(&p);
    return back;
}

struct Score {
    double iou1 = 0, iou4 = 0, errorPerPerimeter = 0;
};

// Ink of the truth (dark) against ink of the rendered trace (alpha), at 1x and 4x.
Score score(const Drawing& d, const QByteArray& svg) {
    Score s;
    // Beyond two megapixels the 4x truth would take gigabytes: scored at 1x only.
    const bool large = qint64(d.size.width()) * d.size.height() > 2'000'000;
    for (int scale : {1, 4}) {
        if (scale == 4 && large) {
            s.iou4 = s.errorPerPerimeter = std::nan("");
            continue;
        }
        const QImage truth = render(d, scale);
        const QImage back = renderedSvg(svg, truth.size());
        qint64 both = 0, either = 0, edges = 0;
        for (int y = 0; y < truth.height(); ++y)
            for (int x = 0; x < truth.width(); ++x) {
                const bool ink = qRed(truth.pixel(x, y)) < 128;
                const bool traced = qAlpha(back.pixel(x, y)) >= 128;
                both += ink && traced;
                either += ink || traced;
                if (x > 0) edges += ink != (qRed(truth.pixel(x - 1, y)) < 128);
                if (y > 0) edges += ink != (qRed(truth.pixel(x, y - 1)) < 128);
            }
        const double iou = either ? double(both) / double(either) : 1.0;
        if (scale == 1) {
            s.iou1 = iou;
        } else {
            // Pixels on the wrong side of the boundary, in source pixels, per source pixel of boundary.
            s.iou4 = iou;
            s.errorPerPerimeter = (double(either - both) / 16.0) / (double(edges) / 4.0);
        }
    }
    return s;
}

struct Timing {
    double median = 0, fastest = 0;
};

// The same run times in one process can settle at two levels a millisecond apart, so both the
// median and the fastest of many runs are reported.
template <typename F> Timing timed(F f, int runs = 7) {
    std::vector<double> t;
    for (int i = 0; i < runs; ++i) {
        QElapsedTimer timer;
        timer.start();
        f();
        t.push_back(double(timer.nsecsElapsed()) / 1e6);
    }
    std::sort(t.begin(), t.end());
    return {t[t.size() / 2], t.front()};
}

template <typename F> double medianMs(F f, int runs = 7) {
    return timed(f, runs).median;
}

int curvesAgainstPotrace(const QString& dir) {
    std::printf(
        "| drawing | tool | error/perimeter px | IoU 1x | IoU 4x | SVG bytes | ms, median / fastest of 21 "
        "|\n|---|---|---|---|---|---|---|\n");
    for (const Drawing& d : drawings()) {
        const QImage picture = render(d, 1);
        // The same speck floor for both: our silhouette drops shapes under 0.04 % of the picture.
        const int floor = int(0.0004 * picture.width() * picture.height());
        const QString pbm = dir + QLatin1Char('/') + d.name + QStringLiteral(".pbm");
        QImage mono(picture.size(), QImage::Format_Mono);
        mono.setColorTable({qRgb(255, 255, 255), qRgb(0, 0, 0)});
        for (int y = 0; y < picture.height(); ++y)
            for (int x = 0; x < picture.width(); ++x) {
                const QRgb c = picture.pixel(x, y);
                const int darkness = 255 - (299 * qRed(c) + 587 * qGreen(c) + 114 * qBlue(c)) / 1000;
                mono.setPixel(x, y, darkness >= 129 ? 1 : 0);
            }
        mono.save(pbm, "PBM");
        const QString potraceSvg = dir + QLatin1Char('/') + d.name + QStringLiteral("-potrace.svg");
        const QStringList args{QStringLiteral("-s"), QStringLiteral("-t"), QString::number(floor),
                               QStringLiteral("-o"), potraceSvg,           pbm};
        const Timing potraceMs = timed([&] { QProcess::execute(QStringLiteral("potrace"), args); }, 21);
        QFile pf(potraceSvg);
        if (!pf.open(QIODevice::ReadOnly)) {
            std::fprintf(stderr, "potrace wrote nothing for %s\n", qPrintable(d.name));
            return 1;
        }
        const QByteArray theirs = pf.readAll();
        for (const bool curves : {false, true}) {
            QByteArray ours;
            const Timing ms = timed(
                [&] {
                    const auto t = VectorizeEngine::trace(picture, TraceParams{.curves = curves});
                    ours = VectorizeEngine::svg(t.trace, VectorizeStyle::silhouette, 1).toUtf8();
                },
                21);
            QFile out(dir + QLatin1Char('/') + d.name +
                      (curves ? QStringLiteral("-curves.svg") : QStringLiteral("-polygons.svg")));
            if (out.open(QIODevice::WriteOnly)) out.write(ours);
            const Score s = score(d, ours);
            std::printf("| %s | cutlark %s | %.3f | %.4f | %.4f | %lld | %.2f / %.2f |\n", qPrintable(d.name),
                        curves ? "curves" : "polygons", s.errorPerPerimeter, s.iou1, s.iou4,
                        static_cast<long long>(ours.size()), ms.median, ms.fastest);
        }
        const Score s = score(d, theirs);
        std::printf("| %s | potrace 1.16 -t %d | %.3f | %.4f | %.4f | %lld | %.2f / %.2f (a process) |\n",
                    qPrintable(d.name), floor, s.errorPerPerimeter, s.iou1, s.iou4,
                    static_cast<long long>(theirs.size()), potraceMs.median, potraceMs.fastest);
    }
    return 0;
}

// A photograph softened and posterised to four levels a channel, traced in full colour apart and stacked:
// the lowest alpha of the rendering inside the picture, and the share of pixels within 300 (squared
// RGB distance) of the picture's colour as a viewer sees the document: laid on a white page, and on a
// black one (a gap shows the page; the colour of a half-covered pixel alone would hide it).
int stackedLayers(const QString& photoPath) {
    const auto loaded = ImageFile::load(photoPath);
    if (!loaded) return 1;
    QImage photo = loaded->image.convertToFormat(QImage::Format_RGB32);
    if (photo.width() > 1200) photo = photo.scaledToWidth(1200, Qt::SmoothTransformation);
    // Softened first (down to a sixth and back), so that the levels make regions rather than noise.
    photo = photo.scaled(photo.size() / 6, Qt::IgnoreAspectRatio, Qt::SmoothTransformation)
                .scaled(photo.size(), Qt::IgnoreAspectRatio, Qt::SmoothTransformation)
                .convertToFormat(QImage::Format_RGB32);
    for (int y = 0; y < photo.height(); ++y) {
        auto* row = reinterpret_cast<QRgb*>(photo.scanLine(y));
        for (int x = 0; x < photo.width(); ++x) {
            const auto level = [](int v) { return std::min(255, (v / 64) * 85); };
            row[x] = qRgb(level(qRed(row[x])), level(qGreen(row[x])), level(qBlue(row[x])));
        }
    }
    std::printf("| %dx%d posterised | layers | lowest alpha | pixels below 250 | colour within 300 on white "
                "| on black | ms |\n|---|---|---|---|---|---|---|\n",
                photo.width(), photo.height());
    for (const int variant : {0, 1, 2, 3}) {
        const bool stacked = variant % 2, curves = variant / 2;
        const char* name =
            curves ? (stacked ? "stacked, curves" : "apart, curves") : (stacked ? "stacked" : "apart");
        TraceParams params;
        params.stacked = stacked;
        params.curves = curves;
        std::optional<VectorColorTrace> t;
        const double ms = medianMs([&] { t = VectorizeEngine::traceColor(photo, params); }, 3);
        if (!t) {
            std::printf("| %s | no trace |\n", name);
            continue;
        }
        const QImage back = renderedSvg(VectorizeEngine::colorSVG(*t).toUtf8(), photo.size())
                                .convertToFormat(QImage::Format_ARGB32_Premultiplied);
        int lowest = 255;
        qint64 below = 0, goodOnWhite = 0, goodOnBlack = 0;
        for (int y = 0; y < photo.height(); ++y) {
            const auto* drawn = reinterpret_cast<const QRgb*>(back.constScanLine(y));
            const auto* truth = reinterpret_cast<const QRgb*>(photo.constScanLine(y));
            for (int x = 0; x < photo.width(); ++x) {
                const QRgb b = drawn[x], a = truth[x];
                lowest = std::min(lowest, qAlpha(b));
                below += qAlpha(b) < 250;
                // Premultiplied: on black the channels as they are, on white plus what alpha leaves.
                const int page = 255 - qAlpha(b);
                const auto near = [&](int lift) {
                    const int dr = qRed(a) - qRed(b) - lift, dg = qGreen(a) - qGreen(b) - lift,
                              db = qBlue(a) - qBlue(b) - lift;
                    return dr * dr + dg * dg + db * db <= 300;
                };
                goodOnWhite += near(page);
                goodOnBlack += near(0);
            }
        }
        const double all = double(photo.width()) * photo.height();
        std::printf("| %s | %d | %d | %lld | %.2f %% | %.2f %% | %.0f |\n", name, int(t->layers.size()),
                    lowest, static_cast<long long>(below), 100.0 * double(goodOnWhite) / all,
                    100.0 * double(goodOnBlack) / all, ms);
    }
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::strcmp(argv[1], "--curves") == 0) {
        // Text needs fonts, and fonts need a GUI application (with no screen: offscreen).
        if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
        QGuiApplication gui(argc, argv);
        cv::setNumThreads(1);
        return curvesAgainstPotrace(QString::fromLocal8Bit(argv[2]));
    }
    if (argc == 3 && std::strcmp(argv[1], "--stacked") == 0) {
        QGuiApplication gui(argc, argv);
        cv::setNumThreads(1);
        return stackedLayers(QString::fromLocal8Bit(argv[2]));
    }
    QCoreApplication app(argc, argv);
    cv::setNumThreads(1);
    // bench/peers.sh: the drawing as PNG and PBM for potrace, our SVG of it, and the IoU of any SVG.
    if (argc == 3 && std::strcmp(argv[1], "--write-inputs") == 0) {
        const QString dir = QString::fromLocal8Bit(argv[2]);
        const QImage image = drawing();
        image.save(dir + QStringLiteral("/drawing.png"));
        image.convertToFormat(QImage::Format_Mono).save(dir + QStringLiteral("/drawing.pbm"), "PBM");
        const auto outcome = VectorizeEngine::trace(image);
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
