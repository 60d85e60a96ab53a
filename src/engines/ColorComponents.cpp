#include "engines/ColorComponents.h"

namespace cutlark {

std::optional<RGBA> sRGBComponents(const QColor& color) {
    if (!color.isValid()) return std::nullopt;
    const QColor c = color.toRgb();
    return RGBA{c.redF(), c.greenF(), c.blueF(), c.alphaF()};
}

} // namespace cutlark
