#pragma once

#include <QString>

class QFile;

/// Opening only what is really a file. A named pipe or a device called `x.png` would make a
/// reader wait forever (or read without end), so files are opened without blocking, checked to be
/// regular files, and only then read.
namespace cutlark::RegularFile {

/// Opens `path` for reading into `file` when it is a regular file (a link to one counts); false,
/// with `file` closed, for anything else or when it can't be opened.
bool open(QFile& file, const QString& path);

/// What `path` is when it exists and isn't a regular file or a folder, in a person's words ("a
/// named pipe", "a device", "a socket"); empty otherwise.
QString otherKind(const QString& path);

} // namespace cutlark::RegularFile
