#include "engines/DataFiles.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QStandardPaths>
#include <QStringList>

namespace cutlark::DataFiles {

QString find(const QString& name, const QString& overridePath) {
    if (!overridePath.isEmpty()) return QFileInfo(overridePath).isFile() ? overridePath : QString();
    QStringList candidates;
    const QString cache = QStandardPaths::writableLocation(QStandardPaths::GenericCacheLocation);
    if (!cache.isEmpty()) candidates << QDir(cache).filePath(QStringLiteral("cutlark/") + name);
    if (QCoreApplication::instance()) {
        const QString bin = QCoreApplication::applicationDirPath();
        candidates << QDir(bin).filePath(name)
                   << QDir(bin).filePath(QStringLiteral("../share/cutlark/") + name);
    }
    candidates << QStringLiteral("/usr/local/share/cutlark/") + name
               << QStringLiteral("/usr/share/cutlark/") + name;
    for (const QString& c : candidates)
        if (QFileInfo(c).isFile()) return QFileInfo(c).absoluteFilePath();
    return QString();
}

} // namespace cutlark::DataFiles
