#pragma once

#include <QByteArray>
#include <QString>

class QIODevice;

/// Places of the user's own for what the program writes outside the user's chosen files (dropped
/// pictures, the single-instance socket). Other local users can neither read what is there nor
/// put anything in its place: folders are made fresh with `mkdtemp` (mode 0700) or checked to be
/// owned by the user and closed to everyone else, and files are created new, never followed
/// through a link.
namespace cutlark::PrivateDir {

/// `$XDG_RUNTIME_DIR` when it is a folder owned by the user and closed to others; else empty.
QString runtimeDir();

/// Where fresh private folders go: the runtime folder, else the system's temporary folder.
QString base();

/// A new folder `<base>/<prefix>-XXXXXX`, made by `mkdtemp` (mode 0700); empty on failure.
QString create(const QString& prefix);

/// The folder `path`, made with mode 0700 when missing. Empty when it exists but isn't a real
/// folder (a link, a file), belongs to someone else, or is open to other users.
QString ensure(const QString& path);

/// True when `path` is a real folder (not a link) owned by the user with no access for others.
bool isPrivate(const QString& path);

/// Writes `bytes` to a new file `name` in `folder`, created with O_EXCL | O_NOFOLLOW and mode 0600:
/// fails when anything of that name exists already, a link included.
bool writeNew(const QString& folder, const QString& name, const QByteArray& bytes);

/// The same for a stream: `head` (already read) and then what `from` holds until its end, read and
/// written a slice at a time so that memory holds one slice. Fails, removing the file, when more
/// than `limit` bytes come (`tooLarge` set) or anything can't be read or written.
bool streamNew(const QString& folder, const QString& name, const QByteArray& head, QIODevice& from,
               qint64 limit, bool& tooLarge);

/// Removes the files directly in `folder` (links are removed, never followed) and then the folder.
void remove(const QString& folder);

} // namespace cutlark::PrivateDir
