#include "engines/ColorComponents.h"

namespace cutlark {

std::optional<RGBA> sRGBComponents(const QColor& color) {
    if (!color.isValid()) return std::nullopt;
    const QColor c = color.toRgb();
    return RGBA{c.redF(), c.greenF(), c.blueF(), c.alphaF()};
}

std::optional<quint32> hexValue(QStringView digits) {
    if (digits.isEmpty() || digits.size() > 8) return std::nullopt;
    quint32 value = 0;
    for (const QChar c : digits) {
        // Digits only: QString::toUInt would also take a "0x" prefix or a sign.
        const char16_t u = c.unicode();
        quint32 digit = 0;
        if (u >= '0' && u <= '9')
            digit = u - '0';
        else if (u >= 'a' && u <= 'f')
            digit = u - 'a' + 10;
        else if (u >= 'A' && u <= 'F')
            digit = u - 'A' + 10;
        else
            return std::nullopt;
        value = value * 16 + digit;
    }
    return value;
}

std::optional<unsigned> rgbFromHexField(const QString& text) {
    QString t = text.trimmed();
    t.remove(QLatin1Char('#'));
    if (t.size() != 6) return std::nullopt;
    return hexValue(t);
}

std::optional<QColor> colorFromHex(const QString& text) {
    QStringView t = QStringView(text).trimmed();
    if (t.startsWith(QLatin1Char('#'))) t = t.mid(1);
    if (t.size() != 6 && t.size() != 8) return std::nullopt;
    const auto v = hexValue(t);
    if (!v) return std::nullopt;
    if (t.size() == 6) return QColor::fromRgb((*v >> 16) & 0xff, (*v >> 8) & 0xff, *v & 0xff, 255);
    return QColor::fromRgb((*v >> 24) & 0xff, (*v >> 16) & 0xff, (*v >> 8) & 0xff, *v & 0xff);
}

QString colorToHex(const QColor& color) {
    const QColor c = color.toRgb();
    QString s = QStringLiteral("#%1%2%3")
                    .arg(c.red(), 2, 16, QLatin1Char('0'))
                    .arg(c.green(), 2, 16, QLatin1Char('0'))
                    .arg(c.blue(), 2, 16, QLatin1Char('0'));
    if (c.alpha() != 255) s += QStringLiteral("%1").arg(c.alpha(), 2, 16, QLatin1Char('0'));
    return s.toUpper();
}

} // namespace cutlark
