#pragma once

#include <QColor>

#include <optional>

namespace cutlark {

/// A colour's components in sRGB, each nominally 0…1.
struct RGBA {
    double r = 0, g = 0, b = 0, a = 1;
};

/// The sRGB red, green, blue and alpha of a stored colour; absent for an invalid colour.
/// Colours of other models (HSV, CMYK, extended RGB) are converted to sRGB first.
std::optional<RGBA> sRGBComponents(const QColor& color);

} // namespace cutlark
