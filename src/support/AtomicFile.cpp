#include "support/AtomicFile.h"

#include <QFile>
#include <QFileInfo>
#include <QSaveFile>

#include <cerrno>
#include <cstring>
#include <mutex>

#include <sys/stat.h>
#include <unistd.h>

namespace cutlark::AtomicFile {

namespace {
std::mutex g_injectorMutex;
std::function<bool(Step, const QString&)> g_injector;

thread_local QString t_lastError;

// Notes why the write failed, for `lastError`, and fails.
bool failed(const QString& why) {
    t_lastError = why;
    return false;
}

bool allowed(Step step, const QString& path) {
    std::lock_guard lock(g_injectorMutex);
    return !g_injector || g_injector(step, path);
}
// A file written over keeps its owner, group and mode: root saving another user's picture in place
// must not take it over, and a 0640 file must not become world-readable. A change the caller may
// not make (another owner, a group it isn't in) is left; the file then is the caller's, as any
// file it writes anew.
void keepOwnership(const QString& path, int handle) {
    struct stat st {};
    if (handle < 0 || ::stat(QFile::encodeName(path).constData(), &st) != 0 || !S_ISREG(st.st_mode)) return;
    (void)::fchown(handle, st.st_uid, st.st_gid);
    (void)::fchmod(handle, st.st_mode & 07777);
}

} // namespace

void setFaultInjector(std::function<bool(Step, const QString&)> injector) {
    std::lock_guard lock(g_injectorMutex);
    g_injector = std::move(injector);
}

QString lastError() {
    return t_lastError;
}

bool write(const QString& path, const QByteArray& bytes) {
    t_lastError.clear();
    if (path.isEmpty()) return failed(QStringLiteral("no file name"));
    if (QFileInfo(path).isDir()) return failed(QStringLiteral("a folder has that name"));
    QSaveFile file(path);
    // Never fall back to writing in place: a half-written original is worse than no write.
    file.setDirectWriteFallback(false);
    if (!allowed(Step::open, path)) return failed(QStringLiteral("refused by a test"));
    errno = 0;
    if (!file.open(QIODevice::WriteOnly))
        return failed(errno ? QString::fromLocal8Bit(std::strerror(errno)) : file.errorString());
    const auto abandon = [&file](const QString& why) {
        file.cancelWriting();
        file.commit(); // discards the temporary file
        return failed(why);
    };
    if (!allowed(Step::write, path)) return abandon(QStringLiteral("refused by a test"));
    // Qt's own text for a failed write is often "Unknown error"; errno has the system's.
    const auto why = [&file] {
        return errno ? QString::fromLocal8Bit(std::strerror(errno)) : file.errorString();
    };
    errno = 0;
    if (file.write(bytes) != bytes.size()) return abandon(why());
    // Flushed and synced here as well as in commit() so that a full disk or a failing device shows
    // before the rename, and so that each step can be made to fail on its own.
    if (!allowed(Step::sync, path)) return abandon(QStringLiteral("refused by a test"));
    errno = 0;
    if (!file.flush()) return abandon(why());
    if (::fsync(file.handle()) != 0) return abandon(QString::fromLocal8Bit(std::strerror(errno)));
    keepOwnership(path, file.handle());
    if (!allowed(Step::rename, path)) return abandon(QStringLiteral("refused by a test"));
    errno = 0;
    if (!file.commit()) return failed(why()); // renames over the target
    return true;
}

} // namespace cutlark::AtomicFile
