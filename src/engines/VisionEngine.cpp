#include "engines/VisionEngine.h"

#include "engines/Morphology.h"
#include "engines/PixelOps.h"
#include "engines/PooledMat.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QStandardPaths>

#include <opencv2/dnn.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <atomic>
#include <mutex>

namespace cutlark::VisionEngine {

namespace {

using namespace PixelOps;

const QString kModelFile = QStringLiteral("isnet-medium-fp32.onnx");
constexpr int kSide = 1024; // the graph takes exactly 1024 × 1024

// One network for the process, loaded on first use and kept for the life of the process.
struct Network {
    std::mutex mutex;
    QString overridePath;
    QString loadedFrom;
    cv::dnn::Net net;
    bool failed = false; // a file that didn't load isn't tried again
};

Network& network() {
    static Network n;
    return n;
}

QStringList candidates() {
    QStringList out;
    const QString cache = QStandardPaths::writableLocation(QStandardPaths::GenericCacheLocation);
    if (!cache.isEmpty()) out << QDir(cache).filePath(QStringLiteral("cutlark/") + kModelFile);
    if (QCoreApplication::instance()) {
        const QString bin = QCoreApplication::applicationDirPath();
        out << QDir(bin).filePath(kModelFile)
            << QDir(bin).filePath(QStringLiteral("../share/cutlark/") + kModelFile);
    }
    out << QStringLiteral("/usr/local/share/cutlark/") + kModelFile
        << QStringLiteral("/usr/share/cutlark/") + kModelFile;
    return out;
}

QString findModel(const QString& overridePath) {
    if (!overridePath.isEmpty()) return QFileInfo(overridePath).isFile() ? overridePath : QString();
    for (const QString& c : candidates())
        if (QFileInfo(c).isFile()) return QFileInfo(c).absoluteFilePath();
    return QString();
}

// Loads the network if it isn't yet; false when it can't be had. Called with the mutex held.
bool ensureLoaded(Network& n) {
    if (!n.net.empty()) return true;
    if (n.failed) return false;
    const QString path = findModel(n.overridePath);
    if (path.isEmpty()) return false;
    try {
        n.net = cv::dnn::readNetFromONNX(path.toStdString());
        n.net.setPreferableBackend(cv::dnn::DNN_BACKEND_OPENCV);
        n.net.setPreferableTarget(cv::dnn::DNN_TARGET_CPU);
        n.loadedFrom = path;
    } catch (const cv::Exception&) {
        n.net = cv::dnn::Net();
    }
    if (n.net.empty()) n.failed = true;
    return !n.net.empty();
}

} // namespace

QString modelPath() {
    Network& n = network();
    std::lock_guard lock(n.mutex);
    return findModel(n.overridePath);
}

void setModelPath(const QString& path) {
    Network& n = network();
    std::lock_guard lock(n.mutex);
    n.overridePath = path;
    n.net = cv::dnn::Net();
    n.failed = false;
}

bool isAvailable() {
    Network& n = network();
    std::lock_guard lock(n.mutex);
    if (n.failed) return false;
    return !n.net.empty() || !findModel(n.overridePath).isEmpty();
}

void preload() {
    Network& n = network();
    std::lock_guard lock(n.mutex);
    ensureLoaded(n);
}

QImage mask(const QImage& source) {
    const QImage src = rgbaPixels(source);
    if (src.isNull()) return QImage();
    try {
        // The network sees the picture at 1024², in RGB, as (value − 127.5) / 255.
        const cv::Mat rgba(src.height(), src.width(), CV_8UC4, const_cast<uchar*>(src.constBits()),
                           size_t(src.bytesPerLine()));
        cv::Mat small;
        cv::resize(rgba, small, cv::Size(kSide, kSide), 0, 0,
                   src.width() > kSide || src.height() > kSide ? cv::INTER_AREA : cv::INTER_LINEAR);
        cv::Mat rgb;
        cv::cvtColor(small, rgb, cv::COLOR_RGBA2RGB);
        const cv::Mat blob = cv::dnn::blobFromImage(rgb, 1.0 / 255.0, cv::Size(kSide, kSide),
                                                    cv::Scalar(127.5, 127.5, 127.5), false, false);
        cv::Mat out;
        {
            Network& n = network();
            std::lock_guard lock(n.mutex);
            if (!ensureLoaded(n)) return QImage();
            n.net.setInput(blob);
            out = n.net.forward("output"); // the final, fused mask of the graph's outputs
        }
        if (out.total() != size_t(kSide) * kSide) return QImage();
        QImage result(kSide, kSide, QImage::Format_Grayscale8);
        const cv::Mat plane(kSide, kSide, CV_32F, out.ptr<float>());
        cv::Mat bytes(kSide, kSide, CV_8U, result.bits(), size_t(result.bytesPerLine()));
        plane.convertTo(bytes, CV_8U, 255.0);
        return result;
    } catch (const cv::Exception&) {
        return QImage();
    }
}

bool isEmptyMask(const QImage& mask) {
    if (mask.isNull()) return true;
    qint64 above = 0;
    for (int y = 0; y < mask.height(); ++y) {
        const uchar* p = mask.constScanLine(y);
        for (int x = 0; x < mask.width(); ++x)
            above += p[x] > 127;
    }
    return double(above) < 0.005 * double(mask.width()) * double(mask.height());
}

EdgeRadius edgeRadius(int width, int height) {
    const double r = std::clamp(std::max(width, height) / 800.0, 1.5, 6.0);
    return {r, r * 0.6};
}

std::optional<QImage> composite(const QImage& source, const QImage& maskImage) {
    const QImage src = rgbaPixels(source);
    if (src.isNull() || maskImage.isNull()) return std::nullopt;
    const QImage grey = maskImage.format() == QImage::Format_Grayscale8
                            ? maskImage
                            : maskImage.convertToFormat(QImage::Format_Grayscale8);
    const int W = src.width(), H = src.height();
    QImage out = newCanvas(W, H);
    if (out.isNull()) return std::nullopt;
    try {
        const cv::Mat small(grey.height(), grey.width(), CV_8U, const_cast<uchar*>(grey.constBits()),
                            size_t(grey.bytesPerLine()));
        PooledMat full(H, W, CV_8U), pulled(H, W, CV_8U), soft(H, W, CV_8U);
        cv::resize(small, full.mat(), cv::Size(W, H), 0, 0, cv::INTER_LINEAR);
        const EdgeRadius edge = edgeRadius(W, H);
        // Edges are read as clamped, so a subject touching the border keeps its coverage there.
        Morphology::erodeDisk(full.mat(), pulled.mat(), edge.radius);
        cv::GaussianBlur(pulled.mat(), soft.mat(), cv::Size(0, 0), edge.blur, edge.blur,
                         cv::BORDER_REPLICATE);
        for (int y = 0; y < H; ++y) {
            const uchar* m = soft.mat().ptr<uchar>(y);
            const uchar* s = src.constScanLine(y);
            uchar* d = out.scanLine(y);
            for (int x = 0; x < 4 * W; ++x)
                d[x] = uchar(div255(uint32_t(s[x]) * m[x >> 2]));
        }
    } catch (const cv::Exception&) {
        return std::nullopt;
    }
    return out;
}

std::optional<QImage> computeCutout(const QImage& source) {
    if (source.width() < 1 || source.height() < 1) return std::nullopt;
    const QImage m = mask(source);
    if (m.isNull() || isEmptyMask(m)) return std::nullopt;
    return composite(source, m);
}

} // namespace cutlark::VisionEngine
