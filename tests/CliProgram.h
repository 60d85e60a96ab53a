#pragma once

// cutlark-cli run as a person runs it, in a process of its own, and what its runs leave behind.
#include "TestSupport.h"

#include <QDir>
#include <QDirIterator>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMap>
#include <QProcessEnvironment>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <sys/resource.h>

namespace cutlark::test {

using CliRun = ProgramRun;

inline CliRun cli(const QStringList& arguments,
                  const QProcessEnvironment& environment = QProcessEnvironment::systemEnvironment(),
                  qint64 addressSpaceLimit = 0, const QByteArray& input = QByteArray()) {
    std::function<void()> limit;
    if (addressSpaceLimit > 0) {
        limit = [addressSpaceLimit] {
            const rlimit l{rlim_t(addressSpaceLimit), rlim_t(addressSpaceLimit)};
            setrlimit(RLIMIT_AS, &l);
        };
    }
    return runProgram(QStringLiteral(CUTLARK_CLI_PATH), arguments, environment, input, 120000, limit);
}

/// The same, with `input` on standard input.
inline CliRun piped(const QStringList& arguments, const QByteArray& input) {
    return cli(arguments, QProcessEnvironment::systemEnvironment(), 0, input);
}

/// A run's closing line ("cutlark-cli: 3 written, 0 skipped, 1 failed in 0.2 s (15.0 images/s)")
/// taken off the end of `err`; its counts ("3 written, 0 skipped, 1 failed"), or empty when the
/// last line isn't one.
inline QString takeSummary(QString& err) {
    static const QRegularExpression line(
        QStringLiteral("cutlark-cli: (\\d+ written, \\d+ skipped, \\d+ failed) in \\d+\\.\\d s "
                       "\\((\\d+(\\.\\d)?|–) images/s\\)\\n$"));
    const QRegularExpressionMatch m = line.match(err);
    if (!m.hasMatch()) return {};
    err.truncate(m.capturedStart());
    return m.captured(1);
}

/// The PNG results below `folder`, by their path below it. A run killed while writing may leave its
/// hidden temporary file beside them (.p3-out.png.ab12cd: nothing can tidy up after SIGKILL); it is
/// never taken for a result.
inline QMap<QString, QByteArray> pngResults(const QString& folder) {
    QMap<QString, QByteArray> files;
    QDirIterator it(folder, QDir::Files, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QFileInfo f = it.nextFileInfo();
        if (f.suffix() == QLatin1String("png"))
            files.insert(QDir(folder).relativeFilePath(f.filePath()), readBytes(f.filePath()));
    }
    return files;
}

/// Each record of a manifest, in order.
inline QList<QJsonObject> manifestLines(const QString& manifest) {
    QList<QJsonObject> out;
    for (const QByteArray& line : readBytes(manifest).split('\n'))
        if (!line.isEmpty()) out << QJsonDocument::fromJson(line).object();
    return out;
}

/// Adds to `done` each input the manifest records as done, once per line.
inline void countDone(const QString& manifest, QMap<QString, int>& done) {
    for (const QJsonObject& o : manifestLines(manifest))
        if (o.value(QStringLiteral("status")).toString() == QLatin1String("done"))
            ++done[o.value(QStringLiteral("input")).toString()];
}

/// A test with a folder of its own.
class CliFixture : public ::testing::Test {
protected:
    QString path(const QString& name) const { return m_dir.filePath(name); }
    QString folder(const QString& name) const {
        QDir(m_dir.path()).mkpath(name);
        return path(name);
    }
    QTemporaryDir m_dir;
};

// One field of every JSON line a run printed.
inline QStringList field(const CliRun& run, const char* name) {
    QStringList out;
    for (const QJsonObject& line : run.lines)
        out << line.value(QLatin1String(name)).toString();
    return out;
}

} // namespace cutlark::test
