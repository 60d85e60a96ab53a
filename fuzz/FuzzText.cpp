// Text the user types: the CLI's --set values and presets, and colours in hex.
#include "engines/ColorComponents.h"
#include "model/Settings.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const QString text = QString::fromUtf8(reinterpret_cast<const char*>(data), qsizetype(size));
    cutlark::Settings settings;
    for (const QString& name : cutlark::Settings::names()) {
        if (name == QLatin1String("backgroundImageURL")) continue; // would read files
        (void)cutlark::Settings::parseInto(settings, name, text);
    }
    (void)cutlark::colorFromHex(text);
    // The picker's field: whatever it accepts is six hex digits once blanks and '#' are gone, and
    // reads as the number they spell.
    if (const auto rgb = cutlark::rgbFromHexField(text)) {
        QString digits = text.trimmed();
        digits.remove(QLatin1Char('#'));
        bool hex = digits.size() == 6;
        for (const QChar c : digits)
            hex = hex && QStringLiteral("0123456789abcdefABCDEF").contains(c);
        if (!hex || *rgb > 0xffffff || digits.toUInt(nullptr, 16) != *rgb) std::abort();
    }
    const QJsonDocument doc =
        QJsonDocument::fromJson(QByteArray(reinterpret_cast<const char*>(data), qsizetype(size)));
    if (doc.isObject() && !doc.object().contains(QStringLiteral("backgroundImageURL")))
        (void)cutlark::Settings::parseJsonInto(settings, doc.object());
    return 0;
}
