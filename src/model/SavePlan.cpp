#include "model/SavePlan.h"

#include "io/ImageFile.h"

#include <QFileInfo>

namespace cutlark::SavePlan {

namespace {

// The path less its last extension ("Poster.final.png" → "Poster.final", "Scan" → "Scan"); folders
// stay as they are.
QString withoutExtension(const QString& path) {
    const QString suffix = QFileInfo(path).suffix();
    return suffix.isEmpty() ? path : path.left(path.size() - suffix.size() - 1);
}

} // namespace

Choice byRules(const QString& sourceType, bool transparent) {
    // A result with transparency can't go into a type without alpha.
    if (transparent && !ImageFile::supportsAlpha(sourceType))
        return {QStringLiteral("image/png"), true, false};
    return {sourceType, false, false};
}

Choice asked(const QString& type) {
    return {type, false, true};
}

QString extension(const QString& sourcePath, const Choice& choice) {
    if (choice.asked) return ImageFile::preferredExtension(choice.type);
    if (choice.forcedPng) return QStringLiteral("png");
    QString own = QFileInfo(sourcePath).suffix();
    if (own.isEmpty()) own = ImageFile::preferredExtension(choice.type);
    return own.isEmpty() ? QStringLiteral("png") : own;
}

QString newFileName(const QString& sourcePath, const Choice& choice, int number) {
    return numberedName(sourcePath, number, extension(sourcePath, choice));
}

QString numberedName(const QString& sourcePath, int number, const QString& extension) {
    const QString stem = QFileInfo(withoutExtension(sourcePath)).fileName();
    return stem + QStringLiteral("-out") + (number > 1 ? QStringLiteral("-%1").arg(number) : QString()) +
           QLatin1Char('.') + extension;
}

QString overOriginal(const QString& sourcePath, const Choice& choice) {
    const bool otherType =
        choice.forcedPng ||
        (choice.asked && ImageFile::typeForExtension(QFileInfo(sourcePath).suffix()) != choice.type);
    if (!otherType) return sourcePath;
    return withoutExtension(sourcePath) + QLatin1Char('.') + extension(sourcePath, choice);
}

} // namespace cutlark::SavePlan
