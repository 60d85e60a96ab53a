// Text the user types: the CLI's --set values and presets, and colours in hex.
#include "model/Settings.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const QString text = QString::fromUtf8(reinterpret_cast<const char*>(data), qsizetype(size));
    cutlark::Settings settings;
    for (const QString& name : cutlark::Settings::names()) {
        if (name == QLatin1String("backgroundImageURL")) continue; // would read files
        (void)cutlark::Settings::parseInto(settings, name, text);
    }
    (void)cutlark::colorFromHex(text);
    const QJsonDocument doc = QJsonDocument::fromJson(QByteArray(reinterpret_cast<const char*>(data), qsizetype(size)));
    if (doc.isObject() && !doc.object().contains(QStringLiteral("backgroundImageURL")))
        (void)cutlark::Settings::parseJsonInto(settings, doc.object());
    return 0;
}
