#pragma once

#include <QString>

#include <array>
#include <optional>

namespace cutlark {

/// A segmentation network and how a picture becomes its input and its output a mask. The
/// defaults are the installed IS-Net's conventions: 1024 × 1024 pixels, input = value / 255 − 0.5,
/// output already a probability.
struct SubjectNetwork {
    QString path;     ///< the .onnx file; empty: the installed IS-Net
    int width = 1024; ///< its input's size in pixels
    int height = 1024;
    bool sizeGiven = false;                      ///< the descriptor names the size
    std::array<double, 3> mean{0.5, 0.5, 0.5};   ///< per channel R, G, B, on values scaled to 0…1
    std::array<double, 3> stdDev{1.0, 1.0, 1.0}; ///< input = (value / 255 − mean) / std
    bool sigmoid = false;                        ///< the output is a logit, not yet a probability

    bool operator==(const SubjectNetwork&) const = default;

    /// The descriptor read beside a network: `FILE.json` for `FILE.onnx`.
    static QString descriptorPath(const QString& onnxPath);

    /// The network at `onnxPath` with what its descriptor says (IS-Net's conventions where there is
    /// none, or for the keys it leaves out). Keys: "size": [w, h] (16…4096), "mean" and "std": one
    /// number or three, "sigmoid": true or false. Absent with `error` naming the file and what is
    /// wrong when the network file isn't there or the descriptor isn't one (an unknown key too, so
    /// that a typing slip isn't silently ignored).
    static std::optional<SubjectNetwork> read(const QString& onnxPath, QString* error = nullptr);

    /// A person's name for it: the file's name without ".onnx", or "IS-Net" for the default.
    QString displayName() const;

    /// The folder where the window looks for networks a person brings:
    /// `~/.local/share/cutlark/networks` (or below `$XDG_DATA_HOME`).
    static QString userFolder();
    /// The `.onnx` files in it, by name.
    static QStringList userNetworks();
};

} // namespace cutlark
