#include "support/RegularFile.h"

#include "support/NativePath.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace cutlark {

RegularFile::~RegularFile() {
    close();
}

void RegularFile::close() {
    m_file.close();
    if (m_fd >= 0) ::close(m_fd);
    m_fd = -1;
}

bool RegularFile::open(const QString& path) {
    close();
    // Without blocking: opening a pipe for reading would otherwise wait for a writer.
    const int fd =
        ::open(NativePath::toBytes(path).constData(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) return false;
    struct stat st {};
    const int flags = ::fcntl(fd, F_GETFL);
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || flags < 0 ||
        ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) != 0 ||
        !m_file.open(fd, QIODevice::ReadOnly, QFileDevice::DontCloseHandle)) {
        ::close(fd);
        return false;
    }
    m_fd = fd;
    return true;
}

QString RegularFile::otherKind(const QString& path) {
    struct stat st {};
    if (::stat(NativePath::toBytes(path).constData(), &st) != 0) return QString();
    if (S_ISFIFO(st.st_mode)) return QStringLiteral("a named pipe");
    if (S_ISCHR(st.st_mode) || S_ISBLK(st.st_mode)) return QStringLiteral("a device");
    if (S_ISSOCK(st.st_mode)) return QStringLiteral("a socket");
    return QString();
}

} // namespace cutlark
