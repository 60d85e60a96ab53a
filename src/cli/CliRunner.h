#pragma once

#include "cli/CliInputs.h"
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
    /// Chooses --network's network and loads it; with `describe`, prints what it is as JSON. A
    /// code to exit with when it can't be had.
    std::optional<int> chooseNetwork(const CliOptions& options, bool describe);
    /// With --verbose: on which device the subject network runs, or why not on the GPU.
    void sayWhereTheNetworkRuns();
    int runProcess(const CliOptions& options);
    int runTrace(const CliOptions& options);
    int runSplit(const CliOptions& options);
    int runManifest(const CliOptions& options);
    /// The inputs named, listed (--files-from) and piped ("-"), expanded; folders without a
    /// picture are printed as failed inputs and added to `failures`. An exit code when nothing
    /// can be worked on.
    std::optional<int> gatherInputs(const CliOptions& options, StandardInput& stdinput, bool onceEach,
                                    QList<CliInputs::Input>& inputs, QStringList& failures);
    /// One collage split into pieces in `folder` (empty: beside it); its JSON line. Pieces from
    /// before are left as they are unless `overwrite`.
    QJsonObject splitOne(const QString& input, const QString& folder, bool overwrite);
    /// The settings of --preset and --set, the resize fields named (to be written again, in order)
    /// and every name given with --set.
    std::optional<int> readSettings(const CliOptions& options, Settings& settings, QStringList& sizeWrites,
                                    QStringList& given);
    /// Warns on standard error about each setting given with --set that a switch left off makes idle
    /// (a preset is a whole snapshot, idle settings and all, and isn't warned about); the
    /// warnings, for the JSON.
    QStringList warnIdle(const Settings& settings, const QStringList& given);

    // The steps of `process`.
    /// Where results go made ready: --stdout's private folder, or -o's folder made (or, when -o
    /// names a file, its folder, refused for more than one input); an exit code when it can't be.
    std::optional<int> prepareOutput(CliOptions& options, StandardInput& stdinput, qsizetype inputCount);
    /// The inputs of the run, less the results it would write itself, and their plans; an exit code
    /// when none remain.
    std::optional<int> processInputs(CliJob::RunContext& run, QList<CliInputs::Input>& inputs,
                                     std::vector<OutputPlan::Plan>& plans);
    /// The plans this run works on: its slice, less what the manifest it resumes records as done
    /// with the same settings (said on standard output, counted in `tally`); an exit code when a
    /// manifest can't be read or written.
    std::optional<int> chooseWork(const CliJob::RunContext& run, const std::vector<OutputPlan::Plan>& plans,
                                  const QList<CliInputs::Input>& inputs, std::vector<size_t>& chosen,
                                  std::optional<Manifest>& manifest, CliJob::Tally& tally);
    /// The outcome of one plan printed (its result sent to standard output with --stdout) and
    /// recorded in the manifest; failures are added to `failures`. The outcome as it ended.
    CliJob::Outcome finish(CliJob::Outcome outcome, const QString& path, const CliJob::RunContext& run,
                           const StandardInput& stdinput, std::optional<Manifest>& manifest,
                           QStringList& failures);

    CliTerminal m_terminal;
    FILE* m_out;
    FILE* m_err;
};

} // namespace cutlark
