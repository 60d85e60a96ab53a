#pragma once

#include <QString>

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

/// ONNX Runtime, loaded at run time from its shared library (`libonnxruntime.so.1`, which the set-up
/// puts in the user's cache folder). Only the few entries of its C API that running one network on
/// the CPU needs are bound; nothing is linked at build time, so the program starts and works without
/// the library, only the subject cutout then runs on OpenCV.
namespace cutlark::OnnxRuntime {

/// Where the library is looked for, in order: the user's cache folder, beside the running binary,
/// the installed share folder. Empty when none has it.
QString libraryPath();

/// Test seam: use this file instead of searching (empty to search again). Only takes effect before
/// the first successful load: a library once loaded stays for the life of the process.
void setLibraryPath(const QString& path);

/// The loaded library's version ("1.30.0"), loading it if needed; absent when it can't be had
/// (missing, not ONNX Runtime, older than 1.16, or its API table refused). `error` says why.
std::optional<QString> version(QString* error = nullptr);

/// One loaded network with its own thread pool. Runs are serialised by the caller.
class Session {
public:
    /// Loads `modelPath` with full graph optimisation, `threads` threads inside operators and one
    /// between them. The CPU arena goes: it grows in doubling chunks and keeps them, and for the
    /// subject network on two cores it holds 160 MB more at the peak (1.30 against 1.14 GiB for a
    /// 12-megapixel cutout) for a run 0.2 s faster (0.85 against 1.06 s), a poor trade on a desktop
    /// that also holds a queue of photographs. The memory pattern goes too: it keeps a second,
    /// planned block (peak 1.98 GB against 1.35 GB with the arena) and makes the run no faster. Null
    /// with `error` on failure.
    /// With `webGpu`, the runtime's WebGPU execution provider (Dawn over Vulkan) runs what it can and
    /// the CPU the rest; the session fails when that provider can't be had.
    static std::unique_ptr<Session> open(const QString& modelPath, int threads, QString* error = nullptr,
                                         bool webGpu = false);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    struct Tensor {
        std::vector<int64_t> shape;
        std::vector<float> values;
    };
    /// An input read where it lies, without a copy; the values must outlive the run.
    struct TensorView {
        std::span<const int64_t> shape;
        std::span<const float> values;
    };
    /// Runs the graph on one float input and fetches one float output by name. Absent with
    /// `error` when the runtime refuses (wrong names, shapes or types) or runs out of memory.
    std::optional<Tensor> run(const char* inputName, TensorView input, const char* outputName,
                              QString* error = nullptr);
    std::optional<Tensor> run(const char* inputName, const Tensor& input, const char* outputName,
                              QString* error = nullptr) {
        return run(inputName, TensorView{input.shape, input.values}, outputName, error);
    }

    /// One of the graph's inputs or outputs as the graph declares it.
    struct Port {
        std::string name;
        bool tensor = false;        ///< a tensor (not a sequence or a map)
        int elementType = 0;        ///< ONNX's element type: 1 is float
        std::vector<int64_t> shape; ///< −1 where the graph leaves a dimension open
    };
    const std::vector<Port>& inputs() const { return m_inputs; }
    const std::vector<Port>& outputs() const { return m_outputs; }

private:
    Session() = default;
    void* m_session = nullptr;
    std::vector<Port> m_inputs;
    std::vector<Port> m_outputs;
};

} // namespace cutlark::OnnxRuntime
