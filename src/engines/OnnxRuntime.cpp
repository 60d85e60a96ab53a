#include "engines/OnnxRuntime.h"

#include "engines/DataFiles.h"

#include <QFile>

#include <dlfcn.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

namespace cutlark::OnnxRuntime {

namespace {

// The C API is a table of function pointers that only ever grows at its end, so an entry keeps its
// place in every later version. These are the places of the entries used here, all present since
// the first version of the table, with their signatures as the API documents them. The runtime's
// objects are opaque pointers; its status is a pointer, null for success.
using Status = void*;
enum Entry : int {
    kGetErrorMessage = 2,
    kCreateEnv = 3,
    kDisableTelemetryEvents = 6,
    kCreateSession = 7,
    kRun = 9,
    kCreateSessionOptions = 10,
    kDisableMemPattern = 17,
    kDisableCpuMemArena = 19,
    kSetSessionGraphOptimizationLevel = 23,
    kSetIntraOpNumThreads = 24,
    kSetInterOpNumThreads = 25,
    kSessionGetInputCount = 30,
    kSessionGetOutputCount = 31,
    kSessionGetInputTypeInfo = 33,
    kSessionGetOutputTypeInfo = 34,
    kSessionGetInputName = 36,
    kSessionGetOutputName = 37,
    kCreateTensorWithDataAsOrtValue = 49,
    kGetTensorMutableData = 51,
    kCastTypeInfoToTensorInfo = 55,
    kGetOnnxTypeFromTypeInfo = 56,
    kGetDimensionsCount = 61,
    kGetDimensions = 62,
    kGetTensorElementType = 60,
    kGetTensorShapeElementCount = 64,
    kGetTensorTypeAndShape = 65,
    kCreateCpuMemoryInfo = 69,
    kAllocatorFree = 76,
    kGetAllocatorWithDefaultOptions = 78,
    kReleaseEnv = 92,
    kReleaseStatus = 93,
    kReleaseMemoryInfo = 94,
    kReleaseSession = 95,
    kReleaseValue = 96,
    kReleaseTypeInfo = 98,
    kReleaseTensorTypeAndShapeInfo = 99,
    kReleaseSessionOptions = 100,
    kSessionOptionsAppendExecutionProvider = 216, // since 1.12
};
constexpr int kLoggingError = 3;     // OrtLoggingLevel: warnings stay quiet
constexpr int kOptimizeAll = 99;     // GraphOptimizationLevel: every rewrite
constexpr int kDeviceAllocator = 0;  // OrtAllocatorType: plain allocations, no arena
constexpr int kMemTypeDefault = 0;   // OrtMemType
constexpr int kElementFloat = 1;     // ONNXTensorElementDataType
constexpr int kOnnxTypeTensor = 1;   // ONNXType
constexpr uint32_t kApiVersion = 16; // the oldest table asked for; every entry above is in it
constexpr int kOldestMinor = 16;     // 1.16, with that table

struct ApiBase {
    const void* (*getApi)(uint32_t version) noexcept;
    const char* (*getVersionString)() noexcept;
};

struct Library {
    std::mutex mutex;
    QString overridePath;
    bool tried = false;
    void* handle = nullptr;
    const void* const* api = nullptr; // the table
    void* env = nullptr;
    QString version;
    QString error;
};

Library& library() {
    static Library l;
    return l;
}

template <typename Fn> Fn entry(const Library& l, Entry e) {
    return reinterpret_cast<Fn>(const_cast<void*>(l.api[e]));
}

// The message of a failed call, and the status released.
QString take(const Library& l, Status status) {
    if (!status) return QString();
    const auto message = entry<const char* (*)(Status) noexcept>(l, kGetErrorMessage);
    const QString text = QString::fromUtf8(message(status));
    entry<void (*)(Status) noexcept>(l, kReleaseStatus)(status);
    return text.isEmpty() ? QStringLiteral("unknown error") : text;
}

const QString kLibraryName = QStringLiteral("libonnxruntime.so.1");

QString find(const QString& overridePath) {
    return DataFiles::find(kLibraryName, overridePath);
}

// The runtime's builds for Linux carry a telemetry uploader that keeps a device identifier and an
// event log in the home folder, files in /tmp, and looks up its collector's host. It reads this
// variable once, when the library initialises, as a full opt-out. Set while the process is still
// one thread (a static initialiser), whatever the user's environment says, and checked again
// before the library is opened.
bool optOutOfTelemetry() {
    const char* now = std::getenv("ORT_DISABLE_TELEMETRY");
    if (now && std::strcmp(now, "1") == 0) return true;
    return ::setenv("ORT_DISABLE_TELEMETRY", "1", 1) == 0;
}
[[maybe_unused]] const bool kTelemetryOptedOut = optOutOfTelemetry();

// The GPU drivers the runtime's WebGPU back end may load keep compiled shaders in caches of their
// own in the home folder (Mesa's, NVIDIA's). They go below Cutlark's cache folder instead; set
// while the process is one thread, and only where the user hasn't chosen a place.
bool keepShaderCachesInOurs() {
    const char* cache = std::getenv("XDG_CACHE_HOME");
    const char* home = std::getenv("HOME");
    std::string base = cache && *cache ? cache
                       : home && *home ? std::string(home) + "/.cache"
                                       : std::string();
    if (base.empty()) return false;
    const std::string folder = base + "/cutlark/gpu-shaders";
    for (const char* name : {"MESA_SHADER_CACHE_DIR", "MESA_GLSL_CACHE_DIR", "__GL_SHADER_DISK_CACHE_PATH"})
        ::setenv(name, folder.c_str(), 0);
    return true;
}
[[maybe_unused]] const bool kShaderCachesKept = keepShaderCachesInOurs();

// Loads the library once; true when its table and environment are ready. Called with the mutex held.
bool ensureLoaded(Library& l) {
    if (l.env) return true;
    if (l.tried) return false;
    l.tried = true;
    const QString path = find(l.overridePath);
    if (path.isEmpty()) {
        l.error = QStringLiteral("libonnxruntime.so.1 not found");
        return false;
    }
    // A damaged library would crash the loader (a truncated one faults, random bytes smash the
    // stack), so what the set-up fetched is checked before it is opened; a test's own file isn't.
    if (l.overridePath.isEmpty()) {
        l.error = DataFiles::damage(path, kLibraryName);
        if (!l.error.isEmpty()) return false;
    }
    if (!optOutOfTelemetry()) {
        l.error = QStringLiteral("ONNX Runtime's telemetry couldn't be switched off");
        return false;
    }
    void* handle = dlopen(QFile::encodeName(path).constData(), RTLD_NOW | RTLD_LOCAL);
    if (!handle) {
        l.error = QString::fromLocal8Bit(dlerror());
        return false;
    }
    const auto getBase = reinterpret_cast<const ApiBase* (*)() noexcept>(dlsym(handle, "OrtGetApiBase"));
    const ApiBase* base = getBase ? getBase() : nullptr;
    const QString version =
        base && base->getVersionString ? QString::fromLatin1(base->getVersionString()) : QString();
    const QStringList parts = version.split(QLatin1Char('.'));
    bool numeric = false;
    const int minor = parts.size() >= 2 ? parts[1].toInt(&numeric) : 0;
    if (!base || parts.size() < 2 || parts[0] != QLatin1String("1") || !numeric || minor < kOldestMinor) {
        l.error = base ? QStringLiteral("ONNX Runtime %1 is older than 1.%2").arg(version).arg(kOldestMinor)
                       : QStringLiteral("%1 is not ONNX Runtime").arg(path);
        dlclose(handle);
        return false;
    }
    const auto* api = static_cast<const void* const*>(base->getApi(kApiVersion));
    if (!api) {
        l.error = QStringLiteral("ONNX Runtime %1 refuses API version %2").arg(version).arg(kApiVersion);
        dlclose(handle);
        return false;
    }
    l.handle = handle;
    l.api = api;
    l.version = version;
    void* env = nullptr;
    QString failed = take(l, entry<Status (*)(int, const char*, void**) noexcept>(l, kCreateEnv)(
                                 kLoggingError, "cutlark", &env));
    if (!failed.isEmpty() || !env) {
        l.error = failed;
        return false; // the library stays loaded; nothing of it is used
    }
    // The second guard: should the variable ever be missed, events are still not collected.
    failed = take(l, entry<Status (*)(const void*) noexcept>(l, kDisableTelemetryEvents)(env));
    if (!failed.isEmpty()) {
        l.error = QStringLiteral("ONNX Runtime's telemetry couldn't be switched off: %1").arg(failed);
        return false;
    }
    l.env = env; // kept for the life of the process, as the runtime's threads may outlive a session
    return true;
}

// Releases a runtime object with the entry given, when it goes out of scope.
struct Released {
    const Library& l;
    Entry release;
    void* object = nullptr;
    ~Released() {
        if (object) entry<void (*)(void*) noexcept>(l, release)(object);
    }
};

// The names, element types and shapes of a loaded graph's inputs (or outputs). Called with the
// library's mutex held.
QString describe(const Library& l, const void* session, bool inputs, std::vector<Session::Port>& ports) {
    using Count = Status (*)(const void*, size_t*) noexcept;
    using TypeInfo = Status (*)(const void*, size_t, void**) noexcept;
    using Name = Status (*)(const void*, size_t, void*, char**) noexcept;
    size_t count = 0;
    QString failed =
        take(l, entry<Count>(l, inputs ? kSessionGetInputCount : kSessionGetOutputCount)(session, &count));
    void* allocator = nullptr;
    if (failed.isEmpty())
        failed = take(l, entry<Status (*)(void**) noexcept>(l, kGetAllocatorWithDefaultOptions)(&allocator));
    for (size_t i = 0; failed.isEmpty() && i < count; ++i) {
        Session::Port port;
        char* name = nullptr;
        failed = take(l, entry<Name>(l, inputs ? kSessionGetInputName
                                               : kSessionGetOutputName)(session, i, allocator, &name));
        if (!failed.isEmpty()) break;
        if (name) {
            port.name = name;
            entry<Status (*)(void*, void*) noexcept>(l, kAllocatorFree)(allocator, name);
        }
        Released info{l, kReleaseTypeInfo};
        failed = take(l, entry<TypeInfo>(l, inputs ? kSessionGetInputTypeInfo
                                                   : kSessionGetOutputTypeInfo)(session, i, &info.object));
        int onnxType = 0;
        if (failed.isEmpty())
            failed = take(l, entry<Status (*)(const void*, int*) noexcept>(l, kGetOnnxTypeFromTypeInfo)(
                                 info.object, &onnxType));
        if (failed.isEmpty() && onnxType == kOnnxTypeTensor) {
            const void* tensor = nullptr; // belongs to the type info
            failed = take(l, entry<Status (*)(const void*, const void**) noexcept>(
                                 l, kCastTypeInfoToTensorInfo)(info.object, &tensor));
            size_t rank = 0;
            if (failed.isEmpty())
                failed = take(l, entry<Status (*)(const void*, int*) noexcept>(l, kGetTensorElementType)(
                                     tensor, &port.elementType));
            if (failed.isEmpty())
                failed = take(l, entry<Status (*)(const void*, size_t*) noexcept>(l, kGetDimensionsCount)(
                                     tensor, &rank));
            port.shape.resize(rank);
            if (failed.isEmpty())
                failed = take(l, entry<Status (*)(const void*, int64_t*, size_t) noexcept>(l, kGetDimensions)(
                                     tensor, port.shape.data(), rank));
        }
        port.tensor = onnxType == kOnnxTypeTensor;
        ports.push_back(std::move(port));
    }
    return failed;
}

} // namespace

QString libraryPath() {
    Library& l = library();
    std::lock_guard lock(l.mutex);
    return find(l.overridePath);
}

void setLibraryPath(const QString& path) {
    Library& l = library();
    std::lock_guard lock(l.mutex);
    l.overridePath = path;
    if (!l.env) {
        l.tried = false;
        l.error.clear();
    }
}

std::optional<QString> version(QString* error) {
    Library& l = library();
    std::lock_guard lock(l.mutex);
    if (!ensureLoaded(l)) {
        if (error) *error = l.error;
        return std::nullopt;
    }
    return l.version;
}

std::unique_ptr<Session> Session::open(const QString& modelPath, int threads, QString* error, bool webGpu) {
    Library& l = library();
    std::lock_guard lock(l.mutex);
    const auto fail = [&](const QString& why) {
        if (error) *error = why;
        return std::unique_ptr<Session>();
    };
    if (!ensureLoaded(l)) return fail(l.error);
    Released options{l, kReleaseSessionOptions};
    QString failed = take(l, entry<Status (*)(void**) noexcept>(l, kCreateSessionOptions)(&options.object));
    if (failed.isEmpty())
        failed = take(l, entry<Status (*)(void*, int) noexcept>(l, kSetSessionGraphOptimizationLevel)(
                             options.object, kOptimizeAll));
    if (failed.isEmpty())
        failed = take(l, entry<Status (*)(void*, int) noexcept>(l, kSetIntraOpNumThreads)(
                             options.object, std::max(1, threads)));
    if (failed.isEmpty())
        failed = take(l, entry<Status (*)(void*, int) noexcept>(l, kSetInterOpNumThreads)(options.object, 1));
    if (failed.isEmpty())
        failed = take(l, entry<Status (*)(void*) noexcept>(l, kDisableMemPattern)(options.object));
    if (failed.isEmpty())
        failed = take(l, entry<Status (*)(void*) noexcept>(l, kDisableCpuMemArena)(options.object));
    if (failed.isEmpty() && webGpu)
        failed = take(
            l, entry<Status (*)(void*, const char*, const char* const*, const char* const*, size_t) noexcept>(
                   l, kSessionOptionsAppendExecutionProvider)(options.object, "WebGPU", nullptr, nullptr, 0));
    if (!failed.isEmpty()) return fail(failed);
    std::unique_ptr<Session> session(new Session);
    const QByteArray path = QFile::encodeName(modelPath);
    failed = take(l, entry<Status (*)(void*, const char*, void*, void**) noexcept>(l, kCreateSession)(
                         l.env, path.constData(), options.object, &session->m_session));
    if (!failed.isEmpty() || !session->m_session) return fail(failed);
    failed = describe(l, session->m_session, true, session->m_inputs);
    if (failed.isEmpty()) failed = describe(l, session->m_session, false, session->m_outputs);
    if (!failed.isEmpty()) return fail(failed);
    return session;
}

Session::~Session() {
    if (!m_session) return;
    Library& l = library();
    entry<void (*)(void*) noexcept>(l, kReleaseSession)(m_session);
}

std::optional<Session::Tensor> Session::run(const char* inputName, TensorView input, const char* outputName,
                                            QString* error) {
    Library& l = library();
    const auto fail = [&](const QString& why) {
        if (error) *error = why;
        return std::optional<Tensor>();
    };
    size_t count = 1;
    for (int64_t d : input.shape) {
        if (d < 0) return fail(QStringLiteral("negative dimension"));
        count *= size_t(d);
    }
    if (count != input.values.size()) return fail(QStringLiteral("the values don't fill the shape"));

    Released memory{l, kReleaseMemoryInfo};
    QString failed = take(l, entry<Status (*)(int, int, void**) noexcept>(l, kCreateCpuMemoryInfo)(
                                 kDeviceAllocator, kMemTypeDefault, &memory.object));
    if (!failed.isEmpty()) return fail(failed);
    // The runtime reads the input where it is; it doesn't write to it.
    Released in{l, kReleaseValue};
    failed = take(l, entry<Status (*)(void*, void*, size_t, const int64_t*, size_t, int, void**) noexcept>(
                         l, kCreateTensorWithDataAsOrtValue)(
                         memory.object, const_cast<float*>(input.values.data()), count * sizeof(float),
                         input.shape.data(), input.shape.size(), kElementFloat, &in.object));
    if (!failed.isEmpty()) return fail(failed);

    Released out{l, kReleaseValue};
    const char* inputNames[] = {inputName};
    const char* outputNames[] = {outputName};
    void* inputs[] = {in.object};
    void* outputs[] = {nullptr};
    failed = take(l, entry<Status (*)(void*, const void*, const char* const*, const void* const*, size_t,
                                      const char* const*, size_t, void**) noexcept>(l, kRun)(
                         m_session, nullptr, inputNames, inputs, 1, outputNames, 1, outputs));
    out.object = outputs[0];
    if (!failed.isEmpty() || !out.object) return fail(failed);

    Released info{l, kReleaseTensorTypeAndShapeInfo};
    failed = take(l, entry<Status (*)(const void*, void**) noexcept>(l, kGetTensorTypeAndShape)(
                         out.object, &info.object));
    if (!failed.isEmpty()) return fail(failed);
    int type = 0;
    size_t rank = 0;
    size_t elements = 0;
    failed =
        take(l, entry<Status (*)(const void*, int*) noexcept>(l, kGetTensorElementType)(info.object, &type));
    if (failed.isEmpty())
        failed = take(
            l, entry<Status (*)(const void*, size_t*) noexcept>(l, kGetDimensionsCount)(info.object, &rank));
    Tensor result;
    result.shape.resize(rank);
    if (failed.isEmpty())
        failed = take(l, entry<Status (*)(const void*, int64_t*, size_t) noexcept>(l, kGetDimensions)(
                             info.object, result.shape.data(), rank));
    if (failed.isEmpty())
        failed = take(l, entry<Status (*)(const void*, size_t*) noexcept>(l, kGetTensorShapeElementCount)(
                             info.object, &elements));
    if (!failed.isEmpty()) return fail(failed);
    if (type != kElementFloat) return fail(QStringLiteral("the output isn't float"));
    void* data = nullptr;
    failed = take(l, entry<Status (*)(void*, void**) noexcept>(l, kGetTensorMutableData)(out.object, &data));
    if (!failed.isEmpty() || (!data && elements > 0)) return fail(failed);
    const float* values = static_cast<const float*>(data);
    result.values.assign(values, values + elements);
    return result;
}

} // namespace cutlark::OnnxRuntime
