#include "support/AtomicFile.h"

#include <QFileInfo>
#include <QSaveFile>

#include <mutex>

#include <unistd.h>

namespace cutlark::AtomicFile {

namespace {
std::mutex g_injectorMutex;
std::function<bool(Step, const QString&)> g_injector;

bool allowed(Step step, const QString& path) {
    std::lock_guard lock(g_injectorMutex);
    return !g_injector || g_injector(step, path);
}
} // namespace

void setFaultInjector(std::function<bool(Step, const QString&)> injector) {
    std::lock_guard lock(g_injectorMutex);
    g_injector = std::move(injector);
}

bool write(const QString& path, const QByteArray& bytes) {
    if (path.isEmpty() || QFileInfo(path).isDir()) return false;
    QSaveFile file(path);
    // Never fall back to writing in place: a half-written original is worse than no write.
    file.setDirectWriteFallback(false);
    if (!allowed(Step::open, path) || !file.open(QIODevice::WriteOnly)) return false;
    if (!allowed(Step::write, path) || file.write(bytes) != bytes.size()) {
        file.cancelWriting();
        file.commit(); // discards the temporary file
        return false;
    }
    // Flushed and synced here as well as in commit() so that a full disk or a failing device shows
    // before the rename, and so that each step can be made to fail on its own.
    if (!allowed(Step::sync, path) || !file.flush() || ::fsync(file.handle()) != 0) {
        file.cancelWriting();
        file.commit();
        return false;
    }
    if (!allowed(Step::rename, path)) {
        file.cancelWriting();
        file.commit();
        return false;
    }
    return file.commit(); // renames over the target
}

} // namespace cutlark::AtomicFile
