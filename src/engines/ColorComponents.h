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

/// The number that `digits` spell in hexadecimal, any case: digits only, at most eight of them, at
/// least one. Absent for anything else (no "0x", no sign, no blanks); the one reader of hexadecimal
/// colours, behind both forms below.
std::optional<quint32> hexValue(QStringView digits);

/// What the colour picker's hex field holds, as 0xRRGGBB: six hexadecimal digits in any case, with
/// blanks or line feeds round them and any number of '#' anywhere ("ff8800", "#FF8800", "FF#8800").
/// Absent for anything else, "0x12AB" and "+FFFFF" included.
std::optional<unsigned> rgbFromHexField(const QString& text);

/// A colour written as a setting: `#RRGGBB` or `#RRGGBBAA`, the '#' optional, blanks round it allowed.
std::optional<QColor> colorFromHex(const QString& text);

/// `#RRGGBB`, or `#RRGGBBAA` when the colour isn't opaque; upper case.
QString colorToHex(const QColor& color);

} // namespace cutlark
