#pragma once

#include "cli/CliJob.h"
#include "cli/CliOptions.h"
#include "cli/CliTerminal.h"
#include "cli/OutputPlan.h"
#include "model/Settings.h"

#include <QJsonObject>

#include <cstdio>
#include <optional>
#include <vector>

namespace cutlark {

class Manifest;
class StandardInput;

/// The headless front end: each command drives the same `CropModel` code as the window.
class CliRunner {
public:
    CliRunner(FILE* out, FILE* err) : m_terminal(out, err), m_out(out), m_err(err) {}

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

    // The steps of `process`.
    /// The inputs of the run, less the results it would write itself; an exit code when none remain.
    std::optional<int> processInputs(CliJob::RunContext& run, QStringList& inputs,
                                     QHash<QString, QString>& keys);
    /// The plans this run works on: its slice, less what the manifest it resumes records as done
    /// (said on standard output); an exit code when the manifest can't be read or written.
    std::optional<int> chooseWork(const CliJob::RunContext& run, const std::vector<OutputPlan::Plan>& plans,
                                  const QHash<QString, QString>& keys, std::vector<size_t>& chosen,
                                  std::optional<Manifest>& manifest);
    /// The outcome of one plan printed (its result sent to standard output with --stdout) and
    /// recorded in the manifest; failures are added to `failures`.
    void finish(CliJob::Outcome outcome, const QString& path, const CliJob::RunContext& run,
                const StandardInput& stdinput, std::optional<Manifest>& manifest, QStringList& failures);

    CliTerminal m_terminal;
    FILE* m_out;
    FILE* m_err;
};

} // namespace cutlark
