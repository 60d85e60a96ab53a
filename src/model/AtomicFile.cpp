#include "model/AtomicFile.h"

#include <QFileInfo>
#include <QSaveFile>

#include <mutex>

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
    if (!allowed(Step::commit, path)) {
        file.cancelWriting();
        file.commit();
        return false;
    }
    return file.commit(); // flushes, syncs and renames over the target
}

} // namespace cutlark::AtomicFile
