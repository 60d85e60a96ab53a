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

namespace cutlark {

namespace {

// More than any picture cutlark opens is stored in.
constexpr qint64 kMaxStandardInput = qint64(1) << 30;

/// Inputs as opening sees them: folders become their images, in name order within each folder.
QStringList expandInputs(const QStringList& inputs) {
    QStringList out;
    for (const QString& input : inputs) {
        QStringList expanded = CropModel::expandingFolders({input});
        if (NativePath::isFolder(input)) {
            std::stable_sort(expanded.begin(), expanded.end(), [](const QString& a, const QString& b) {
                return NaturalOrder::compare(QFileInfo(a).fileName(), QFileInfo(b).fileName()) < 0;
            });
        }
        out << expanded;
    }
    return out;
}

/// Each input with its key for slicing: its path relative to the folder it was found in as given
/// on the command line, or the path as given for a file named directly.
QList<QPair<QString, QString>> expandInputsKeyed(const QStringList& given) {
    QList<QPair<QString, QString>> out;
    for (const QString& argument : given) {
        const bool folder = NativePath::isFolder(argument);
        for (const QString& path : expandInputs({argument}))
            out.append({path, folder ? QDir(argument).relativeFilePath(path) : QDir::cleanPath(argument)});
    }
    return out;
}

} // namespace

namespace CliInputs {

QList<Input> expand(const QStringList& given, bool onceEach) {
    QList<Input> out;
    QSet<QString> seen;
    for (const auto& [path, key] : expandInputsKeyed(given)) {
        if (!onceEach) {
            out.append({path, key});
            continue;
        }
        const QString real = NativePath::canonical(path);
        const QString same = !real.isEmpty() ? real : NativePath::absolute(path);
        if (seen.contains(same)) continue;
        seen.insert(same);
        out.append({path, key});
    }
    return out;
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
