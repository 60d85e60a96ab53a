#pragma once

#include <QList>
#include <QString>
#include <QStringList>

#include <cstdio>
#include <optional>

namespace cutlark {

/// The inputs of a run as the command line names them: folders become their images, in name order
/// within each folder (with `recursive`, their subfolders' too), as opening takes them; the same
/// file named twice is one input.
namespace CliInputs {

struct Input {
    QString path;     ///< as expanded from the arguments
    QString sliceKey; ///< for --shard: the path below the folder named, or the path as given
    /// Where the result goes below -o DIR: the folder named (its last name) and the path below it,
    /// as `cp -r` would place it ("photos/2024"); empty for a file named directly.
    QString place;
    /// The file's own path, links resolved, where the listing gave it cheaply; else empty. Tells
    /// a file named twice apart without a `realpath` for each of 100 000 pictures.
    QString real;
};

/// What the expansion found besides pictures, to be said: folders named that hold no picture,
/// subfolders left out for want of -r.
struct Report {
    QStringList emptyFolders;
    QList<QPair<QString, int>> skippedSubfolders; ///< a folder named, and how many folders it holds
};

/// Each argument expanded: a folder into its images (recursively with `recursive`), a file as it
/// is; with `onceEach`, repeats of a file (a.png, ./a.png, a folder holding it) left out after the
/// first.
QList<Input> expand(const QStringList& given, bool recursive = false, bool onceEach = true,
                    Report* report = nullptr);

/// The paths alone, in order.
QStringList paths(const QList<Input>& inputs);

/// The names a --files-from list holds: one a line (or, with `nulSeparated`, between NUL bytes),
/// as bytes, so that any name survives; empty lines left out. `from` is a file or "-" for standard
/// input. An error text when it can't be read.
std::optional<QString> readList(const QString& from, bool nulSeparated, QStringList& names);

} // namespace CliInputs

/// Standard input ("-") kept as a file of its own in a private folder for the run, and the folder
/// a result on its way to standard output is written into; both go when the run ends.
class StandardInput {
public:
    StandardInput() = default;
    StandardInput(const StandardInput&) = delete;
    StandardInput& operator=(const StandardInput&) = delete;
    ~StandardInput();

    /// Replaces the input "-" in `inputs` with the private copy of what standard input holds; an
    /// exit code (with the reason on `err`) when it can't be had, too large, or no picture at all.
    std::optional<int> take(QStringList& inputs, FILE* err);
    /// The private copy of standard input, empty when "-" wasn't given.
    const QString& copy() const { return m_copy; }
    /// `path` as the person named it: "-" for the copy.
    QString shown(const QString& path) const;
    /// The private folder, made on first use; empty when it can't be.
    const QString& folder();

private:
    QString m_folder;
    QString m_copy;
};

} // namespace cutlark
