// `process`: the batch command, its inputs, slice, manifest and results.
#include "cli/CliRunner.h"

#include "cli/CliInputs.h"
#include "cli/Manifest.h"
#include "engines/VisionEngine.h"
#include "model/Pipeline.h"
#include "support/AvailableCores.h"
#include "support/NativePath.h"
#include "support/OrderedWork.h"

#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>

#include <chrono>
#include <exception>
#include <memory>
#include <semaphore>
#include <thread>

namespace cutlark {

using CliJob::Outcome;
using CliJob::RunContext;

std::optional<int> CliRunner::prepareOutput(CliOptions& options, StandardInput& stdinput,
                                            qsizetype inputCount) {
    if (options.toStdout) {
        // The result is written as any other, into the private folder, then sent on.
        options.outputDir = stdinput.folder();
        if (options.outputDir.isEmpty()) {
            std::fprintf(m_err, "cutlark-cli: can’t make a private temporary folder\n");
            return 1;
        }
        return std::nullopt;
    }
    if (options.outputDir.isEmpty() || options.inPlace) return std::nullopt;
    QString folder = options.outputDir;
    if (OutputPlan::namesFile(options.outputDir)) {
        // A name with an image type's extension is the one file to write; many results can't share it.
        if (inputCount != 1) {
            std::fprintf(m_err,
                         "cutlark-cli: -o %s names a file, and %lld inputs were given; give -o a folder for "
                         "many; %s\n",
                         qPrintable(options.outputDir), static_cast<long long>(inputCount),
                         qPrintable(CliOptions::seeHelp(options.command)));
            return 2;
        }
        folder = QFileInfo(NativePath::absolute(options.outputDir)).path();
    }
    if (!NativePath::makeFolders(folder)) {
        std::fprintf(m_err, "cutlark-cli: can’t create the folder “%s”\n", qPrintable(folder));
        return 2;
    }
    return std::nullopt;
}

int CliRunner::runProcess(const CliOptions& asked) {
    CliOptions options = asked;
    RunContext run;
    QStringList given;
    if (auto code = readSettings(options, run.settings, run.sizeWrites, given)) return *code;
    run.idle = warnIdle(run.settings, given);
    const bool subjects =
        run.settings.keyWhiteEnabled && run.settings.bgRemovalMode == BGRemovalMode::subject;
    if (!options.networkPath.isEmpty() && !subjects)
        std::fprintf(m_err, "cutlark-cli: warning: --network is only used with keyWhiteEnabled=true and "
                            "bgRemovalMode=subject\n");
    if (!options.networkPath.isEmpty() && subjects)
        if (auto code = chooseNetwork(options, false)) return *code;
    StandardInput stdinput;
    QList<CliInputs::Input> inputs;
    QStringList failures;
    if (auto code = gatherInputs(options, stdinput, true, inputs, failures)) return *code;
    if (inputs.isEmpty()) { // only folders without pictures: still the run's one line at the end
        const int code = m_terminal.reportFailures(failures);
        if (!options.toStdout) m_terminal.summary(0, 0, int(failures.size()), 0, 0);
        return code;
    }
    if (auto code = prepareOutput(options, stdinput, inputs.size())) return *code;
    run.options = options;
    // Each plan depends on its own input and the options alone, so slices run apart (or before and
    // after a file arrives) name every result as one run would.
    std::vector<OutputPlan::Plan> plans;
    if (auto code = processInputs(run, inputs, plans)) return *code;
    std::vector<size_t> chosen;
    std::optional<Manifest> manifest;
    CliJob::Tally tally;
    if (auto code = chooseWork(run, plans, inputs, chosen, manifest, tally)) return *code;

    // The network loads while the first input decodes. No warm-up run: here the first cutout is
    // that run, and a blank one before it would only add its own second.
    std::jthread loadNetwork;
    if (subjects && options.networkPath.isEmpty())
        loadNetwork = std::jthread([] { VisionEngine::preload(false); });

    // N workers take the inputs in turn, each with a model of its own, so at most N images are in
    // memory at once; the results are printed in input order as soon as each is ready.
    QElapsedTimer started;
    started.start();
    const qsizetype total = qsizetype(chosen.size());
    const int jobs = options.jobs > 0 ? options.jobs : AvailableCores::count();
    run.writeSlots = std::make_shared<std::counting_semaphore<>>(jobs);
    OrderedWork<Outcome> work(int(total), jobs, [&plans, &run, &chosen](int i) {
        const OutputPlan::Plan& plan = plans[chosen[size_t(i)]];
        try {
            return CliJob::process(plan, run);
        } catch (const std::exception& e) {
            // Out of memory, or a library's error, for this input alone: the others go on.
            return Outcome{QJsonObject{{QStringLiteral("input"), plan.input},
                                       {QStringLiteral("error"), QStringLiteral("couldn’t be processed: %1")
                                                                     .arg(QString::fromLocal8Bit(e.what()))}},
                           true,
                           {},
                           {}};
        }
    });
    // The bar counts images finished in any order, redrawn while the next one in order is awaited.
    m_terminal.progress(0, total);
    for (qsizetype i = 0; i < total; ++i) {
        std::optional<Outcome> next;
        while (!(next = work.next(std::chrono::milliseconds(250))))
            m_terminal.progress(work.finished(), total);
        tally.count(
            finish(std::move(*next), plans[chosen[size_t(i)]].input, run, stdinput, manifest, failures));
        m_terminal.progress(std::max<qsizetype>(work.finished(), i + 1), total);
    }
    // Only now: all may be finished while lines are still to print, each on a cleared line.
    m_terminal.endProgress();
    if (options.verbose && subjects && options.networkPath.isEmpty()) sayWhereTheNetworkRuns();
    // The failures named, then the run in one line: the last thing said.
    const int code = m_terminal.reportFailures(failures);
    if (!options.toStdout)
        m_terminal.summary(tally.written, tally.skipped, int(failures.size()), total, started.elapsed());
    return code;
}

std::optional<int> CliRunner::processInputs(RunContext& run, QList<CliInputs::Input>& inputs,
                                            std::vector<OutputPlan::Plan>& plans) {
    const CliOptions& options = run.options;
    const bool transparency = Pipeline::mayProduceTransparency(run.settings);
    plans = OutputPlan::plan(inputs, options, transparency);
    // Results this run would write are never its inputs (a second run beside the first one's
    // results leaves them alone).
    const QSet<QString> results = options.inPlace ? QSet<QString>() : OutputPlan::results(plans);
    QList<CliInputs::Input> kept;
    for (const CliInputs::Input& input : std::as_const(inputs)) {
        if (results.contains(NativePath::absolute(input.path))) {
            std::fprintf(m_err, "cutlark-cli: %s: left out, a result of this run\n", qPrintable(input.path));
            continue;
        }
        kept << input;
    }
    if (kept.size() != inputs.size()) plans = OutputPlan::plan(kept, options, transparency);
    inputs = std::move(kept);
    if (inputs.isEmpty()) {
        std::fprintf(m_err, "cutlark-cli: No supported images found.\n");
        return 1;
    }
    if (options.toStdout && inputs.size() != 1) {
        std::fprintf(m_err, "cutlark-cli: --stdout takes one image, and %lld were given; %s\n",
                     static_cast<long long>(inputs.size()), qPrintable(CliOptions::seeHelp(options.command)));
        return 2;
    }
    for (const CliInputs::Input& input : std::as_const(inputs))
        run.inputs.insert(NativePath::absolute(input.path));
    return std::nullopt;
}

std::optional<int> CliRunner::chooseWork(const RunContext& run, const std::vector<OutputPlan::Plan>& plans,
                                         const QList<CliInputs::Input>& inputs, std::vector<size_t>& chosen,
                                         std::optional<Manifest>& manifest, CliJob::Tally& tally) {
    const CliOptions& options = run.options;
    const QString hash = CliJob::settingsHash(run);
    QHash<QString, QJsonObject> done;
    if (!options.resumePath.isEmpty()) {
        QString error;
        done = Manifest::done(options.resumePath, hash, error);
        if (!error.isEmpty()) {
            std::fprintf(m_err, "cutlark-cli: can’t read %s: %s\n", qPrintable(options.resumePath),
                         qPrintable(error));
            return 2;
        }
    }
    if (!options.manifestPath.isEmpty()) {
        QString error;
        manifest = Manifest::open(options.manifestPath, error);
        if (!manifest) {
            std::fprintf(m_err, "cutlark-cli: can’t write %s: %s\n", qPrintable(options.manifestPath),
                         qPrintable(error));
            return 2;
        }
    }
    // A manifest other than the one resumed is told what was done before, so that it stands alone.
    const bool carryOver =
        manifest && NativePath::absolute(options.manifestPath) != NativePath::absolute(options.resumePath);
    for (size_t i = 0; i < plans.size(); ++i) {
        if (!options.shard.takes(inputs[qsizetype(i)].sliceKey)) continue;
        const auto record = done.constFind(NativePath::absolute(plans[i].input));
        if (record == done.constEnd()) {
            chosen.push_back(i);
            continue;
        }
        m_terminal.print(QJsonObject{{QStringLiteral("input"), plans[i].input},
                                     {QStringLiteral("skipped"), QStringLiteral("done")}});
        ++tally.skipped;
        if (carryOver && !manifest->append(*record)) {
            std::fprintf(m_err, "cutlark-cli: can’t write %s\n", qPrintable(options.manifestPath));
            return 2;
        }
    }
    return std::nullopt;
}

Outcome CliRunner::finish(Outcome o, const QString& path, const RunContext& run,
                          const StandardInput& stdinput, std::optional<Manifest>& manifest,
                          QStringList& failures) {
    const CliOptions& options = run.options;
    if (o.writing.valid()) {
        if (const auto why = o.writing.get()) {
            o.failed = true;
            o.json = o.whenWriteFails;
            if (!why->isEmpty())
                o.json.insert(QStringLiteral("reason"),
                              QStringLiteral("can’t write %1: %2")
                                  .arg(o.json.value(QStringLiteral("output")).toString(), *why));
        }
    }
    const QString input = stdinput.shown(path);
    if (input != path) o.json.insert(QStringLiteral("input"), input);
    if (options.toStdout && !o.failed) {
        QFile result(o.json.value(QStringLiteral("output")).toString());
        const QByteArray bytes = result.open(QIODevice::ReadOnly) ? result.readAll() : QByteArray();
        if (bytes.isEmpty() ||
            std::fwrite(bytes.constData(), 1, size_t(bytes.size()), m_out) != size_t(bytes.size()) ||
            std::fflush(m_out) != 0) {
            o.failed = true;
            o.json.insert(QStringLiteral("error"),
                          QStringLiteral("couldn’t write the result to standard output"));
        }
        o.json.insert(QStringLiteral("output"), QStringLiteral("-"));
    }
    m_terminal.print(o.json, options.toStdout ? m_err : m_out);
    if (o.failed) failures << CliJob::failureLine(input, o.json);
    if (!manifest) return o;
    // Only a result this run wrote, once it is on disk with its folder's entry, makes the input
    // done; one left as it was may be another run's, made with other settings.
    const QString output = o.json.value(QStringLiteral("output")).toString();
    const bool skipped = !o.failed && o.json.contains(QStringLiteral("skipped"));
    const bool durable = !o.failed && !skipped && Manifest::syncFolderOf(output);
    const QString status = durable   ? QStringLiteral("done")
                           : skipped ? QStringLiteral("skipped")
                                     : QStringLiteral("failed");
    QJsonObject line{{QStringLiteral("input"), NativePath::absolute(path)},
                     {QStringLiteral("settings"), CliJob::settingsHash(run)},
                     {QStringLiteral("status"), status}};
    if (!o.failed) line.insert(QStringLiteral("output"), output);
    if (o.failed)
        line.insert(QStringLiteral("error"), CliJob::failureReason(o.json));
    else if (!skipped && !durable)
        line.insert(QStringLiteral("error"), QStringLiteral("its folder couldn’t be made durable"));
    if (!manifest->append(line)) {
        failures << QStringLiteral("%1: can’t record it in %2").arg(input, options.manifestPath);
        manifest.reset(); // a manifest that can't be written is written no more
    }
    return o;
}

} // namespace cutlark
