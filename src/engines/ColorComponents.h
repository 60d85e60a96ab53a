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

/// What the colour picker's hex field holds, as 0xRRGGBB: six hexadecimal digits in any case, with
/// blanks or line feeds round them and any number of '#' anywhere ("ff8800", "#FF8800", "FF#8800").
/// Absent for anything else, "0x12AB" and "+FFFFF" included.
std::optional<unsigned> rgbFromHexField(const QString& text);

} // namespace cutlark
