#include "engines/VisionEngine.h"

#include "engines/DataFiles.h"
#include "engines/Decontamination.h"
#include "engines/Morphology.h"
#include "engines/OnnxRuntime.h"
#include "engines/PixelOps.h"
#include "engines/PooledMat.h"

#include <QThread>

#include <opencv2/dnn.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <vector>

namespace cutlark::VisionEngine {

namespace {

using namespace PixelOps;

const QString kModelFile = QStringLiteral("isnet-medium-fp32.onnx");
constexpr int kSide = 1024; // the graph takes exactly 1024 × 1024

// One network for the process, loaded on first use and kept for the life of the process.
struct Network {
    std::mutex mutex; // held while the network loads and while it runs
    QString overridePath;
    QString loadedFrom;
    Backend wanted = Backend::automatic;
    std::unique_ptr<OnnxRuntime::Session> session; // ONNX Runtime's, when it could be had
    cv::dnn::Net net;                              // else OpenCV's
    bool failed = false;                           // a file that didn't load isn't tried again
    bool warm = false;                             // one run has been made
    QString problem;                               // why it failed, for the person
    QString runtimeProblem;                        // why ONNX Runtime wasn't used, when it is there

    // What the window asks from its main thread, copied out under a lock of its own: a load (a
    // second of hashing) or a run must not make the window wait for an answer.
    struct Status {
        QString overridePath;
        bool loaded = false;
        bool failed = false;
        QString problem;
        QString runtimeProblem;
    };
    std::mutex statusMutex;
    Status status;

    bool loaded() const { return session || !net.empty(); }
    /// Copies the state into `status`; called with `mutex` held after every change.
    void publish() {
        std::lock_guard lock(statusMutex);
        status = {overridePath, loaded(), failed, problem, runtimeProblem};
    }
    Status snapshot() {
        std::lock_guard lock(statusMutex);
        return status;
    }
    void forget() {
        session.reset();
        net = cv::dnn::Net();
        failed = false;
        warm = false;
        problem.clear();
        runtimeProblem.clear();
        publish();
    }
};

Network& network() {
    static Network n;
    return n;
}

QString findModel(const QString& overridePath) {
    return DataFiles::find(kModelFile, overridePath);
}

// Loads the network if it isn't yet; false when it can't be had. Called with the mutex held.
bool loadNetwork(Network& n) {
    if (n.loaded()) return true;
    if (n.failed) return false;
    const QString path = findModel(n.overridePath);
    if (path.isEmpty()) {
        n.problem = QStringLiteral("the subject network isn’t installed; ") + DataFiles::howToInstall();
        return false;
    }
    // A file cut short or replaced would run and find nothing, or take any amount of memory.
    if (n.overridePath.isEmpty()) {
        n.problem = DataFiles::damage(path, kModelFile);
        if (!n.problem.isEmpty()) {
            n.failed = true;
            return false;
        }
    }
#if defined(__SANITIZE_THREAD__)
    // ONNX Runtime's own threads synchronise inside a library ThreadSanitizer can't see into, and
    // its interceptors make them crawl: under it the network runs on OpenCV.
    constexpr bool onnxRuntimeUsable = false;
#else
    constexpr bool onnxRuntimeUsable = true;
#endif
    if (!onnxRuntimeUsable && n.wanted == Backend::onnxRuntime) {
        n.problem = QStringLiteral("ONNX Runtime isn’t used in this build");
        n.failed = true;
        return false;
    }
    if (onnxRuntimeUsable && n.wanted != Backend::openCV) {
        // Operators split over the cores; past eight the network gains nothing more.
        const int threads = std::clamp(QThread::idealThreadCount(), 1, 8);
        QString why;
        n.session = OnnxRuntime::Session::open(path, threads, &why);
        if (n.session) {
            n.loadedFrom = path;
            return true;
        }
        // A machine without the library runs on OpenCV as designed; one whose library is there
        // and refused hears why.
        if (!OnnxRuntime::libraryPath().isEmpty()) n.runtimeProblem = why;
        if (n.wanted == Backend::onnxRuntime) {
            n.problem = why;
            n.failed = true;
            return false;
        }
    }
    try {
        n.net = cv::dnn::readNetFromONNX(path.toStdString());
        n.net.setPreferableBackend(cv::dnn::DNN_BACKEND_OPENCV);
        n.net.setPreferableTarget(cv::dnn::DNN_TARGET_CPU);
        n.loadedFrom = path;
    } catch (const cv::Exception&) {
        n.net = cv::dnn::Net();
    }
    if (n.net.empty()) {
        n.failed = true;
        n.problem = QStringLiteral("“%1” isn’t a network Cutlark can run").arg(path);
    }
    return !n.net.empty();
}

bool ensureLoaded(Network& n) {
    if (n.loaded()) return true;
    const bool ok = loadNetwork(n);
    n.publish();
    return ok;
}

// The network's input for a side² RGBA picture: three planes R, G, B of (value − 127.5) / 255.
std::vector<float> inputPlanes(const cv::Mat& rgba) {
    constexpr size_t plane = size_t(kSide) * kSide;
    std::vector<float> out(3 * plane);
    for (int y = 0; y < kSide; ++y) {
        const uchar* p = rgba.ptr<uchar>(y);
        float* r = out.data() + size_t(y) * kSide;
        float* g = r + plane;
        float* b = g + plane;
        for (int x = 0; x < kSide; ++x) {
            r[x] = float((float(p[4 * x]) - 127.5f) * (1.0 / 255.0));
            g[x] = float((float(p[4 * x + 1]) - 127.5f) * (1.0 / 255.0));
            b[x] = float((float(p[4 * x + 2]) - 127.5f) * (1.0 / 255.0));
        }
    }
    return out;
}

// The network's output for the 1 × 3 × side² input, as side² floats; empty when it fails. Called
// with the mutex held and the network loaded. The input is read where it lies.
cv::Mat infer(Network& n, std::vector<float>& planes) {
    if (n.session) {
        static constexpr int64_t shape[] = {1, 3, kSide, kSide};
        auto out = n.session->run("input", OnnxRuntime::Session::TensorView{shape, planes}, "output");
        if (!out || out->values.size() != size_t(kSide) * kSide) return cv::Mat();
        return cv::Mat(kSide, kSide, CV_32F, out->values.data()).clone();
    }
    const int dims[] = {1, 3, kSide, kSide};
    const cv::Mat blob(4, dims, CV_32F, planes.data());
    n.net.setInput(blob);
    const cv::Mat out = n.net.forward("output"); // the final, fused mask of the graph's outputs
    if (out.total() != size_t(kSide) * kSide) return cv::Mat();
    return cv::Mat(kSide, kSide, CV_32F, const_cast<float*>(out.ptr<float>())).clone();
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
    n.forget();
}

void setBackend(Backend backend) {
    Network& n = network();
    std::lock_guard lock(n.mutex);
    n.wanted = backend;
    n.forget();
}

Backend loadedBackend() {
    Network& n = network();
    std::lock_guard lock(n.mutex);
    return n.session ? Backend::onnxRuntime : !n.net.empty() ? Backend::openCV : Backend::automatic;
}

bool isAvailable() {
    const Network::Status s = network().snapshot();
    if (s.failed) return false;
    return s.loaded || !findModel(s.overridePath).isEmpty();
}

QString problem() {
    const Network::Status s = network().snapshot();
    if (s.loaded) return QString();
    if (!s.problem.isEmpty()) return s.problem;
    if (findModel(s.overridePath).isEmpty())
        return QStringLiteral("the subject network isn’t installed; ") + DataFiles::howToInstall();
    return QString();
}

QString runtimeProblem() {
    return network().snapshot().runtimeProblem;
}

void preload(bool warmUp) {
    {
        Network& n = network();
        std::lock_guard lock(n.mutex);
        if (!ensureLoaded(n) || n.warm || !warmUp) return;
    }
    // The runtime plans its buffers and kernels on the first runs; a blank picture pays for that.
    QImage blank(64, 64, QImage::Format_RGBA8888_Premultiplied);
    blank.fill(Qt::white);
    (void)mask(blank);
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
        std::vector<float> planes = inputPlanes(small);
        small.release();
        cv::Mat plane;
        {
            Network& n = network();
            std::lock_guard lock(n.mutex);
            if (!ensureLoaded(n)) return QImage();
            plane = infer(n, planes);
            n.warm = true;
        }
        if (plane.empty()) return QImage();
        QImage result(kSide, kSide, QImage::Format_Grayscale8);
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

QImage shapeMask(const QImage& raw, const MaskShaping& shaping) {
    if (raw.isNull()) return QImage();
    const QImage grey =
        raw.format() == QImage::Format_Grayscale8 ? raw : raw.convertToFormat(QImage::Format_Grayscale8);
    const int w = grey.width(), h = grey.height();
    QImage out(w, h, QImage::Format_Grayscale8);
    if (out.isNull()) return QImage();
    try {
        const cv::Mat in(h, w, CV_8U, const_cast<uchar*>(grey.constBits()), size_t(grey.bytesPerLine()));
        cv::Mat dst(h, w, CV_8U, out.bits(), size_t(out.bytesPerLine()));
        // Islands: label what is above the floor; keep the labels that reach above one half.
        cv::Mat region = in > shaping.floor;
        cv::Mat labels;
        const int count = cv::connectedComponents(region, labels, 8, CV_32S);
        std::vector<uchar> strong(size_t(std::max(count, 1)), 0);
        for (int y = 0; y < h; ++y) {
            const uchar* p = in.ptr<uchar>(y);
            const int* l = labels.ptr<int>(y);
            for (int x = 0; x < w; ++x)
                if (p[x] > 127) strong[size_t(l[x])] = 1;
        }
        // The contrast curve, on what survived.
        const double span = std::max(1, shaping.high - shaping.low);
        uchar curve[256];
        for (int v = 0; v < 256; ++v)
            curve[v] = uchar(std::clamp(std::lround((v - shaping.low) * 255.0 / span), 0L, 255L));
        for (int y = 0; y < h; ++y) {
            const uchar* p = in.ptr<uchar>(y);
            const int* l = labels.ptr<int>(y);
            uchar* d = dst.ptr<uchar>(y);
            for (int x = 0; x < w; ++x)
                d[x] = l[x] > 0 && strong[size_t(l[x])] ? curve[p[x]] : 0;
        }
        // Outside the band along the half-way contour, wholly in or out.
        if (shaping.band > 0) {
            cv::Mat solid = dst > 127;
            cv::Mat empty = dst <= 127;
            cv::Mat toEmpty, toSolid;
            cv::distanceTransform(solid, toEmpty, cv::DIST_L2, 3);
            cv::distanceTransform(empty, toSolid, cv::DIST_L2, 3);
            const float band = float(shaping.band);
            for (int y = 0; y < h; ++y) {
                uchar* d = dst.ptr<uchar>(y);
                const float* in1 = toEmpty.ptr<float>(y);
                const float* out1 = toSolid.ptr<float>(y);
                for (int x = 0; x < w; ++x) {
                    if (d[x] > 127 && in1[x] > band)
                        d[x] = 255;
                    else if (d[x] <= 127 && out1[x] > band)
                        d[x] = 0;
                }
            }
        }
    } catch (const cv::Exception&) {
        return QImage();
    }
    return out;
}

EdgeRadius edgeRadius(int width, int height) {
    const double r = std::clamp(std::max(width, height) / 800.0, 1.5, 6.0);
    return {r, r * 0.6};
}

std::optional<QImage> composite(const QImage& source, const QImage& maskImage, bool decontaminate) {
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
        if (decontaminate)
            Decontamination::pullForeground(src, soft.mat(), out, Decontamination::cellSideFor(W, H));
    } catch (const cv::Exception&) {
        return std::nullopt;
    }
    return out;
}

std::optional<QImage> computeCutout(const QImage& source) {
    if (source.width() < 1 || source.height() < 1) return std::nullopt;
    const QImage m = mask(source);
    if (m.isNull() || isEmptyMask(m)) return std::nullopt;
    const QImage shaped = shapeMask(m);
    if (shaped.isNull() || isEmptyMask(shaped)) return std::nullopt;
    return composite(source, shaped);
}

} // namespace cutlark::VisionEngine
