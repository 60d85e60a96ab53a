#include "KnownMaskScenes.h"

#include "io/ImageFile.h"

#include <QPainter>
#include <QPainterPath>
#include <QStandardPaths>

#include <opencv2/imgproc.hpp>

#include <cmath>

namespace cutlark::test {

namespace {

QImage photo(const QString& name) {
    const QString path = QStandardPaths::writableLocation(QStandardPaths::GenericCacheLocation) +
                         QStringLiteral("/cutlark/testdata/") + name;
    const auto loaded = ImageFile::load(path);
    return loaded ? loaded->image.convertToFormat(QImage::Format_RGB32) : QImage();
}

// The four outlines, each within about 520 × 560 around the centre of a 1024 × 768 picture.
QPainterPath outline(int kind) {
    QPainterPath p;
    switch (kind) {
    case 0: // a bottle: a round body on a square foot
        p.addEllipse(QRectF(300, 140, 420, 420));
        p.addRoundedRect(QRectF(420, 520, 180, 170), 30, 30);
        break;
    case 1: { // a ring, the texture showing through its hole
        p.addEllipse(QRectF(270, 110, 500, 500));
        QPainterPath hole;
        hole.addEllipse(QRectF(420, 260, 200, 200));
        p = p.subtracted(hole);
        break;
    }
    case 2: { // a wheel hub with thin spokes
        p.addEllipse(QRectF(440, 290, 140, 140));
        for (int i = 0; i < 8; ++i) {
            QPainterPath spoke;
            spoke.addRect(QRectF(-6, -250, 12, 250));
            QTransform t;
            t.translate(510, 360);
            t.rotate(i * 45);
            p = p.united(t.map(spoke));
        }
        break;
    }
    default: { // a mug: a box with a thin handle
        p.addRoundedRect(QRectF(330, 180, 300, 400), 24, 24);
        QPainterPath handle;
        handle.addEllipse(QRectF(560, 260, 190, 220));
        QPainterPath inner;
        inner.addEllipse(QRectF(585, 285, 140, 170));
        p = p.united(handle.subtracted(inner));
        break;
    }
    }
    return p;
}

} // namespace

std::vector<KnownMaskScene> knownMaskScenes(double edgeBlur) {
    const QStringList objects = {QStringLiteral("chelsea.png"), QStringLiteral("coffee.png"),
                                 QStringLiteral("astronaut.png"), QStringLiteral("rocket.jpg")};
    const QStringList textures = {QStringLiteral("brick.png"), QStringLiteral("gravel.png"),
                                  QStringLiteral("grass.png")};
    std::vector<KnownMaskScene> scenes;
    for (int i = 0; i < 12; ++i) {
        QImage object = photo(objects[i % 4]);
        const QImage texture = photo(textures[i % 3]);
        if (object.isNull() || texture.isNull()) return {};
        const int shape = (i / 3 + i) % 4;
        // Grey on grey: the hard ones have their colour taken away (over gravel and brick).
        const bool grey = i == 1 || i == 6 || i == 9;
        if (grey)
            object = object.convertToFormat(QImage::Format_Grayscale8).convertToFormat(QImage::Format_RGB32);

        KnownMaskScene s;
        s.name = QStringLiteral("%1 %2 on %3")
                     .arg(grey ? QStringLiteral("grey") : QString(), objects[i % 4], textures[i % 3])
                     .trimmed();
        const QRectF placed(250, 90, 540, 620);
        s.foreground = QImage(1024, 768, QImage::Format_RGB32);
        {
            QPainter p(&s.foreground);
            p.setRenderHint(QPainter::SmoothPixmapTransform);
            p.drawImage(placed, object);
        }
        s.truth = QImage(1024, 768, QImage::Format_Grayscale8);
        s.truth.fill(0);
        {
            QPainter p(&s.truth);
            p.setRenderHint(QPainter::Antialiasing);
            p.fillPath(outline(shape), Qt::white);
        }
        if (edgeBlur > 0) {
            cv::Mat t(768, 1024, CV_8U, s.truth.bits(), size_t(s.truth.bytesPerLine()));
            cv::GaussianBlur(t, t, cv::Size(0, 0), edgeBlur);
        }
        // The object over the texture, mixed by its coverage as a camera mixes them along an edge.
        s.scene = QImage(1024, 768, QImage::Format_RGB32);
        {
            QPainter p(&s.scene);
            p.setRenderHint(QPainter::SmoothPixmapTransform);
            p.drawImage(QRectF(0, 0, 1024, 768), texture);
        }
        for (int y = 0; y < 768; ++y) {
            QRgb* d = reinterpret_cast<QRgb*>(s.scene.scanLine(y));
            const QRgb* f = reinterpret_cast<const QRgb*>(s.foreground.constScanLine(y));
            const uchar* t = s.truth.constScanLine(y);
            for (int x = 0; x < 1024; ++x) {
                const int a = t[x];
                auto mix = [a](int fg, int bg) { return (fg * a + bg * (255 - a) + 127) / 255; };
                d[x] = qRgb(mix(qRed(f[x]), qRed(d[x])), mix(qGreen(f[x]), qGreen(d[x])),
                            mix(qBlue(f[x]), qBlue(d[x])));
            }
        }
        s.scene = s.scene.convertToFormat(QImage::Format_RGBA8888_Premultiplied);
        scenes.push_back(std::move(s));
    }
    return scenes;
}

CutoutScore scoreCutout(const KnownMaskScene& s, const QImage& cutout) {
    const int w = s.truth.width(), h = s.truth.height();
    const QImage cut = cutout.convertToFormat(QImage::Format_RGBA8888); // straight alpha
    cv::Mat inside(h, w, CV_8U), outside(h, w, CV_8U);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const bool in = s.truth.constScanLine(y)[x] > 127;
            inside.at<uchar>(y, x) = in ? 255 : 0;
            outside.at<uchar>(y, x) = in ? 0 : 255;
        }
    cv::Mat depthIn, depthOut; // distance to the other side
    cv::distanceTransform(inside, depthIn, cv::DIST_L2, 3);
    cv::distanceTransform(outside, depthOut, cv::DIST_L2, 3);
    qint64 both = 0, either = 0, residue = 0, deep = 0, opaque = 0;
    double edgeSum = 0, edgeWeight = 0;
    for (int y = 0; y < h; ++y) {
        const uchar* c = cut.constScanLine(y);
        const QRgb* f = reinterpret_cast<const QRgb*>(s.foreground.constScanLine(y));
        for (int x = 0; x < w; ++x) {
            const int a = c[4 * x + 3];
            const bool truthIn = inside.at<uchar>(y, x) != 0;
            const bool cutIn = a > 127;
            both += truthIn && cutIn;
            either += truthIn || cutIn;
            if (!truthIn && depthOut.at<float>(y, x) > 6 && a > 13) ++residue;
            if (truthIn && depthIn.at<float>(y, x) > 6) {
                ++deep;
                opaque += a >= 250;
            }
            const float edge = truthIn ? depthIn.at<float>(y, x) : depthOut.at<float>(y, x);
            if (edge <= 3 && a > 25) {
                const double e = (std::abs(c[4 * x] - qRed(f[x])) + std::abs(c[4 * x + 1] - qGreen(f[x])) +
                                  std::abs(c[4 * x + 2] - qBlue(f[x]))) /
                                 3.0;
                edgeSum += e * a;
                edgeWeight += a;
            }
        }
    }
    CutoutScore score;
    score.iou = either ? double(both) / double(either) : 0;
    score.residue = double(residue) / double(w * h);
    score.interior = deep ? double(opaque) / double(deep) : 0;
    score.edgeError = edgeWeight > 0 ? edgeSum / edgeWeight : 0;
    return score;
}

} // namespace cutlark::test
