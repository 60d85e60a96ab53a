#pragma once

#include <QFile>
#include <QString>

namespace cutlark {

/// Opening only what is really a file. A named pipe or a device called `x.png` would make a
/// reader wait forever (or read without end), so the file is opened without blocking, checked to
/// be a regular file (a link to one counts), and only then read. The descriptor is this object's
/// own and closed by it, never by Qt.
class RegularFile {
public:
    RegularFile() = default;
    RegularFile(const RegularFile&) = delete;
    RegularFile& operator=(const RegularFile&) = delete;
    ~RegularFile();

    /// Opens `path` for reading; false for anything but a regular file, or one that can't be opened.
    bool open(const QString& path);
    /// The open file, positioned at its start (unopened after a failed `open`).
    QFile& file() { return m_file; }

    /// What `path` is when it exists and isn't a regular file or a folder, in a person's words ("a
    /// named pipe", "a device", "a socket"); empty otherwise.
    static QString otherKind(const QString& path);

private:
    void close();
    QFile m_file;
    int m_fd = -1;
};

} // namespace cutlark
