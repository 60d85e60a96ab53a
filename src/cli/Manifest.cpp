#include "cli/Manifest.h"

#include "support/NativePath.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
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

std::optional<Manifest> Manifest::open(const QString& path, QString& error) {
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
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

QSet<QString> Manifest::done(const QString& path, const QString& settingsHash, QString& error) {
    QSet<QString> out;
    QFile file(path);
    if (!file.exists()) return out;
    if (!file.open(QIODevice::ReadOnly)) {
        error = file.errorString();
        return out;
    }
    while (!file.atEnd()) {
        const QByteArray line = file.readLine();
        if (!line.endsWith('\n')) break; // cut short by a crash: not done
        const QJsonObject o = QJsonDocument::fromJson(line).object();
        if (o.value(QStringLiteral("status")).toString() == QLatin1String("done") &&
            o.value(QStringLiteral("settings")).toString() == settingsHash)
            out.insert(o.value(QStringLiteral("input")).toString());
    }
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
