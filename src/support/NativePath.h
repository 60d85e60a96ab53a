#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

/// File names as the system stores them: bytes, most often UTF-8 but not always (a Latin-1
/// "café.jpg" from an old archive is `caf\xe9.jpg`). Qt turns bytes that aren't UTF-8 into U+FFFD
/// and can then no longer find the file. Here each such byte becomes a lone surrogate
/// U+DC80…U+DCFF instead and back again, so any name survives the trip, and Qt's JSON writer prints
/// it as `\udce9`, which Python's `surrogateescape` reads back as the same bytes.
namespace cutlark::NativePath {

/// The name for `bytes`: UTF-8 where they are valid UTF-8, an escape for each byte that isn't.
QString fromBytes(const QByteArray& bytes);

/// The bytes of `path` for the system's calls; the inverse of `fromBytes`.
QByteArray toBytes(const QString& path);

/// The arguments of `main`, each through `fromBytes`.
QStringList arguments(int argc, char** argv);

/// `path` made absolute against the working folder and cleaned ("." and ".." taken out as text),
/// keeping every byte of its name (Qt's own goes through the lossy encoding).
QString absolute(const QString& path);

/// What the system says of `path` (links followed).
bool exists(const QString& path);
bool isFolder(const QString& path);

/// Makes the folder `path` and the folders above it that are missing (mode 0777 less the umask);
/// false when it can't, or something not a folder stands in the way.
bool makeFolders(const QString& path);

/// The path with links and "." and ".." resolved, as `realpath` gives it; empty when it doesn't exist.
QString canonical(const QString& path);

/// The entries of the folder `path` (not "." and "..", nor hidden ones), as full paths in the order
/// the system lists them; empty when it can't be listed.
QStringList children(const QString& path);

/// One entry of a folder: its full path, whether it is a folder itself (links followed), and
/// whether it is a link.
struct Entry {
    QString path;
    bool folder = false;
    bool link = false;
};
/// The same entries with what each is, read from the listing where the file system says it.
QList<Entry> entries(const QString& path);

} // namespace cutlark::NativePath
