#include "cli/CliRunner.h"

#include "cli/CliInputs.h"
#include "cli/Manifest.h"
#include "engines/VisionEngine.h"
#include "io/ImageFile.h"
#include "model/CropModel.h"
#include "model/Pipeline.h"
#include "support/AtomicFile.h"
#include "support/AvailableCores.h"
#include "support/NativePath.h"
#include "support/OrderedWork.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>

#include <chrono>
#include <exception>
#include <memory>
#include <semaphore>
#include <thread>

namespace cutlark {

namespace {

using CliJob::Outcome;
using CliJob::RunContext;

/// Answers the model's folder panel (split) with the output folder or the item's own.
class CliPanels : public Panels {
public:
    explicit CliPanels(QString outputDir) : m_outputDir(std::move(outputDir)) {}

    std::optional<QStringList> openImages(bool) override { return std::nullopt; }
    std::optional<QString> saveFile(const QString& directory, const QString& proposedName,
                                    const QString&) override {
        const QString folder = m_outputDir.isEmpty() ? directory : m_outputDir;
        m_chosen = QDir(folder).filePath(proposedName);
        return m_chosen;
    }
    std::optional<QString> chooseFolder(const QString& directory, const QString&, const QString&) override {
        return m_outputDir.isEmpty() ? directory : m_outputDir;
    }
    const QString& chosen() const { return m_chosen; }

private:
    QString m_outputDir;
    QString m_chosen;
};

} // namespace

int CliRunner::run(const QStringList& arguments) {
    CliOptions options;
    const std::optional<QString> error = CliOptions::parse(arguments, options);
    return run(options, error);
}

int CliRunner::run(const CliOptions& options, const std::optional<QString>& error) {
    if (error) {
        // One line: what is wrong and where to read more.
        std::fprintf(m_err, "cutlark-cli: %s; %s\n", qPrintable(*error),
                     qPrintable(CliOptions::seeHelp(options.command)));
        return 2;
    }
    if (options.help) {
        std::fputs(qPrintable(CliOptions::usage(options.command)), m_out);
        return 0;
    }
    ImageFile::setMaxMegapixels(options.maxMegapixels); // before any picture is read
    switch (options.command) {
    case CliOptions::Command::version:
        std::fputs(qPrintable(CliOptions::version()), m_out);
        return 0;
    case CliOptions::Command::settings:
        return runSettings();
    case CliOptions::Command::info:
        return runInfo(options);
    case CliOptions::Command::process:
        return runProcess(options);
    case CliOptions::Command::trace:
        return runTrace(options);
    case CliOptions::Command::split:
        return runSplit(options);
    case CliOptions::Command::help:
        std::fputs(qPrintable(CliOptions::usage()), m_out);
        return 0;
    }
    return 2;
}

int CliRunner::runSettings() {
    // In table order, which QJsonObject would sort away.
    const QJsonObject all = Settings().toJson();
    QByteArray text = "{\n";
    const QStringList& names = Settings::names();
    for (qsizetype i = 0; i < names.size(); ++i) {
        QByteArray value = QJsonDocument(QJsonArray{all.value(names[i])}).toJson(QJsonDocument::Compact);
        value = value.mid(1, value.size() - 2); // unwrap the one-element array
        text += "    \"" + names[i].toUtf8() + "\": " + value + (i + 1 < names.size() ? ",\n" : "\n");
    }
    text += "}\n";
    std::fwrite(text.constData(), 1, size_t(text.size()), m_out);
    return 0;
}

int CliRunner::runInfo(const CliOptions& options) {
    QStringList failures;
    StandardInput stdinput;
    QStringList given = options.inputs;
    if (auto code = stdinput.take(given, m_err)) return *code;
    const QStringList inputs = CliInputs::paths(CliInputs::expand(given, false));
    if (inputs.isEmpty()) {
        std::fprintf(m_err, "cutlark-cli: No supported images found.\n");
        return 1;
    }
    for (const QString& input : inputs) {
        Outcome o = CliJob::info(input);
        const QString shown = stdinput.shown(input);
        o.json.insert(QStringLiteral("input"), shown);
        m_terminal.print(o.json);
        if (o.failed) failures << CliJob::failureLine(shown, o.json);
    }
    return m_terminal.reportFailures(failures);
}

QStringList CliRunner::warnIdle(const Settings& settings, const QStringList& given) {
    const QStringList notices = Settings::idleNotices(settings, given);
    for (const QString& notice : notices)
        std::fprintf(m_err, "cutlark-cli: warning: %s\n", qPrintable(notice));
    return notices;
}

std::optional<int> CliRunner::readSettings(const CliOptions& options, Settings& settings,
                                           QStringList& sizeWrites, QStringList& given) {
    if (!options.presetPath.isEmpty()) {
        QFile file(options.presetPath);
        if (!file.open(QIODevice::ReadOnly)) {
            std::fprintf(m_err, "cutlark-cli: can’t read the preset %s: %s\n", qPrintable(options.presetPath),
                         qPrintable(file.errorString()));
            return 2;
        }
        const QByteArray text = file.readAll();
        QJsonParseError parseError;
        const QJsonDocument doc = QJsonDocument::fromJson(text, &parseError);
        if (parseError.error != QJsonParseError::NoError) {
            // Where, as an editor counts: line and column from 1.
            const QByteArray before = text.left(parseError.offset);
            const qsizetype line = before.count('\n') + 1;
            const qsizetype column = parseError.offset - (before.lastIndexOf('\n') + 1) + 1;
            std::fprintf(m_err, "cutlark-cli: %s:%lld:%lld: %s\n", qPrintable(options.presetPath),
                         static_cast<long long>(line), static_cast<long long>(column),
                         qPrintable(parseError.errorString()));
            return 2;
        }
        if (!doc.isObject()) {
            std::fprintf(m_err, "cutlark-cli: %s: a preset is a JSON object of setting names and values\n",
                         qPrintable(options.presetPath));
            return 2;
        }
        if (auto error = Settings::parseJsonInto(settings, doc.object())) {
            std::fprintf(m_err, "cutlark-cli: %s: %s\n", qPrintable(options.presetPath), qPrintable(*error));
            return 2;
        }
        for (const char* name : {"resizeWidth", "resizeHeight"})
            if (doc.object().contains(QLatin1String(name))) sizeWrites << QLatin1String(name);
    }
    for (const auto& [name, value] : options.sets) {
        if (auto error = Settings::parseInto(settings, name, value)) {
            std::fprintf(m_err, "cutlark-cli: --set: %s\n", qPrintable(*error));
            return 2;
        }
        given << name;
        if (name == QLatin1String("resizeWidth") || name == QLatin1String("resizeHeight")) {
            sizeWrites.removeAll(name);
            sizeWrites << name;
        }
    }
    return std::nullopt;
}

int CliRunner::runTrace(const CliOptions& options) {
    Settings settings;
    QStringList sizeWrites, given;
    if (auto code = readSettings(options, settings, sizeWrites, given)) return *code;
    settings.vectorizeEnabled = true; // tracing is what was asked for
    const QStringList idle = warnIdle(settings, given);
    StandardInput stdinput;
    QStringList inputs = options.inputs;
    if (auto code = stdinput.take(inputs, m_err)) return *code;
    const QString input = inputs.first();
    const QString shownInput = stdinput.shown(input);
    if (!options.toStdout) {
        // Never over an input, and over an existing file only when asked; checked before any work.
        const QString target = NativePath::canonical(options.svgPath);
        if (!target.isEmpty() && (target == NativePath::canonical(input) || !options.overwrite)) {
            const bool isInput = target == NativePath::canonical(input);
            std::fprintf(m_err, "cutlark-cli: %s: “%s” %s; nothing was written\n", qPrintable(shownInput),
                         qPrintable(options.svgPath),
                         isInput ? "is the input itself" : "exists already (give --overwrite to replace it)");
            return 1;
        }
    }
    CropModel model;
    model.setSynchronousWork(true);
    model.setDetectsCollages(false);
    model.setMakesThumbnails(false);
    model.open({input});
    if (model.items().empty()) {
        const QString reason =
            model.openRefusal().isEmpty() ? CliJob::whyNotOpened(input) : model.openRefusal();
        std::fprintf(m_err, "cutlark-cli: %s: %s\n", qPrintable(shownInput),
                     qPrintable(!reason.isEmpty()
                                    ? reason
                                    : model.errorMessage().value_or(QStringLiteral("can’t open"))));
        return 1;
    }
    model.applySettings(settings);
    for (const QString& name : sizeWrites)
        model.writeSetting(name, settings);
    const auto svg = model.currentSVG();
    if (!svg) {
        const QString status = model.vectorStatusText().value_or(QStringLiteral("No output."));
        std::fprintf(m_err, "cutlark-cli: %s: %s\n", qPrintable(shownInput), qPrintable(status));
        return 1;
    }
    if (options.toStdout) {
        const QByteArray bytes = svg->toUtf8();
        if (std::fwrite(bytes.constData(), 1, size_t(bytes.size()), m_out) != size_t(bytes.size()) ||
            std::fflush(m_out) != 0) {
            std::fprintf(m_err, "cutlark-cli: %s: couldn’t write the SVG to standard output\n",
                         qPrintable(shownInput));
            return 1;
        }
    } else {
        // A missing folder is made, as process -o makes its own.
        const QString folder = QFileInfo(options.svgPath).absolutePath();
        if (!NativePath::isFolder(folder) && !QDir().mkpath(folder)) {
            std::fprintf(m_err, "cutlark-cli: can’t create the folder “%s”\n", qPrintable(folder));
            return 2;
        }
        if (!AtomicFile::write(options.svgPath, svg->toUtf8())) {
            std::fprintf(m_err, "cutlark-cli: %s: can’t write %s: %s\n", qPrintable(shownInput),
                         qPrintable(options.svgPath), qPrintable(AtomicFile::lastError()));
            return 1;
        }
    }
    QJsonObject json{{QStringLiteral("input"), shownInput},
                     {QStringLiteral("output"), options.toStdout ? QStringLiteral("-") : options.svgPath},
                     {QStringLiteral("width"), model.processedImage().width()},
                     {QStringLiteral("height"), model.processedImage().height()},
                     {QStringLiteral("type"), QStringLiteral("image/svg+xml")}};
    if (model.vectorFullColor() && model.vectorColorTrace())
        json.insert(QStringLiteral("layers"), int(model.vectorColorTrace()->layers.size()));
    else if (model.vectorTrace())
        json.insert(QStringLiteral("contours"), int(model.vectorTrace()->contours.size()));
    if (!idle.isEmpty()) json.insert(QStringLiteral("notice"), idle.join(QStringLiteral("; ")));
    m_terminal.print(json, options.toStdout ? m_err : m_out);
    return 0;
}

int CliRunner::runSplit(const CliOptions& options) {
    if (!options.outputDir.isEmpty() && !NativePath::isFolder(options.outputDir) &&
        !QDir().mkpath(options.outputDir)) {
        std::fprintf(m_err, "cutlark-cli: can’t create the folder “%s”\n", qPrintable(options.outputDir));
        return 2;
    }
    QStringList failures, single;
    for (const QString& input : CliInputs::paths(CliInputs::expand(options.inputs, false))) {
        QJsonObject json{{QStringLiteral("input"), input}};
        CropModel model;
        CliPanels panels(options.outputDir);
        model.setPanels(&panels);
        model.open({input});
        if (model.items().empty()) {
            Outcome o;
            CliJob::failOpening(o, input, model);
            json = o.json;
            failures << CliJob::failureLine(input, json);
        } else if (model.collageRects().size() < 2) {
            // Read and found whole: nothing to split, nothing failed.
            json.insert(QStringLiteral("notice"), QStringLiteral("not a collage"));
            json.insert(QStringLiteral("pieces"), QJsonArray());
            single << input;
        } else {
            model.splitCollage();
            if (model.errorMessage()) {
                json.insert(QStringLiteral("error"), *model.errorMessage());
                failures << CliJob::failureLine(input, json);
            } else {
                QJsonArray pieces;
                for (const auto& item : model.items())
                    pieces.append(item.path);
                json.insert(QStringLiteral("pieces"), pieces);
                if (model.noticeMessage()) json.insert(QStringLiteral("notice"), *model.noticeMessage());
            }
        }
        m_terminal.print(json);
    }
    if (!single.isEmpty())
        std::fprintf(m_err, "cutlark-cli: not collages, left as they are: %s\n",
                     qPrintable(single.join(QStringLiteral(", "))));
    return m_terminal.reportFailures(failures);
}

int CliRunner::runProcess(const CliOptions& asked) {
    CliOptions options = asked;
    RunContext run;
    QStringList given;
    if (auto code = readSettings(options, run.settings, run.sizeWrites, given)) return *code;
    run.idle = warnIdle(run.settings, given);
    StandardInput stdinput;
    if (auto code = stdinput.take(options.inputs, m_err)) return *code;
    if (options.toStdout) {
        // The result is written as any other, into the private folder, then sent on.
        options.outputDir = stdinput.folder();
        if (options.outputDir.isEmpty()) {
            std::fprintf(m_err, "cutlark-cli: can’t make a private temporary folder\n");
            return 1;
        }
    }
    run.options = options;
    if (!options.outputDir.isEmpty() && !NativePath::isFolder(options.outputDir) &&
        !QDir().mkpath(options.outputDir)) {
        std::fprintf(m_err, "cutlark-cli: can’t create the folder “%s”\n", qPrintable(options.outputDir));
        return 2;
    }
    QStringList inputs;
    QHash<QString, QString> keys;
    if (auto code = processInputs(run, inputs, keys)) return *code;
    // Outputs are planned over every input, so that slices run apart name them as one run would.
    const std::vector<OutputPlan::Plan> plans =
        OutputPlan::plan(inputs, options, Pipeline::mayProduceTransparency(run.settings));
    std::vector<size_t> chosen;
    std::optional<Manifest> manifest;
    if (auto code = chooseWork(run, plans, keys, chosen, manifest)) return *code;

    // The network loads while the first input decodes. No warm-up run: here the first cutout is
    // that run, and a blank one before it would only add its own second.
    std::jthread loadNetwork;
    if (run.settings.keyWhiteEnabled && run.settings.bgRemovalMode == BGRemovalMode::subject)
        loadNetwork = std::jthread([] { VisionEngine::preload(false); });

    // N workers take the inputs in turn, each with a model of its own, so at most N images are in
    // memory at once; the results are printed in input order as soon as each is ready.
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
    QStringList failures;
    // The bar counts images finished in any order, redrawn while the next one in order is awaited.
    m_terminal.progress(0, total);
    for (qsizetype i = 0; i < total; ++i) {
        std::optional<Outcome> next;
        while (!(next = work.next(std::chrono::milliseconds(250))))
            m_terminal.progress(work.finished(), total);
        finish(std::move(*next), plans[chosen[size_t(i)]].input, run, stdinput, manifest, failures);
        m_terminal.progress(std::max<qsizetype>(work.finished(), i + 1), total);
    }
    // Only now: all may be finished while lines are still to print, each on a cleared line.
    m_terminal.endProgress();
    return m_terminal.reportFailures(failures);
}

std::optional<int> CliRunner::processInputs(RunContext& run, QStringList& inputs,
                                            QHash<QString, QString>& keys) {
    const CliOptions& options = run.options;
    const QList<CliInputs::Input> expanded = CliInputs::expand(options.inputs);
    // Results this run would write are never its inputs (a second run beside the first one's
    // results leaves them alone).
    const QSet<QString> results =
        options.inPlace
            ? QSet<QString>()
            : OutputPlan::results(OutputPlan::plan(CliInputs::paths(expanded), options,
                                                   Pipeline::mayProduceTransparency(run.settings)));
    for (const CliInputs::Input& input : expanded) {
        if (results.contains(NativePath::absolute(input.path))) {
            std::fprintf(m_err, "cutlark-cli: %s: left out, a result of this run\n", qPrintable(input.path));
            continue;
        }
        inputs << input.path;
        keys.insert(input.path, input.sliceKey);
    }
    if (inputs.isEmpty()) {
        std::fprintf(m_err, "cutlark-cli: No supported images found.\n");
        return 1;
    }
    if (options.toStdout && inputs.size() != 1) {
        std::fprintf(m_err, "cutlark-cli: --stdout takes one image, and %lld were given; %s\n",
                     static_cast<long long>(inputs.size()), qPrintable(CliOptions::seeHelp(options.command)));
        return 2;
    }
    for (const QString& input : std::as_const(inputs))
        run.inputs.insert(NativePath::absolute(input));
    return std::nullopt;
}

std::optional<int> CliRunner::chooseWork(const RunContext& run, const std::vector<OutputPlan::Plan>& plans,
                                         const QHash<QString, QString>& keys, std::vector<size_t>& chosen,
                                         std::optional<Manifest>& manifest) {
    const CliOptions& options = run.options;
    const QString hash = CliJob::settingsHash(run);
    QSet<QString> done;
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
    for (size_t i = 0; i < plans.size(); ++i) {
        if (!options.shard.takes(keys.value(plans[i].input))) continue;
        if (done.contains(NativePath::absolute(plans[i].input))) {
            m_terminal.print(QJsonObject{{QStringLiteral("input"), plans[i].input},
                                         {QStringLiteral("skipped"), QStringLiteral("done")}});
            continue;
        }
        chosen.push_back(i);
    }
    return std::nullopt;
}

void CliRunner::finish(Outcome o, const QString& path, const RunContext& run, const StandardInput& stdinput,
                       std::optional<Manifest>& manifest, QStringList& failures) {
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
    if (!manifest) return;
    // Only once the result is on disk, its folder's entry included, is the input done.
    const QString output = o.json.value(QStringLiteral("output")).toString();
    const bool durable = !o.failed && Manifest::syncFolderOf(output);
    QJsonObject line{{QStringLiteral("input"), NativePath::absolute(path)},
                     {QStringLiteral("settings"), CliJob::settingsHash(run)},
                     {QStringLiteral("status"), durable ? QStringLiteral("done") : QStringLiteral("failed")}};
    if (durable) line.insert(QStringLiteral("output"), output);
    if (o.failed) line.insert(QStringLiteral("error"), o.json.value(QStringLiteral("error")));
    if (!manifest->append(line)) {
        failures << QStringLiteral("%1: can’t record it in %2").arg(input, options.manifestPath);
        manifest.reset(); // a manifest that can't be written is written no more
    }
}

} // namespace cutlark
