#include "support/PrivateDir.h"

#include <QDir>
#include <QFile>
#include <QIODevice>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace cutlark::PrivateDir {

bool isPrivate(const QString& path) {
    struct stat st {};
    if (path.isEmpty() || lstat(QFile::encodeName(path).constData(), &st) != 0) return false;
    return S_ISDIR(st.st_mode) && st.st_uid == getuid() && (st.st_mode & 077) == 0;
}

QString runtimeDir() {
    const QString dir = qEnvironmentVariable("XDG_RUNTIME_DIR");
    if (dir.isEmpty() || !QDir::isAbsolutePath(dir) || !isPrivate(dir)) return QString();
    return QDir::cleanPath(dir);
}

QString base() {
    const QString runtime = runtimeDir();
    return runtime.isEmpty() ? QDir::tempPath() : runtime;
}

QString create(const QString& prefix) {
    QByteArray pattern = QFile::encodeName(QDir(base()).filePath(prefix + QStringLiteral("-XXXXXX")));
    if (!mkdtemp(pattern.data())) return QString();
    return QFile::decodeName(pattern);
}

QString ensure(const QString& path) {
    const QByteArray name = QFile::encodeName(path);
    if (mkdir(name.constData(), 0700) != 0 && errno != EEXIST) return QString();
    return isPrivate(path) ? path : QString();
}

namespace {

bool writeAll(int fd, const char* data, qsizetype size) {
    qsizetype written = 0;
    while (written < size) {
        const ssize_t n = write(fd, data + written, size_t(size - written));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        written += n;
    }
    return true;
}

int createNew(const QString& folder, const QString& name, QByteArray& path) {
    if (!isPrivate(folder) || name.contains(QLatin1Char('/'))) return -1;
    path = QFile::encodeName(QDir(folder).filePath(name));
    return open(path.constData(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
}

// Synced and closed; on any failure the file goes.
bool finish(int fd, const QByteArray& path, bool ok) {
    ok = ok && fsync(fd) == 0;
    if (close(fd) != 0 || !ok) {
        unlink(path.constData());
        return false;
    }
    return true;
}

} // namespace

bool writeNew(const QString& folder, const QString& name, const QByteArray& bytes) {
    QByteArray path;
    const int fd = createNew(folder, name, path);
    if (fd < 0) return false;
    return finish(fd, path, writeAll(fd, bytes.constData(), bytes.size()));
}

bool streamNew(const QString& folder, const QString& name, const QByteArray& head, QIODevice& from,
               qint64 limit, bool& tooLarge) {
    tooLarge = head.size() > limit;
    if (tooLarge) return false;
    QByteArray path;
    const int fd = createNew(folder, name, path);
    if (fd < 0) return false;
    bool ok = writeAll(fd, head.constData(), head.size());
    qint64 total = head.size();
    QByteArray slice(1 << 20, Qt::Uninitialized);
    while (ok) {
        const qint64 n = from.read(slice.data(), slice.size());
        if (n == 0 || (n < 0 && from.atEnd())) break;
        total += n;
        tooLarge = total > limit;
        ok = n > 0 && !tooLarge && writeAll(fd, slice.constData(), n);
    }
    return finish(fd, path, ok);
}

void remove(const QString& folder) {
    if (!isPrivate(folder)) return;
    const QByteArray dirName = QFile::encodeName(folder);
    const int dirFd = open(dirName.constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (dirFd < 0) return;
    if (DIR* dir = fdopendir(dirFd)) {
        while (const dirent* entry = readdir(dir)) {
            if (qstrcmp(entry->d_name, ".") == 0 || qstrcmp(entry->d_name, "..") == 0) continue;
            unlinkat(dirfd(dir), entry->d_name, 0); // a link goes, what it points at stays
        }
        closedir(dir); // closes dirFd too
    } else {
        close(dirFd);
    }
    rmdir(dirName.constData());
}

} // namespace cutlark::PrivateDir
