#pragma once

#include "cli/CliOptions.h"
#include "model/Settings.h"

#include <QJsonObject>

#include <cstdio>

namespace cutlark {

/// The headless front end: each command drives the same `CropModel` code as the window.
class CliRunner {
public:
    CliRunner(FILE* out, FILE* err) : m_out(out), m_err(err) {}

    /// Runs the command; the process exit code (0 all done, 1 some input failed, 2 bad usage).
    int run(const QStringList& arguments);
    /// The same for options already read, or the error reading them gave.
    int run(const CliOptions& options, const std::optional<QString>& error);

private:
    int runSettings();
    int runInfo(const CliOptions& options);
    int runProcess(const CliOptions& options);
    int runTrace(const CliOptions& options);
    int runSplit(const CliOptions& options);
    /// The settings of --preset and --set, the resize fields named (to be written again, in order)
    /// and every name given with --set.
    std::optional<int> readSettings(const CliOptions& options, Settings& settings, QStringList& sizeWrites,
                                    QStringList& given);
    /// Warns on standard error about each setting given with --set that a switch left off makes idle
    /// (a preset is a whole snapshot, idle settings and all, and isn't warned about); the
    /// warnings, for the JSON.
    QStringList warnIdle(const Settings& settings, const QStringList& given);
    class ScratchFolder;
    /// Replaces the input "-" with a private copy of standard input (`copy`); an exit code when
    /// standard input can't be had.
    std::optional<int> takeStandardInput(QStringList& inputs, ScratchFolder& scratch, QString& copy);
    /// One JSON line to standard output, or to `to`.
    void print(const QJsonObject& object, FILE* to = nullptr);
    /// The bar on standard error, when it is a terminal: done of total.
    void progress(qsizetype done, qsizetype total);
    /// Takes the bar away so that a line printed next starts clean.
    void clearProgress();
    /// Ends the bar's line, once every line of the run is printed.
    void endProgress();
    int reportFailures(const QStringList& failures);

    FILE* m_out;
    FILE* m_err;
    bool m_barShown = false;
};

} // namespace cutlark
