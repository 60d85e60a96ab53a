#pragma once

#include "cli/CliOptions.h"
#include "cli/OutputPlan.h"
#include "model/Settings.h"

#include <QJsonObject>
#include <QSet>
#include <QStringList>

#include <cstdio>

#include <future>
#include <memory>
#include <optional>
#include <semaphore>

namespace cutlark {

class CropModel;

/// One input's work for the command line: each builds a model of its own, so jobs run side by side.
namespace CliJob {

/// What the whole run shares: the settings, the options, the inputs (absolute).
struct RunContext {
    Settings settings;
    QStringList sizeWrites; ///< the resize sizes named, written again in order after the settings
    QStringList idle;       ///< notices about settings given that a switch left off makes idle
    CliOptions options;
    QSet<QString> inputs;
    /// Results being written at once, at most one per job: a worker whose last result is still
    /// being synced waits here rather than piling up results behind a slow disk.
    std::shared_ptr<std::counting_semaphore<>> writeSlots;
};

/// What one input turned into, ready to print.
struct Outcome {
    QJsonObject json;
    bool failed = false;
    /// While a writer thread still writes and syncs the result (its worker has gone on to the next
    /// image): absent when the file was written, else why not. `whenWriteFails` is the line for
    /// that case.
    std::shared_future<std::optional<QString>> writing;
    QJsonObject whenWriteFails;
};

/// How many results a run wrote, left as they were (existing), or failed.
struct Tally {
    int written = 0, skipped = 0, failed = 0;
    void count(const Outcome& o) {
        if (o.failed)
            ++failed;
        else if (o.json.contains(QStringLiteral("skipped")))
            ++skipped;
        else
            ++written;
    }
};

/// `process` for one input: opened, built with the run's settings, written where the plan says.
Outcome process(const OutputPlan::Plan& plan, const RunContext& run);

/// `trace` for one input: opened, built with the run's settings and traced; the SVG written to
/// `target`, or to `toStdout` when given. Never over the input; over an existing file only with
/// --overwrite (else a target `named` by -o fails, a planned one is skipped as existing).
Outcome trace(const QString& input, const QString& target, bool named, const RunContext& run, FILE* toStdout);

/// `info` for one input: size, type, the artwork's box, whether the edges are white, collages.
Outcome info(const QString& input);

/// Marks `outcome` failed with the model's error; `reason` says more for the person, when known.
void failOpening(Outcome& outcome, const QString& input, const CropModel& model);

/// Why `path` didn't open, in a person's words, when something plainer than a damaged picture is
/// the cause; empty otherwise.
QString whyNotOpened(const QString& path);

/// Why an input failed, in a person's words: the reason when there is one, else the error.
QString failureReason(const QJsonObject& json);

/// "input: why", for the failures named at the end of a run.
QString failureLine(const QString& input, const QJsonObject& json);

/// What a manifest line's settings are: a hash of everything that decides the result's bytes.
QString settingsHash(const RunContext& run);

} // namespace CliJob

} // namespace cutlark
