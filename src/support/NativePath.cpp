#include "support/NativePath.h"

#include <QDir>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include <cstdlib>

namespace cutlark::NativePath {

namespace {

// The length of the valid UTF-8 sequence at `p` (1 to 4), or 0 when it isn't one: overlong forms,
// surrogates and code points past U+10FFFF are not valid.
int validSequence(const uchar* p, qsizetype left) {
    const uchar c = p[0];
    if (c < 0x80) return 1;
    int length = 0;
    char32_t cp = 0;
    if ((c & 0xe0) == 0xc0) {
        length = 2;
        cp = c & 0x1f;
    } else if ((c & 0xf0) == 0xe0) {
        length = 3;
        cp = c & 0x0f;
    } else if ((c & 0xf8) == 0xf0) {
        length = 4;
        cp = c & 0x07;
    } else {
        return 0;
    }
    if (left < length) return 0;
    for (int i = 1; i < length; ++i) {
        if ((p[i] & 0xc0) != 0x80) return 0;
        cp = cp << 6 | (p[i] & 0x3f);
    }
    static constexpr char32_t kSmallest[5] = {0, 0, 0x80, 0x800, 0x10000};
    if (cp < kSmallest[length] || cp > 0x10ffff || (cp >= 0xd800 && cp <= 0xdfff)) return 0;
    return length;
}

bool isEscape(char16_t c) {
    return c >= 0xdc80 && c <= 0xdcff;
}

} // namespace

QString fromBytes(const QByteArray& bytes) {
    const auto* p = reinterpret_cast<const uchar*>(bytes.constData());
    const qsizetype n = bytes.size();
    QString out;
    out.reserve(n);
    qsizetype i = 0;
    while (i < n) {
        // A run of valid UTF-8 goes through Qt's decoder; an invalid byte becomes its escape.
        qsizetype j = i;
        int length = 0;
        while (j < n && (length = validSequence(p + j, n - j)) > 0)
            j += length;
        if (j > i) out += QString::fromUtf8(bytes.constData() + i, j - i);
        if (j < n) {
            out += QChar(char16_t(0xdc00 + p[j]));
            ++j;
        }
        i = j;
    }
    return out;
}

QByteArray toBytes(const QString& path) {
    bool escaped = false;
    for (QChar c : path)
        escaped = escaped || isEscape(c.unicode());
    if (!escaped) return path.toUtf8();
    QByteArray out;
    qsizetype start = 0;
    for (qsizetype i = 0; i <= path.size(); ++i) {
        // A lone low surrogate in the escape range is a raw byte; a pair is a character.
        const bool lone =
            i < path.size() && isEscape(path[i].unicode()) && (i == 0 || !path[i - 1].isHighSurrogate());
        if (i == path.size() || lone) {
            out += QStringView(path).mid(start, i - start).toUtf8();
            if (lone) out += char(path[i].unicode() - 0xdc00);
            start = i + 1;
        }
    }
    return out;
}

QStringList arguments(int argc, char** argv) {
    QStringList out;
    for (int i = 0; i < argc; ++i)
        out << fromBytes(QByteArray(argv[i]));
    return out;
}

QString absolute(const QString& path) {
    if (path.startsWith(QLatin1Char('/'))) return QDir::cleanPath(path);
    char* here = ::getcwd(nullptr, 0);
    const QString folder = here ? fromBytes(QByteArray(here)) : QString();
    std::free(here);
    return QDir::cleanPath(folder + QLatin1Char('/') + path);
}

bool exists(const QString& path) {
    struct stat st {};
    return !path.isEmpty() && ::stat(toBytes(path).constData(), &st) == 0;
}

bool isFolder(const QString& path) {
    struct stat st {};
    return !path.isEmpty() && ::stat(toBytes(path).constData(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool makeFolders(const QString& path) {
    const QByteArray bytes = toBytes(absolute(path));
    for (qsizetype at = 1; at <= bytes.size(); ++at) {
        if (at < bytes.size() && bytes[at] != '/') continue;
        const QByteArray part = bytes.left(at);
        if (::mkdir(part.constData(), 0777) != 0 && errno != EEXIST) return false;
    }
    struct stat st {};
    return ::stat(bytes.constData(), &st) == 0 && S_ISDIR(st.st_mode);
}

QString canonical(const QString& path) {
    char* resolved = ::realpath(toBytes(path).constData(), nullptr);
    if (!resolved) return QString();
    const QString out = fromBytes(QByteArray(resolved));
    std::free(resolved);
    return out;
}

QStringList children(const QString& path) {
    QStringList out;
    DIR* dir = ::opendir(toBytes(path).constData());
    if (!dir) return out;
    const QString prefix = path.endsWith(QLatin1Char('/')) ? path : path + QLatin1Char('/');
    while (const dirent* entry = ::readdir(dir)) {
        if (entry->d_name[0] == '.') continue; // ".", ".." and hidden files
        out << prefix + fromBytes(QByteArray(entry->d_name));
    }
    ::closedir(dir);
    return out;
}

QList<Entry> entries(const QString& path) {
    QList<Entry> out;
    const QByteArray folder = toBytes(path);
    DIR* dir = ::opendir(folder.constData());
    if (!dir) return out;
    const QString prefix = path.endsWith(QLatin1Char('/')) ? path : path + QLatin1Char('/');
    while (const dirent* entry = ::readdir(dir)) {
        if (entry->d_name[0] == '.') continue;
        Entry e{prefix + fromBytes(QByteArray(entry->d_name)), entry->d_type == DT_DIR,
                entry->d_type == DT_LNK};
        if (entry->d_type == DT_LNK || entry->d_type == DT_UNKNOWN) {
            const QByteArray full = folder + '/' + entry->d_name;
            struct stat st {};
            e.folder = ::stat(full.constData(), &st) == 0 && S_ISDIR(st.st_mode);
            if (entry->d_type == DT_UNKNOWN)
                e.link = ::lstat(full.constData(), &st) == 0 && S_ISLNK(st.st_mode);
        }
        out << e;
    }
    ::closedir(dir);
    return out;
}

} // namespace cutlark::NativePath
