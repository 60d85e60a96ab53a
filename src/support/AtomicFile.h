#pragma once

#include <QByteArray>
#include <QString>

#include <functional>

/// Whole-file writes that either replace the target completely or leave it as it was.
namespace cutlark::AtomicFile {

/// Writes `bytes` to a temporary file beside `path`, flushes it to disk and renames it over `path`.
/// False when any step fails; the old file, if there was one, is then untouched and no temporary
/// file is left behind. A `path` that names a folder, or lies in a folder that doesn't exist, fails.
bool write(const QString& path, const QByteArray& bytes);

/// Why this thread's last `write` failed, in the system's words ("No space left on device");
/// empty after a success.
QString lastError();

/// The steps of a write that can be made to fail, for tests that prove nothing is lost: creating the
/// temporary file, writing the bytes, flushing them to disk, and renaming over the target.
enum class Step { open, write, sync, rename };

/// Test seam: when set, called before each step; returning false makes that step fail.
/// Pass an empty function to remove it. Not for production use.
void setFaultInjector(std::function<bool(Step, const QString& path)> injector);

} // namespace cutlark::AtomicFile
