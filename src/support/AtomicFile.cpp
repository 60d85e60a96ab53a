#include "support/AtomicFile.h"

#include "support/NativePath.h"

#include <QRandomGenerator>

#include <cerrno>
#include <cstring>
#include <mutex>

#include <fcntl.h>
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
    if (handle < 0 || ::stat(NativePath::toBytes(path).constData(), &st) != 0 || !S_ISREG(st.st_mode)) return;
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

namespace {

QString systemError() {
    return QString::fromLocal8Bit(std::strerror(errno));
}

// The temporary file beside the target: unnamed (O_TMPFILE) where the file system has it, so a
// crash leaves nothing behind; else a hidden name of its own.
int openTemporary(int folder, const QByteArray& name, QByteArray& named) {
    named.clear();
    // It is given its name through /proc (a chroot may lack it).
    static const bool procMounted = ::access("/proc/self/fd", F_OK) == 0;
    if (procMounted) {
        const int fd = ::openat(folder, ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, 0666);
        if (fd >= 0 || (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL)) return fd;
    }
    for (int attempt = 0; attempt < 100; ++attempt) {
        named = "." + name + "." + QByteArray::number(quint64(QRandomGenerator::global()->generate64()), 36);
        const int f =
            ::openat(folder, named.constData(), O_CREAT | O_EXCL | O_WRONLY | O_NOFOLLOW | O_CLOEXEC, 0666);
        if (f >= 0 || errno != EEXIST) return f;
    }
    return -1;
}

bool writeAll(int fd, const QByteArray& bytes) {
    qsizetype done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::write(fd, bytes.constData() + done, size_t(bytes.size() - done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            if (n == 0) errno = ENOSPC;
            return false;
        }
        done += n;
    }
    return true;
}

// Gives the finished temporary file the target's name in one step: linked under a fresh name of its
// own when it has none, then renamed over the target.
bool commit(int folder, int fd, QByteArray& named, const QByteArray& name) {
    if (named.isEmpty()) {
        const QByteArray self = "/proc/self/fd/" + QByteArray::number(fd);
        for (int attempt = 0; attempt < 100 && named.isEmpty(); ++attempt) {
            const QByteArray candidate =
                "." + name + "." + QByteArray::number(quint64(QRandomGenerator::global()->generate64()), 36);
            if (::linkat(AT_FDCWD, self.constData(), folder, candidate.constData(), AT_SYMLINK_FOLLOW) == 0)
                named = candidate;
            else if (errno != EEXIST)
                return false;
        }
        if (named.isEmpty()) return false;
    }
    if (::renameat(folder, named.constData(), folder, name.constData()) != 0) return false;
    named.clear();
    return true;
}

} // namespace

bool write(const QString& path, const QByteArray& bytes) {
    t_lastError.clear();
    if (path.isEmpty()) return failed(QStringLiteral("no file name"));
    // Bytes as the system names the file, so that a name that isn't UTF-8 is written as itself.
    const QByteArray native = NativePath::toBytes(path);
    struct stat st {};
    if (::stat(native.constData(), &st) == 0 && S_ISDIR(st.st_mode))
        return failed(QStringLiteral("a folder has that name"));
    const qsizetype slash = native.lastIndexOf('/');
    const QByteArray folderName = slash < 0    ? QByteArray(".")
                                  : slash == 0 ? QByteArray("/")
                                               : native.left(slash);
    const QByteArray name = native.mid(slash + 1);
    if (name.isEmpty()) return failed(QStringLiteral("no file name"));
    if (!allowed(Step::open, path)) return failed(QStringLiteral("refused by a test"));
    const int folder = ::open(folderName.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder < 0) return failed(systemError());
    QByteArray named;
    const int fd = openTemporary(folder, name, named);
    if (fd < 0) {
        const QString why = systemError();
        ::close(folder);
        return failed(why);
    }
    // Never written in place: a half-written original is worse than no write.
    const auto abandon = [&](const QString& why) {
        if (!named.isEmpty()) ::unlinkat(folder, named.constData(), 0);
        ::close(fd);
        ::close(folder);
        return failed(why);
    };
    if (!allowed(Step::write, path)) return abandon(QStringLiteral("refused by a test"));
    errno = 0;
    if (!writeAll(fd, bytes)) return abandon(systemError());
    // Synced before the rename, so that a full disk or a failing device shows while the original
    // is still there, and so that each step can be made to fail on its own.
    if (!allowed(Step::sync, path)) return abandon(QStringLiteral("refused by a test"));
    if (::fsync(fd) != 0) return abandon(systemError());
    keepOwnership(path, fd);
    if (!allowed(Step::rename, path)) return abandon(QStringLiteral("refused by a test"));
    if (!commit(folder, fd, named, name)) return abandon(systemError());
    ::close(fd);
    ::close(folder);
    return true;
}

} // namespace cutlark::AtomicFile
