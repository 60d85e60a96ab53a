#pragma once

#include "engines/SubjectNetwork.h"

#include <QImage>
#include <QString>

#include <optional>

/// The subject cutout: a foreground mask from a salient-object network (IS-Net, run by OpenCV on the
/// CPU), pulled in and softened at its edge, applied to the source.
namespace cutlark::VisionEngine {

/// Where the network file is looked for, in order: the user's cache folder (where the set-up puts
/// it), beside the running binary, and the installed share folder. Empty when none has it.
QString modelPath();

/// Test seam: use this file instead of searching (empty to search again). Forgets a loaded network.
void setModelPath(const QString& path);

/// Cutouts from now on run this network (the default choice: the installed IS-Net). Doesn't wait for
/// a run in progress: the network loads, and one chosen before is forgotten, on the next cutout.
void useNetwork(const SubjectNetwork& choice);
SubjectNetwork chosenNetwork();

/// The chosen network as loaded: its file, the names it runs by and its input's size.
struct NetworkInfo {
    QString path;
    QString input;
    QString output;
    int width = 0;
    int height = 0;
};
/// Loads the chosen network (blocking) and describes it; absent when it can't be had (`problem`).
std::optional<NetworkInfo> networkInfo();

/// What runs the network: ONNX Runtime when its library can be loaded (about three times faster),
/// else OpenCV's own inference. `automatic` chooses so; the others are for benchmarks and tests.
enum class Backend { automatic, onnxRuntime, openCV };

/// Test and benchmark seam: run the network on this backend from now on (forgets a loaded network).
void setBackend(Backend backend);

/// The backend the loaded network runs on; `automatic` while none is loaded.
Backend loadedBackend();

/// True when a cutout can be computed here: the network file is present and hasn't failed to load.
/// Cheap: nothing is read; the network is checked and loaded on first use, off the main thread.
bool isAvailable();

/// Why a cutout can't be had, in a person's words naming the file and how to get it again (not
/// installed, damaged, not a network that runs); empty while nothing has gone wrong. A damaged
/// file is found when the network loads, so this may only say so after the first attempt.
QString problem();

/// Why ONNX Runtime wasn't used although its library is present (damaged, refused), so that the
/// network runs on OpenCV, three times slower; empty otherwise.
QString runtimeProblem();

/// Where the loaded network runs: the GPU's name when on one (ONNX Runtime's WebGPU back end over
/// Vulkan), else why not (no Vulkan device, only a software one, switched off, or the GPU failed);
/// both empty before the network has loaded, or when it runs on OpenCV.
struct GpuStatus {
    QString device;
    QString whyNot;
};
GpuStatus gpuStatus();

/// Loads the network now, if it is present and not loaded yet, and with `warmUp` runs it once on a
/// blank picture: the runtime's first run takes twice as long as the next ones (it sizes its
/// buffers), so a window that warms up at start has its first cutout at full speed. Blocking; for a
/// background thread.
void preload(bool warmUp = true);

/// The chosen network's mask for `source` at 1024 × 1024 (resized from the network's own size), values 0…1 as
/// bytes 0…255; empty when the network can't be had. Blocking. Safe to call from several threads (inference
/// is serialised).
QImage mask(const QImage& source);
/// The same with the network `choice` (loaded in place of another), whatever is chosen.
QImage mask(const QImage& source, const SubjectNetwork& choice);

/// How the network's probabilities become a mask like a platform's foreground mask: opaque inside,
/// transparent outside, soft only along the edge. Measured on twelve objects of known shape over
/// brick, gravel and grass (tests/KnownMaskScenes; bench/bench_masks prints the figures): the
/// opaque share of the interior goes from 95.8 % to 99.1 % (the worst from 88.3 % to 90.3 %), the
/// faint background left around the subject from 0.74 % to 0.72 %, and the outline doesn't move
/// (mean IoU 0.891 either way). The constants hardly matter within 32–96 and 160–224 (mean IoU
/// 0.887–0.894); these sit in the middle. Every distance is in pixels of the 1024 × 1024 mask.
struct MaskShaping {
    /// Islands: a region above `floor` stays only where it holds a pixel above one half, so faint
    /// patches of the old background that don't touch the subject go.
    int floor = 26;
    /// The contrast curve: `low` and below is transparent, `high` and above opaque, linear between.
    int low = 64;
    int high = 192;
    /// Farther than this from the half-way contour a pixel is wholly in or out.
    double band = 3.0;
};

/// The network's raw mask shaped as `shaping` says; same size, Grayscale8. Null stays null.
QImage shapeMask(const QImage& raw, const MaskShaping& shaping = {});

/// True when a mask shows no subject: fewer than 0.5 % of its pixels above one half.
bool isEmptyMask(const QImage& mask);

/// The edge of the cutout: a minimum filter of radius r = longer side / 800, kept within 1.5 … 6,
/// then a blur of r × 0.6.
struct EdgeRadius {
    double radius;
    double blur;
};
EdgeRadius edgeRadius(int width, int height);

/// The source with its mask applied: the mask brought to the source's size, pulled in by the edge
/// radius and softened (both reading clamped edges), and all four premultiplied channels multiplied
/// by it. With `decontaminate`, the partly covered pixels along the edge then lose the old
/// background's share of their colour (`Decontamination::pullForeground`). Absent when the images
/// are empty or memory runs out.
std::optional<QImage> composite(const QImage& source, const QImage& mask, bool decontaminate = true);

/// The whole cutout of `source` at its own size; absent when no subject is found or the network
/// fails. Blocking; call it off the main thread.
std::optional<QImage> computeCutout(const QImage& source);
std::optional<QImage> computeCutout(const QImage& source, const SubjectNetwork& choice);

} // namespace cutlark::VisionEngine
