#pragma once

#include <QImage>

#include <optional>

/// The subject cutout: a foreground mask from a segmentation network, applied to the source.
namespace cutlark::VisionEngine {

/// True when a cutout can be computed on this machine (the network is present and loads).
bool isAvailable();

/// The source with everything but its subject made transparent, at the source's size; absent when no
/// subject is found or the network fails. Blocking; call it off the main thread.
std::optional<QImage> computeCutout(const QImage& source);

} // namespace cutlark::VisionEngine
