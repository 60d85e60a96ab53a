#include "cli/Manifest.h"

#include "support/NativePath.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>

#include <cerrno>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

namespace cutlark {

Manifest::~Manifest() {
    if (m_fd >= 0) ::close(m_fd);
}

namespace {

// Each whole line of `path` as JSON, in order; a last line cut short by a crash is left out. False
// when the file exists and can't be read; a missing file has no lines.
template <typename Each> bool eachRecord(const QString& path, QString& error, Each each) {
    QFile file(path);
    if (!file.exists()) return true;
    if (!file.open(QIODevice::ReadOnly)) {
        error = file.errorString();
        return false;
    }
    while (!file.atEnd()) {
        const QByteArray line = file.readLine();
        if (!line.endsWith('\n')) break;
        const QJsonObject o = QJsonDocument::fromJson(line).object();
        if (!o.isEmpty()) each(o);
    }
    return true;
}

} // namespace

std::optional<Manifest> Manifest::open(const QString& path, QString& error) {
    const QString folder = QFileInfo(NativePath::absolute(path)).path();
    if (!NativePath::makeFolders(folder)) {
        error = QStringLiteral("can’t create the folder “%1”").arg(folder);
        return std::nullopt;
    }
    const int fd =
        ::open(NativePath::toBytes(path).constData(), O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
        error = QString::fromLocal8Bit(std::strerror(errno));
        return std::nullopt;
    }
    // A run killed mid-line left a line without its end: it is ended here, so the next record
    // starts a line of its own rather than being glued to the broken one.
    const off_t size = ::lseek(fd, 0, SEEK_END);
    char last = '\n';
    if (size > 0 && ::pread(fd, &last, 1, size - 1) == 1 && last != '\n' && ::write(fd, "\n", 1) != 1) {
        error = QString::fromLocal8Bit(std::strerror(errno));
        ::close(fd);
        return std::nullopt;
    }
    return Manifest(fd);
}

bool Manifest::append(const QJsonObject& line) {
    QByteArray bytes = QJsonDocument(line).toJson(QJsonDocument::Compact);
    bytes += '\n';
    // One write of the whole line: with O_APPEND it lands whole after anything written before.
    qsizetype done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::write(m_fd, bytes.constData() + done, size_t(bytes.size() - done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += n;
    }
    return ::fdatasync(m_fd) == 0;
}

QHash<QString, QJsonObject> Manifest::done(const QString& path, const QString& settingsHash, QString& error) {
    QHash<QString, QJsonObject> out;
    eachRecord(path, error, [&](const QJsonObject& o) {
        const QString input = o.value(QStringLiteral("input")).toString();
        // The last record of an input decides: a later failure or skip undoes an earlier done.
        if (o.value(QStringLiteral("status")).toString() == QLatin1String("done") &&
            o.value(QStringLiteral("settings")).toString() == settingsHash)
            out.insert(input, o);
        else
            out.remove(input);
    });
    return out;
}

void Manifest::summarize(const QString& path, Summary& summary, QString& error) {
    const bool read = eachRecord(path, error, [&](const QJsonObject& o) {
        const QString input = o.value(QStringLiteral("input")).toString();
        if (input.isEmpty()) return;
        if (!summary.last.contains(input)) summary.order << input;
        summary.last.insert(input, o);
    });
    if (read && !QFileInfo::exists(path)) error = QStringLiteral("no such file");
    if (error.isEmpty()) ++summary.manifests;
}

int Manifest::Summary::count(const QString& status) const {
    int n = 0;
    for (const QJsonObject& o : last)
        n += o.value(QStringLiteral("status")).toString() == status ? 1 : 0;
    return n;
}

QJsonObject Manifest::Summary::toJson() const {
    QJsonArray failures;
    QSet<QString> settings;
    for (const QString& input : order) {
        const QJsonObject& o = last[input];
        if (o.value(QStringLiteral("status")).toString() == QLatin1String("done"))
            settings.insert(o.value(QStringLiteral("settings")).toString());
        if (o.value(QStringLiteral("status")).toString() == QLatin1String("failed"))
            failures.append(QJsonObject{{QStringLiteral("input"), input},
                                        {QStringLiteral("error"), o.value(QStringLiteral("error"))}});
    }
    return QJsonObject{{QStringLiteral("manifests"), manifests},
                       {QStringLiteral("inputs"), int(order.size())},
                       {QStringLiteral("done"), count(QStringLiteral("done"))},
                       {QStringLiteral("skipped"), count(QStringLiteral("skipped"))},
                       {QStringLiteral("failed"), failed()},
                       {QStringLiteral("settings"), int(settings.size())},
                       {QStringLiteral("failures"), failures}};
}

QString Manifest::Summary::text() const {
    const QJsonObject j = toJson();
    const auto n = [&](const char* key) { return j.value(QLatin1String(key)).toInt(); };
    QString out = QStringLiteral("%1 %2: %3 inputs, %4 done, %5 skipped, %6 failed\n")
                      .arg(n("manifests"))
                      .arg(n("manifests") == 1 ? QStringLiteral("manifest") : QStringLiteral("manifests"))
                      .arg(n("inputs"))
                      .arg(n("done"))
                      .arg(n("skipped"))
                      .arg(n("failed"));
    // Results made with other settings than the rest are worth a word: a resume with the same
    // settings would leave them as they are.
    if (n("settings") > 1)
        out += QStringLiteral("the done results were made with %1 different settings\n").arg(n("settings"));
    for (const QJsonValue& f : j.value(QStringLiteral("failures")).toArray())
        out += QStringLiteral("failed: %1: %2\n")
                   .arg(f[QStringLiteral("input")].toString(), f[QStringLiteral("error")].toString());
    return out;
}

bool Manifest::syncFolderOf(const QString& path) {
    const int fd = ::open(NativePath::toBytes(QFileInfo(path).absolutePath()).constData(),
                          O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return false;
    const bool ok = ::fsync(fd) == 0;
    ::close(fd);
    return ok;
}

} // namespace cutlark
