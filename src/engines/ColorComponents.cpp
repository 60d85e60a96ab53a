#include "engines/ColorComponents.h"

namespace cutlark {

std::optional<RGBA> sRGBComponents(const QColor& color) {
    if (!color.isValid()) return std::nullopt;
    const QColor c = color.toRgb();
    return RGBA{c.redF(), c.greenF(), c.blueF(), c.alphaF()};
}

std::optional<unsigned> rgbFromHexField(const QString& text) {
    QString t = text.trimmed();
    t.remove(QLatin1Char('#'));
    if (t.size() != 6) return std::nullopt;
    unsigned value = 0;
    for (const QChar c : t) {
        // Digits only: QString::toUInt would also take a "0x" prefix or a sign.
        const char16_t u = c.unicode();
        unsigned digit = 0;
        if (u >= '0' && u <= '9') digit = u - '0';
        else if (u >= 'a' && u <= 'f') digit = u - 'a' + 10;
        else if (u >= 'A' && u <= 'F') digit = u - 'A' + 10;
        else return std::nullopt;
        value = value * 16 + digit;
    }
    return value;
}

} // namespace cutlark
