#include "engines/DataFiles.h"

#include "support/AtomicFile.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>
#include <QStringList>

#include <sys/stat.h>

namespace cutlark::DataFiles {

namespace {

QString cacheFolder() {
    const QString cache = QStandardPaths::writableLocation(QStandardPaths::GenericCacheLocation);
    return cache.isEmpty() ? QString() : QDir(cache).filePath(QStringLiteral("cutlark"));
}

// What identifies one version of a file on this machine: a rewrite changes its time or inode.
QString identity(const QString& path) {
    struct stat st {};
    if (::stat(QFile::encodeName(path).constData(), &st) != 0 || !S_ISREG(st.st_mode)) return QString();
    return QStringLiteral("%1 %2.%3 %4 %5")
        .arg(qint64(st.st_size))
        .arg(qint64(st.st_mtim.tv_sec))
        .arg(qint64(st.st_mtim.tv_nsec))
        .arg(quint64(st.st_ino))
        .arg(QFileInfo(path).absoluteFilePath());
}

const QString kStampName = QStringLiteral("checked");

QStringList stampLines() {
    const QString folder = cacheFolder();
    if (folder.isEmpty()) return {};
    QFile stamp(QDir(folder).filePath(kStampName));
    if (!stamp.open(QIODevice::ReadOnly) || stamp.size() > 64 * 1024) return {};
    return QString::fromUtf8(stamp.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

void remember(const QString& line) {
    const QString folder = cacheFolder();
    if (folder.isEmpty() || !QFileInfo(folder).isDir()) return; // nothing is made for a stamp
    QStringList lines = stampLines();
    lines.removeAll(line);
    lines.append(line);
    while (lines.size() > 16) // a few versions of two files; older lines are of files long gone
        lines.removeFirst();
    (void)AtomicFile::write(QDir(folder).filePath(kStampName), lines.join(QLatin1Char('\n')).toUtf8() + '\n');
}

// The file's SHA-256 read in slices, so a large file costs no more memory than one slice.
QString digestOf(const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) return QString();
    QCryptographicHash hash(QCryptographicHash::Sha256);
    QByteArray slice(1 << 20, Qt::Uninitialized);
    for (;;) {
        const qint64 n = file.read(slice.data(), slice.size());
        if (n < 0) return QString();
        if (n == 0) break;
        hash.addData(QByteArrayView(slice.constData(), n));
    }
    return QString::fromLatin1(hash.result().toHex());
}

} // namespace

QString find(const QString& name, const QString& overridePath) {
    if (!overridePath.isEmpty()) return QFileInfo(overridePath).isFile() ? overridePath : QString();
    QStringList candidates;
    const QString cache = cacheFolder();
    if (!cache.isEmpty()) candidates << QDir(cache).filePath(name);
    if (QCoreApplication::instance()) {
        const QString bin = QCoreApplication::applicationDirPath();
        candidates << QDir(bin).filePath(name)
                   << QDir(bin).filePath(QStringLiteral("../share/cutlark/") + name)
                   << QDir(bin).filePath(QStringLiteral("../lib/cutlark/") + name);
    }
    // The network is data (share); its runtime is a library for this machine (lib), as installed by
    // the cutlark-network package.
    candidates << QStringLiteral("/usr/local/share/cutlark/") + name
               << QStringLiteral("/usr/share/cutlark/") + name
               << QStringLiteral("/usr/local/lib/cutlark/") + name
               << QStringLiteral("/usr/lib/cutlark/") + name;
    for (const QString& c : candidates)
        if (QFileInfo(c).isFile()) return QFileInfo(c).absoluteFilePath();
    return QString();
}

QString knownDigest(const QString& name) {
    if (name == QLatin1String("isnet-medium-fp32.onnx")) return QStringLiteral(CUTLARK_NETWORK_SHA256);
    if (name == QLatin1String("libonnxruntime.so.1")) return QStringLiteral(CUTLARK_RUNTIME_SHA256);
    return QString();
}

QString damage(const QString& path, const QString& name) {
    const QString known = knownDigest(name);
    if (known.isEmpty()) return QString();
    const QString id = identity(path);
    const QString stamp = known + QLatin1Char(' ') + id;
    if (!id.isEmpty() && stampLines().contains(stamp)) return QString();
    const QString digest = id.isEmpty() ? QString() : digestOf(path);
    if (digest == known) {
        remember(stamp);
        return QString();
    }
    const QString remedy = path.startsWith(QLatin1String("/usr/"))
                               ? QStringLiteral("reinstall the cutlark-network package")
                               : QStringLiteral("delete it and ") + howToInstall();
    return QStringLiteral("“%1” is damaged (it isn’t the file Cutlark fetched); %2")
        .arg(QDir::toNativeSeparators(path), remedy);
}

QString howToInstall() {
    // An installed program lives in a system folder; a build of the tree has the set-up beside it.
    const QString bin = QCoreApplication::instance() ? QCoreApplication::applicationDirPath() : QString();
    if (bin.startsWith(QLatin1String("/usr/")) || bin.startsWith(QLatin1String("/opt/")))
        return QStringLiteral("install the cutlark-network package to get it");
    return QStringLiteral("run scripts/setup.sh (or ./run.sh) to fetch it");
}

} // namespace cutlark::DataFiles
