#include "engines/VisionEngine.h"

// The network isn't wired in yet, so subject mode is not offered.

namespace cutlark::VisionEngine {

bool isAvailable() { return false; }

std::optional<QImage> computeCutout(const QImage&) { return std::nullopt; }

} // namespace cutlark::VisionEngine
