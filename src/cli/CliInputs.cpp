#include "cli/CliInputs.h"

#include "io/ImageFile.h"
#include "model/CropModel.h"
#include "support/NativePath.h"
#include "support/NaturalOrder.h"
#include "support/PrivateDir.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMimeDatabase>
#include <QSet>

#include <algorithm>
#include <vector>

namespace cutlark {

namespace {

// More than any picture cutlark opens is stored in.
constexpr qint64 kMaxStandardInput = qint64(1) << 30;

// The entries in name order, each name's key worked out once.
void sortByName(QList<NativePath::Entry>& entries) {
    std::vector<std::pair<NaturalOrder::Key, NativePath::Entry>> keyed;
    keyed.reserve(size_t(entries.size()));
    for (NativePath::Entry& e : entries)
        keyed.emplace_back(NaturalOrder::key(e.path.section(QLatin1Char('/'), -1)), std::move(e));
    std::stable_sort(keyed.begin(), keyed.end(), [](const auto& a, const auto& b) {
        return NaturalOrder::compare(a.first, b.first) < 0;
    });
    for (size_t i = 0; i < keyed.size(); ++i)
        entries[qsizetype(i)] = std::move(keyed[i].second);
}

// A folder named on the command line, expanded: its pictures in name order, then (recursively)
// those of its subfolders in name order. `below` is the path below the folder named; `visited`
// keeps a link back up from looping.
void expandFolder(const QString& folder, const QString& below, const QString& topName, bool recursive,
                  QSet<QString>& visited, QList<CliInputs::Input>& out, int& subfolders) {
    const QString real = NativePath::canonical(folder);
    if (visited.contains(real)) return;
    visited.insert(real);
    QList<NativePath::Entry> entries = NativePath::entries(folder);
    sortByName(entries);
    const QString place =
        below.isEmpty() ? topName : (topName.isEmpty() ? below : topName + QLatin1Char('/') + below);
    for (const NativePath::Entry& e : entries) {
        if (e.folder || !CropModel::passesTypeTest(e.path)) continue;
        const QString name = e.path.section(QLatin1Char('/'), -1);
        out.append({e.path, below.isEmpty() ? name : below + QLatin1Char('/') + name, place,
                    e.link || real.isEmpty() ? QString() : real + QLatin1Char('/') + name});
    }
    for (const NativePath::Entry& e : entries) {
        if (!e.folder) continue;
        if (!recursive) {
            ++subfolders;
            continue;
        }
        const QString name = QFileInfo(e.path).fileName();
        expandFolder(e.path, below.isEmpty() ? name : below + QLatin1Char('/') + name, topName, true, visited,
                     out, subfolders);
    }
}

// The name a folder named on the command line keeps below -o DIR: its last name, as `cp -r` gives
// it; none for ".", ".." or "shots/." (the folder's contents, as `cp -r shots/. out` copies them).
QString placeName(const QString& argument) {
    QString trimmed = argument;
    while (trimmed.size() > 1 && trimmed.endsWith(QLatin1Char('/')))
        trimmed.chop(1);
    const QString last = trimmed.section(QLatin1Char('/'), -1);
    if (last == QLatin1String(".") || last == QLatin1String("..") || last.isEmpty()) return {};
    return QFileInfo(QDir::cleanPath(argument)).fileName();
}

} // namespace

namespace CliInputs {

QList<Input> expand(const QStringList& given, bool recursive, bool onceEach, Report* report) {
    QList<Input> expanded;
    for (const QString& argument : given) {
        if (!NativePath::isFolder(argument)) {
            expanded.append({argument, QDir::cleanPath(argument), QString(), QString()});
            continue;
        }
        QSet<QString> visited;
        int subfolders = 0;
        const qsizetype before = expanded.size();
        expandFolder(argument, QString(), placeName(argument), recursive, visited, expanded, subfolders);
        if (report && expanded.size() == before) report->emptyFolders << argument;
        if (report && subfolders > 0) report->skippedSubfolders.append({argument, subfolders});
    }
    if (!onceEach) return expanded;
    // The same file named twice (a.png, ./a.png, a folder holding it) is one input.
    QList<Input> out;
    QSet<QString> seen;
    for (const Input& input : expanded) {
        const QString real = !input.real.isEmpty() ? input.real : NativePath::canonical(input.path);
        const QString same = !real.isEmpty() ? real : NativePath::absolute(input.path);
        if (seen.contains(same)) continue;
        seen.insert(same);
        out.append(input);
    }
    return out;
}

std::optional<QString> readList(const QString& from, bool nulSeparated, QStringList& names) {
    QFile file;
    if (from != QLatin1String("-")) file.setFileName(from);
    const bool opened =
        from == QLatin1String("-") ? file.open(stdin, QIODevice::ReadOnly) : file.open(QIODevice::ReadOnly);
    if (!opened) return QStringLiteral("can’t read the list %1: %2").arg(from, file.errorString());
    const QByteArray text = file.readAll();
    for (QByteArray name : text.split(nulSeparated ? '\0' : '\n')) {
        if (!nulSeparated && name.endsWith('\r')) name.chop(1);
        if (!name.isEmpty()) names << NativePath::fromBytes(name);
    }
    return std::nullopt;
}

QStringList paths(const QList<Input>& inputs) {
    QStringList out;
    for (const Input& input : inputs)
        out << input.path;
    return out;
}

} // namespace CliInputs

StandardInput::~StandardInput() {
    if (!m_folder.isEmpty()) PrivateDir::remove(m_folder);
}

const QString& StandardInput::folder() {
    if (m_folder.isEmpty()) m_folder = PrivateDir::create(QStringLiteral("cutlark-cli"));
    return m_folder;
}

QString StandardInput::shown(const QString& path) const {
    return !m_copy.isEmpty() && path == m_copy ? QStringLiteral("-") : path;
}

std::optional<int> StandardInput::take(QStringList& inputs, FILE* err) {
    const qsizetype at = inputs.indexOf(QStringLiteral("-"));
    if (at < 0) return std::nullopt;
    QFile in;
    if (!in.open(stdin, QIODevice::ReadOnly)) {
        std::fprintf(err, "cutlark-cli: can’t read standard input\n");
        return 1;
    }
    // The head says what the picture is; the rest goes straight to the private file, a slice at a
    // time, so that a stream of any length costs one slice of memory.
    QByteArray head;
    while (head.size() < 64 * 1024) { // a pipe may hand over a few bytes at a time
        const QByteArray more = in.read(64 * 1024 - head.size());
        if (more.isEmpty()) break;
        head += more;
    }
    if (head.isEmpty()) {
        std::fprintf(err, "cutlark-cli: -: standard input is empty\n");
        return 1;
    }
    // Named for what it holds, so the result keeps its type as a file's would; what isn't a
    // picture at all is refused before the rest is read.
    const QString type = QMimeDatabase().mimeTypeForData(head).name();
    if (std::none_of(ImageFile::acceptedTypes().begin(), ImageFile::acceptedTypes().end(),
                     [&](const QString& t) { return ImageFile::conforms(type, t); })) {
        std::fprintf(err, "cutlark-cli: -: not an image type cutlark opens (%s)\n", qPrintable(type));
        return 1;
    }
    QString extension = ImageFile::preferredExtension(type);
    if (extension.isEmpty()) extension = QStringLiteral("bin");
    const QString folder = this->folder();
    const QString name = QStringLiteral("stdin.") + extension;
    bool tooLarge = false;
    if (folder.isEmpty() || !PrivateDir::streamNew(folder, name, head, in, kMaxStandardInput, tooLarge)) {
        std::fputs(tooLarge ? "cutlark-cli: standard input holds more than 1 GB; give the picture as a file\n"
                            : "cutlark-cli: can’t keep standard input in a private temporary folder\n",
                   err);
        return 1;
    }
    m_copy = QDir(folder).filePath(name);
    inputs[at] = m_copy;
    return std::nullopt;
}

} // namespace cutlark
