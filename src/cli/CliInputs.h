#pragma once

#include <QList>
#include <QString>
#include <QStringList>

#include <cstdio>
#include <optional>

namespace cutlark {

/// The inputs of a run as the command line names them: folders become their images, in name order
/// within each folder, as opening takes them; the same file named twice is one input.
namespace CliInputs {

struct Input {
    QString path;     ///< as expanded from the arguments
    QString sliceKey; ///< for --shard: the path below the folder named, or the path as given
};

/// Each argument expanded: a folder into its images, a file as it is; with `onceEach`, repeats of
/// a file (a.png, ./a.png, a folder holding it) left out after the first.
QList<Input> expand(const QStringList& given, bool onceEach = true);

/// The paths alone, in order.
QStringList paths(const QList<Input>& inputs);

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
