#include "model/SettingsFile.h"

#include "support/AtomicFile.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>

namespace cutlark::SettingsFile {

namespace {

constexpr qint64 kLargestPreset = 16 * 1024 * 1024; // settings and touch-ups; anything bigger isn't one

} // namespace

QByteArray toJson(const Settings& settings) {
    QJsonObject json = settings.toJson();
    json.remove(QStringLiteral("backgroundImage"));
    return QJsonDocument(json).toJson(QJsonDocument::Indented);
}

std::optional<QString> write(const Settings& settings, const QString& path) {
    if (AtomicFile::write(path, toJson(settings))) return std::nullopt;
    return QStringLiteral("“%1” couldn’t be written: %2")
        .arg(QFileInfo(path).fileName(), AtomicFile::lastError());
}

std::optional<Settings> read(const QString& path, QString* error) {
    const auto fail = [&](const QString& why) {
        if (error) *error = why;
        return std::optional<Settings>();
    };
    const QString name = QFileInfo(path).fileName();
    QFile file(path);
    const QFileInfo info(path);
    if (!info.isFile() || info.size() > kLargestPreset || !file.open(QIODevice::ReadOnly))
        return fail(QStringLiteral("“%1” can’t be read as settings").arg(name));
    const QByteArray text = file.readAll();
    QJsonParseError parsed{};
    const QJsonDocument doc = QJsonDocument::fromJson(text, &parsed);
    if (parsed.error != QJsonParseError::NoError) {
        // Where, as an editor counts: line and column from 1.
        const QByteArray before = text.left(parsed.offset);
        const qsizetype line = before.count('\n') + 1;
        const qsizetype column = parsed.offset - (before.lastIndexOf('\n') + 1) + 1;
        return fail(QStringLiteral("“%1” isn’t settings: %2 at line %3, column %4")
                        .arg(name, parsed.errorString())
                        .arg(line)
                        .arg(column));
    }
    if (!doc.isObject())
        return fail(QStringLiteral("“%1” isn’t settings: they are a JSON object of setting names and values")
                        .arg(name));
    Settings settings;
    if (auto why = Settings::parseJsonInto(settings, doc.object()))
        return fail(QStringLiteral("“%1” isn’t settings Cutlark can use: %2").arg(name, *why));
    return settings;
}

} // namespace cutlark::SettingsFile
