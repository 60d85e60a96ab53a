#include "engines/VisionEngine.h"

#include "engines/DataFiles.h"
#include "engines/Decontamination.h"
#include "engines/Morphology.h"
#include "engines/OnnxRuntime.h"
#include "engines/PixelOps.h"
#include "engines/PooledMat.h"
#include "engines/VulkanDevices.h"

#include <QFileInfo>
#include <QStringList>
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
constexpr int kSide = 1024; // the mask's side, whatever the network's own size

// One network loaded at a time for the process, kept until another is chosen.
struct Network {
    std::mutex mutex; // held while the network loads and while it runs
    QString overridePath;
    QString loadedFrom;
    Backend wanted = Backend::automatic;
    SubjectNetwork loadedChoice;                   // what the state below is about
    std::unique_ptr<OnnxRuntime::Session> session; // ONNX Runtime's, when it could be had
    cv::dnn::Net net;                              // else OpenCV's
    std::string inputName = "input", outputName = "output";
    int width = kSide, height = kSide; // the input's size in use
    bool failed = false;               // a file that didn't load isn't tried again
    bool warm = false;                 // one run has been made
    QString problem;                   // why it failed, for the person
    QString runtimeProblem;            // why ONNX Runtime wasn't used, when it is there
    QString gpuDevice;                 // the GPU the session runs on; empty: the CPU
    QString gpuProblem;                // why not on a GPU

    // What the window asks from its main thread, copied out under a lock of its own: a load (a
    // second of hashing) or a run must not make the window wait for an answer. The network chosen
    // lives here too, so that choosing one never waits for a run.
    struct Status {
        SubjectNetwork choice;
        QString overridePath;
        bool loaded = false;
        bool failed = false;
        QString problem;
        QString runtimeProblem;
        QString gpuDevice;
        QString gpuProblem;
    };
    std::mutex statusMutex;
    Status status;
    SubjectNetwork chosen;

    bool loaded() const { return session || !net.empty(); }
    /// Copies the state into `status`; called with `mutex` held after every change.
    void publish() {
        std::lock_guard lock(statusMutex);
        status = {loadedChoice, overridePath,   loaded(),  failed,
                  problem,      runtimeProblem, gpuDevice, gpuProblem};
    }
    Status snapshot() {
        std::lock_guard lock(statusMutex);
        Status s = status;
        if (!(s.choice == chosen)) s = {chosen, overridePath, false, false, {}, {}, {}, {}}; // not tried yet
        return s;
    }
    SubjectNetwork chosenNow() {
        std::lock_guard lock(statusMutex);
        return chosen;
    }
    void forget() {
        session.reset();
        net = cv::dnn::Net();
        failed = false;
        warm = false;
        problem.clear();
        runtimeProblem.clear();
        gpuDevice.clear();
        gpuProblem.clear();
        inputName = "input";
        outputName = "output";
        width = height = kSide;
        publish();
    }
};

Network& network() {
    static Network n;
    return n;
}

QString findModel(const SubjectNetwork& choice, const QString& overridePath) {
    if (!choice.path.isEmpty()) return QFileInfo(choice.path).isFile() ? choice.path : QString();
    return DataFiles::find(kModelFile, overridePath);
}

QString shapeText(const std::vector<int64_t>& shape) {
    QStringList dims;
    for (int64_t d : shape)
        dims << (d < 0 ? QStringLiteral("?") : QString::number(d));
    return dims.isEmpty() ? QStringLiteral("a scalar") : dims.join(QStringLiteral(" × "));
}

// True when a declared dimension is open or is `want`.
bool fits(int64_t declared, int64_t want) {
    return declared < 0 || declared == want;
}

// Checks what a loaded graph declares against a subject network's contract and settles its input's
// size and the names to run by: one float input of 1 × 3 × H × W, and the first float output of
// 1 × 1 × H × W or 1 × H × W. An empty answer when it fits; else what is wrong.
QString checkPorts(Network& n, const QString& path) {
    const auto& ins = n.session->inputs();
    const auto& outs = n.session->outputs();
    const QString contract = QStringLiteral(" (a subject network takes one float input of 1 × 3 × H × W "
                                            "and gives an output of 1 × 1 × H × W or 1 × H × W)");
    if (ins.size() != 1) return QStringLiteral("“%1” takes %2 inputs").arg(path).arg(ins.size()) + contract;
    const OnnxRuntime::Session::Port& in = ins[0];
    if (!in.tensor || in.elementType != 1 || in.shape.size() != 4 || !fits(in.shape[0], 1) ||
        !fits(in.shape[1], 3))
        return QStringLiteral("“%1” takes %2 %3")
                   .arg(path,
                        in.tensor && in.elementType == 1 ? QStringLiteral("floats of")
                                                         : QStringLiteral("a non-float input of"),
                        shapeText(in.shape)) +
               contract;
    const SubjectNetwork& choice = n.loadedChoice;
    int w = choice.width, h = choice.height;
    if (in.shape[2] > 0 && in.shape[3] > 0) {
        if (choice.sizeGiven && (in.shape[3] != w || in.shape[2] != h))
            return QStringLiteral("“%1” takes pictures of %2 × %3, but “%4” says %5 × %6")
                .arg(path)
                .arg(in.shape[3])
                .arg(in.shape[2])
                .arg(SubjectNetwork::descriptorPath(path))
                .arg(w)
                .arg(h);
        if (in.shape[3] > 4096 || in.shape[2] > 4096)
            return QStringLiteral("“%1” takes pictures of %2, more than 4096 pixels a side")
                .arg(path, shapeText(in.shape));
        w = int(in.shape[3]);
        h = int(in.shape[2]);
    } else if (in.shape[2] > 0 || in.shape[3] > 0) {
        if (!fits(in.shape[2], h) || !fits(in.shape[3], w))
            return QStringLiteral("“%1” takes pictures of %2; give their size in “%3”")
                .arg(path, shapeText(in.shape), SubjectNetwork::descriptorPath(path));
    }
    for (const OnnxRuntime::Session::Port& out : outs) {
        const auto& s = out.shape;
        const bool four = s.size() == 4 && fits(s[0], 1) && fits(s[1], 1) && fits(s[2], h) && fits(s[3], w);
        const bool three = s.size() == 3 && fits(s[0], 1) && fits(s[1], h) && fits(s[2], w);
        if (out.tensor && out.elementType == 1 && (four || three)) {
            n.inputName = in.name;
            n.outputName = out.name;
            n.width = w;
            n.height = h;
            return QString();
        }
    }
    QStringList declared;
    for (const OnnxRuntime::Session::Port& out : outs)
        declared << QStringLiteral("%1 (%2)").arg(QString::fromStdString(out.name), shapeText(out.shape));
    return QStringLiteral("“%1” gives no output of 1 × 1 × %2 × %3 floats (it gives %4)")
               .arg(path)
               .arg(h)
               .arg(w)
               .arg(declared.isEmpty() ? QStringLiteral("none") : declared.join(QStringLiteral(", "))) +
           contract;
}

// The GPU to run on, if any: a Vulkan device that isn't a rasteriser on the CPU (which would only
// be slower than the runtime's own CPU kernels). CUTLARK_GPU=off keeps to the CPU; =software lets a
// software device count, so that the path can be checked on a machine without a GPU. Empty with
// `device` named when there is one; else why not.
QString gpuChoice(QString& device) {
    const QByteArray mode = qgetenv("CUTLARK_GPU");
    if (mode == "off") return QStringLiteral("the GPU is switched off (CUTLARK_GPU=off)");
    QString why;
    const std::vector<VulkanDevices::Device> devices = VulkanDevices::devices(&why);
    if (devices.empty()) return why;
    for (const VulkanDevices::Device& d : devices) {
        if (!d.software || mode == "software") {
            device = d.name;
            return QString();
        }
    }
    return QStringLiteral("the only Vulkan device is a software rasteriser (%1)").arg(devices.front().name);
}

// Operators split over the cores; past eight the network gains nothing more.
int cpuThreads() {
    return std::clamp(QThread::idealThreadCount(), 1, 8);
}

// Loads on ONNX Runtime, on the GPU where one is had (the CPU when it fails there); false when it
// couldn't (the reason in `why`), or when the graph doesn't fit (then `n.failed` is set: OpenCV
// would fare no better). Called with the mutex held.
bool loadOnRuntime(Network& n, const QString& path, QString& why) {
    QString device;
    n.gpuProblem = gpuChoice(device);
    if (n.gpuProblem.isEmpty()) {
        n.session = OnnxRuntime::Session::open(path, cpuThreads(), &why, true);
        if (n.session)
            n.gpuDevice = device;
        else
            n.gpuProblem =
                QStringLiteral("the GPU (%1) couldn’t take the network: %2").arg(device, why.trimmed());
    }
    if (!n.session) n.session = OnnxRuntime::Session::open(path, cpuThreads(), &why);
    if (!n.session) return false;
    const QString misfit = checkPorts(n, path);
    if (!misfit.isEmpty()) {
        n.session.reset();
        n.problem = misfit;
        n.failed = true;
        return false;
    }
    n.loadedFrom = path;
    return true;
}

// Loads the chosen network if it isn't yet; false when it can't be had. Called with the mutex held.
bool loadNetwork(Network& n) {
    if (n.loaded()) return true;
    if (n.failed) return false;
    const SubjectNetwork& choice = n.loadedChoice;
    const QString path = findModel(choice, n.overridePath);
    if (path.isEmpty()) {
        n.problem = choice.path.isEmpty()
                        ? QStringLiteral("the subject network isn’t installed; ") + DataFiles::howToInstall()
                        : QStringLiteral("“%1” doesn’t exist").arg(choice.path);
        return false;
    }
    // A file cut short or replaced would run and find nothing, or take any amount of memory.
    if (choice.path.isEmpty() && n.overridePath.isEmpty()) {
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
        QString why;
        if (loadOnRuntime(n, path, why)) return true;
        if (n.failed) return false;
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
        n.width = choice.width;
        n.height = choice.height;
    } catch (const cv::Exception&) {
        n.net = cv::dnn::Net();
    }
    if (n.net.empty()) {
        n.failed = true;
        n.problem = QStringLiteral("“%1” isn’t a network Cutlark can run").arg(path);
    }
    return !n.net.empty();
}

// Loads `chosen`, forgetting another network loaded before.
bool ensureLoaded(Network& n, const SubjectNetwork& chosen) {
    if (!(chosen == n.loadedChoice)) {
        n.forget();
        n.loadedChoice = chosen;
    }
    if (n.loaded()) return true;
    const bool ok = loadNetwork(n);
    n.publish();
    return ok;
}

// The network's input for a w × h RGBA picture: three planes R, G, B of (value − 255·mean) / (255·std);
// for IS-Net (value − 127.5) / 255.
std::vector<float> inputPlanes(const cv::Mat& rgba, const SubjectNetwork& choice) {
    const int w = rgba.cols, h = rgba.rows;
    const size_t plane = size_t(w) * size_t(h);
    std::vector<float> out(3 * plane);
    float offset[3];
    double scale[3];
    for (size_t c = 0; c < 3; ++c) {
        offset[c] = float(255.0 * choice.mean[c]);
        scale[c] = 1.0 / (255.0 * choice.stdDev[c]);
    }
    for (int y = 0; y < h; ++y) {
        const uchar* p = rgba.ptr<uchar>(y);
        float* r = out.data() + size_t(y) * size_t(w);
        float* g = r + plane;
        float* b = g + plane;
        for (int x = 0; x < w; ++x) {
            r[x] = float((float(p[4 * x]) - offset[0]) * scale[0]);
            g[x] = float((float(p[4 * x + 1]) - offset[1]) * scale[1]);
            b[x] = float((float(p[4 * x + 2]) - offset[2]) * scale[2]);
        }
    }
    return out;
}

// The network's output for the 1 × 3 × h × w input, as h × w floats; empty when it fails. Called
// with the mutex held and the network loaded. The input is read where it lies.
cv::Mat infer(Network& n, std::vector<float>& planes) {
    const int w = n.width, h = n.height;
    if (n.session) {
        const int64_t shape[] = {1, 3, h, w};
        QString why;
        auto out = n.session->run(n.inputName.c_str(), OnnxRuntime::Session::TensorView{shape, planes},
                                  n.outputName.c_str(), &why);
        if (!out && !n.gpuDevice.isEmpty()) {
            // A run the GPU refused (out of its memory, a lost device) goes again on the CPU, which
            // keeps the network from then on.
            QString cpuWhy;
            if (auto cpu = OnnxRuntime::Session::open(n.loadedFrom, cpuThreads(), &cpuWhy)) {
                n.gpuProblem =
                    QStringLiteral("the GPU (%1) failed on a run: %2").arg(n.gpuDevice, why.trimmed());
                n.gpuDevice.clear();
                n.session = std::move(cpu);
                out = n.session->run(n.inputName.c_str(), OnnxRuntime::Session::TensorView{shape, planes},
                                     n.outputName.c_str(), &why);
            }
        }
        if (!out || out->values.size() != size_t(w) * size_t(h)) {
            // A network whose output isn't the size of its input would be resized wrong.
            if (!n.loadedChoice.path.isEmpty())
                n.problem = out ? QStringLiteral("“%1” gave %2 values for a %3 × %4 input")
                                      .arg(n.loadedFrom)
                                      .arg(out->values.size())
                                      .arg(w)
                                      .arg(h)
                                : QStringLiteral("“%1” couldn’t run: %2").arg(n.loadedFrom, why);
            return cv::Mat();
        }
        return cv::Mat(h, w, CV_32F, out->values.data()).clone();
    }
    const int dims[] = {1, 3, h, w};
    const cv::Mat blob(4, dims, CV_32F, planes.data());
    cv::Mat out;
    try {
        n.net.setInput(blob);
        // IS-Net's final, fused mask is named; another network's first output is taken.
        out = n.loadedChoice.path.isEmpty() ? n.net.forward("output") : n.net.forward();
    } catch (const cv::Exception& e) {
        if (!n.loadedChoice.path.isEmpty())
            n.problem =
                QStringLiteral("“%1” couldn’t run: %2").arg(n.loadedFrom, QString::fromStdString(e.msg));
        return cv::Mat();
    }
    if (out.total() != size_t(w) * size_t(h)) {
        if (!n.loadedChoice.path.isEmpty())
            n.problem = QStringLiteral("“%1” gave %2 values for a %3 × %4 input")
                            .arg(n.loadedFrom)
                            .arg(out.total())
                            .arg(w)
                            .arg(h);
        return cv::Mat();
    }
    return cv::Mat(h, w, CV_32F, const_cast<float*>(out.ptr<float>())).clone();
}

} // namespace

QString modelPath() {
    Network& n = network();
    const SubjectNetwork chosen = n.chosenNow();
    std::lock_guard lock(n.mutex);
    return findModel(chosen, n.overridePath);
}

void setModelPath(const QString& path) {
    Network& n = network();
    std::lock_guard lock(n.mutex);
    n.overridePath = path;
    n.forget();
}

void useNetwork(const SubjectNetwork& choice) {
    Network& n = network();
    std::lock_guard lock(n.statusMutex);
    n.chosen = choice;
}

SubjectNetwork chosenNetwork() {
    return network().chosenNow();
}

std::optional<NetworkInfo> networkInfo() {
    Network& n = network();
    std::lock_guard lock(n.mutex);
    if (!ensureLoaded(n, n.chosenNow())) return std::nullopt;
    return NetworkInfo{n.loadedFrom, QString::fromStdString(n.inputName),
                       QString::fromStdString(n.outputName), n.width, n.height};
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
    return s.loaded || !findModel(s.choice, s.overridePath).isEmpty();
}

QString problem() {
    const Network::Status s = network().snapshot();
    if (!s.problem.isEmpty()) return s.problem;
    if (s.loaded) return QString();
    if (findModel(s.choice, s.overridePath).isEmpty())
        return s.choice.path.isEmpty()
                   ? QStringLiteral("the subject network isn’t installed; ") + DataFiles::howToInstall()
                   : QStringLiteral("“%1” doesn’t exist").arg(s.choice.path);
    return QString();
}

QString runtimeProblem() {
    return network().snapshot().runtimeProblem;
}

GpuStatus gpuStatus() {
    const Network::Status s = network().snapshot();
    return {s.gpuDevice, s.gpuProblem};
}

void preload(bool warmUp) {
    {
        Network& n = network();
        std::lock_guard lock(n.mutex);
        if (!ensureLoaded(n, n.chosenNow()) || n.warm || !warmUp) return;
    }
    // The runtime plans its buffers and kernels on the first runs; a blank picture pays for that.
    QImage blank(64, 64, QImage::Format_RGBA8888_Premultiplied);
    blank.fill(Qt::white);
    (void)mask(blank);
}

QImage mask(const QImage& source) {
    return mask(source, chosenNetwork());
}

QImage mask(const QImage& source, const SubjectNetwork& choice) {
    const QImage src = rgbaPixels(source);
    if (src.isNull()) return QImage();
    try {
        // The network sees the picture at its own size, in RGB, normalised as its descriptor says.
        const cv::Mat rgba(src.height(), src.width(), CV_8UC4, const_cast<uchar*>(src.constBits()),
                           size_t(src.bytesPerLine()));
        Network& n = network();
        std::unique_lock lock(n.mutex);
        if (!ensureLoaded(n, choice)) return QImage();
        const int w = n.width, h = n.height;
        // The input is made with the lock let go, so that parallel jobs only wait for the run itself;
        // should another network have been loaded meanwhile, this one is loaded again below.
        lock.unlock();
        cv::Mat small;
        cv::resize(rgba, small, cv::Size(w, h), 0, 0,
                   src.width() > w || src.height() > h ? cv::INTER_AREA : cv::INTER_LINEAR);
        std::vector<float> planes = inputPlanes(small, choice);
        small.release();
        lock.lock();
        if (!ensureLoaded(n, choice) || n.width != w || n.height != h) return QImage();
        cv::Mat plane = infer(n, planes);
        n.warm = true;
        n.publish();
        lock.unlock();
        if (plane.empty()) return QImage();
        if (choice.sigmoid) { // 1 / (1 + e^−x)
            cv::exp(-plane, plane);
            plane = 1.0 / (1.0 + plane);
        }
        cv::Mat bytes(h, w, CV_8U);
        plane.convertTo(bytes, CV_8U, 255.0);
        // The shaping's distances are in pixels of a 1024² mask, whatever the network's size.
        QImage result(kSide, kSide, QImage::Format_Grayscale8);
        cv::Mat out(kSide, kSide, CV_8U, result.bits(), size_t(result.bytesPerLine()));
        if (w == kSide && h == kSide)
            bytes.copyTo(out);
        else
            cv::resize(bytes, out, out.size(), 0, 0, cv::INTER_LINEAR);
        return result;
    } catch (const cv::Exception&) {
        return QImage();
    }
}

std::optional<QImage> computeCutout(const QImage& source) {
    return computeCutout(source, chosenNetwork());
}

std::optional<QImage> computeCutout(const QImage& source, const SubjectNetwork& choice) {
    if (source.width() < 1 || source.height() < 1) return std::nullopt;
    const QImage m = mask(source, choice);
    if (m.isNull() || isEmptyMask(m)) return std::nullopt;
    const QImage shaped = shapeMask(m);
    if (shaped.isNull() || isEmptyMask(shaped)) return std::nullopt;
    return composite(source, shaped);
}

} // namespace cutlark::VisionEngine
