#include "cli/CliRunner.h"

#include "cli/CliInputs.h"
#include "cli/Manifest.h"
#include "engines/OnnxRuntime.h"
#include "engines/VisionEngine.h"
#include "io/ImageFile.h"
#include "model/CropModel.h"
#include "model/Pipeline.h"
#include "support/AtomicFile.h"
#include "support/AvailableCores.h"
#include "support/NativePath.h"
#include "support/OrderedWork.h"

#include <QDir>
#include <QElapsedTimer>
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
    std::optional<QString> openFile(const QString&) override { return std::nullopt; }
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
    case CliOptions::Command::manifest:
        return runManifest(options);
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

std::optional<int> CliRunner::gatherInputs(const CliOptions& options, StandardInput& stdinput, bool onceEach,
                                           QList<CliInputs::Input>& inputs, QStringList& failures) {
    QStringList given = options.inputs;
    if (!options.filesFrom.isEmpty()) {
        QStringList listed;
        if (auto error = CliInputs::readList(options.filesFrom, options.nulSeparated, listed)) {
            std::fprintf(m_err, "cutlark-cli: %s\n", qPrintable(*error));
            return 2;
        }
        given << listed;
    }
    if (auto code = stdinput.take(given, m_err)) return *code;
    CliInputs::Report report;
    inputs = CliInputs::expand(given, options.recursive, onceEach, &report);
    // A folder named that holds no picture is said, as a failed input of its own.
    for (const QString& folder : std::as_const(report.emptyFolders)) {
        const QJsonObject json{
            {QStringLiteral("input"), folder},
            {QStringLiteral("error"), QStringLiteral("no picture cutlark opens in this folder")}};
        m_terminal.print(json, options.toStdout ? m_err : m_out);
        failures << CliJob::failureLine(folder, json);
    }
    for (const auto& [folder, count] : std::as_const(report.skippedSubfolders))
        std::fprintf(m_err, "cutlark-cli: %s: %d %s left out; give -r to go into %s\n", qPrintable(folder),
                     count, count == 1 ? "subfolder" : "subfolders", count == 1 ? "it" : "them");
    if (inputs.isEmpty() && failures.isEmpty()) {
        std::fprintf(m_err, "cutlark-cli: No supported images found.\n");
        return 1;
    }
    return std::nullopt;
}

std::optional<int> CliRunner::chooseNetwork(const CliOptions& options, bool describe) {
    QString why;
    const std::optional<SubjectNetwork> choice = SubjectNetwork::read(options.networkPath, &why);
    const char* after = describe ? "" : "; nothing was written";
    if (!choice) {
        std::fprintf(m_err, "cutlark-cli: %s%s\n", qPrintable(why), after);
        return 1;
    }
    VisionEngine::useNetwork(*choice);
    // Checked before any input is read: a network that doesn't fit fails the run, not each picture.
    const std::optional<VisionEngine::NetworkInfo> info = VisionEngine::networkInfo();
    const QString runtimeProblem = VisionEngine::runtimeProblem();
    if (!info) {
        std::fprintf(m_err, "cutlark-cli: %s%s\n", qPrintable(VisionEngine::problem()), after);
        return 1;
    }
    if (options.verbose && !runtimeProblem.isEmpty())
        std::fprintf(m_err, "cutlark-cli: %s\n", qPrintable(runtimeProblem));
    if (options.verbose) sayWhereTheNetworkRuns();
    if (!describe) return std::nullopt;
    const auto triple = [](const std::array<double, 3>& v) { return QJsonArray{v[0], v[1], v[2]}; };
    QString runtimeVersion;
    const bool onRuntime = VisionEngine::loadedBackend() == VisionEngine::Backend::onnxRuntime;
    if (onRuntime) runtimeVersion = OnnxRuntime::version().value_or(QString());
    const VisionEngine::GpuStatus gpu = VisionEngine::gpuStatus();
    const QString where =
        gpu.device.isEmpty() ? QStringLiteral("the CPU") : QStringLiteral("the GPU (%1)").arg(gpu.device);
    QJsonObject json{{QStringLiteral("network"), options.networkPath},
                     {QStringLiteral("input"), info->input},
                     {QStringLiteral("output"), info->output},
                     {QStringLiteral("size"), QJsonArray{info->width, info->height}},
                     {QStringLiteral("mean"), triple(choice->mean)},
                     {QStringLiteral("std"), triple(choice->stdDev)},
                     {QStringLiteral("sigmoid"), choice->sigmoid},
                     {QStringLiteral("runsOn"),
                      onRuntime ? QStringLiteral("ONNX Runtime %1 on %2").arg(runtimeVersion, where)
                                : QStringLiteral("OpenCV on the CPU")}};
    if (!runtimeProblem.isEmpty()) json.insert(QStringLiteral("runtimeProblem"), runtimeProblem);
    if (!gpu.whyNot.isEmpty()) json.insert(QStringLiteral("notOnGpu"), gpu.whyNot);
    m_terminal.print(json);
    return std::nullopt;
}

void CliRunner::sayWhereTheNetworkRuns() {
    const VisionEngine::GpuStatus gpu = VisionEngine::gpuStatus();
    if (!gpu.device.isEmpty())
        std::fprintf(m_err, "cutlark-cli: the subject network runs on the GPU (%s)\n",
                     qPrintable(gpu.device));
    else if (!gpu.whyNot.isEmpty())
        std::fprintf(m_err, "cutlark-cli: the subject network runs on the CPU: %s\n", qPrintable(gpu.whyNot));
}

int CliRunner::runInfo(const CliOptions& options) {
    if (!options.networkPath.isEmpty()) {
        if (auto code = chooseNetwork(options, true)) return *code;
        if (options.inputs.isEmpty() && options.filesFrom.isEmpty()) return 0;
    }
    QStringList failures;
    StandardInput stdinput;
    QList<CliInputs::Input> inputs;
    if (auto code = gatherInputs(options, stdinput, false, inputs, failures)) return *code;
    for (const CliInputs::Input& input : std::as_const(inputs)) {
        Outcome o = CliJob::info(input.path);
        const QString shown = stdinput.shown(input.path);
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
    RunContext run;
    QStringList given;
    if (auto code = readSettings(options, run.settings, run.sizeWrites, given)) return *code;
    run.settings.vectorizeEnabled = true; // tracing is what was asked for
    run.idle = warnIdle(run.settings, given);
    run.options = options;
    StandardInput stdinput;
    QList<CliInputs::Input> inputs;
    QStringList failures;
    if (auto code = gatherInputs(options, stdinput, true, inputs, failures)) return *code;
    // -o names the one SVG to write (a name ending in .svg, or a file that is there), or a folder.
    const QString output = options.outputDir;
    const bool toFile =
        !output.isEmpty() && !NativePath::isFolder(output) &&
        (output.endsWith(QLatin1String(".svg"), Qt::CaseInsensitive) || NativePath::exists(output));
    if ((toFile || options.toStdout) && inputs.size() != 1) {
        std::fprintf(m_err, "cutlark-cli: %s takes one input, and %lld were given; %s\n",
                     options.toStdout ? "--stdout" : "-o FILE.svg", static_cast<long long>(inputs.size()),
                     qPrintable(CliOptions::seeHelp(options.command)));
        return 2;
    }
    // Each input's SVG: beside it, at its place below -o DIR, or the one file -o names. Two that
    // would share one are both refused, as process refuses them.
    QStringList targets;
    QHash<QString, qsizetype> first;
    QHash<qsizetype, QString> clashes;
    for (const CliInputs::Input& input : std::as_const(inputs)) {
        const QString svgName = CropModel::proposedDocumentName(input.path, QStringLiteral("svg"));
        targets << NativePath::absolute(
            toFile             ? output
            : output.isEmpty() ? QDir(QFileInfo(NativePath::absolute(input.path)).path()).filePath(svgName)
                               : QDir(QDir(output).filePath(input.place)).filePath(svgName));
        const QString key = targets.back().toLower();
        if (const auto at = first.constFind(key); at != first.constEnd()) {
            clashes.insert(*at, input.path);
            clashes.insert(targets.size() - 1, inputs[*at].path);
        } else {
            first.insert(key, targets.size() - 1);
        }
    }
    QElapsedTimer started;
    started.start();
    CliJob::Tally tally;
    for (qsizetype i = 0; i < inputs.size(); ++i) {
        const QString& path = inputs[i].path;
        Outcome o;
        if (clashes.contains(i)) {
            o.failed = true;
            o.json = QJsonObject{{QStringLiteral("output"), targets[i]},
                                 {QStringLiteral("error"),
                                  QStringLiteral("its SVG would take the name of “%1”’s; "
                                                 "rename one of them (nothing was written for either)")
                                      .arg(clashes.value(i))}};
        } else {
            o = CliJob::trace(path, targets[i], toFile, run, options.toStdout ? m_out : nullptr);
        }
        const QString shown = stdinput.shown(path);
        o.json.insert(QStringLiteral("input"), shown);
        m_terminal.print(o.json, options.toStdout ? m_err : m_out);
        tally.count(o);
        if (o.failed) failures << CliJob::failureLine(shown, o.json);
    }
    // The failures named, then the run in one line: the last thing said.
    const int code = m_terminal.reportFailures(failures);
    if (!options.toStdout)
        m_terminal.summary(tally.written, tally.skipped, int(failures.size()), inputs.size(),
                           started.elapsed());
    return code;
}

int CliRunner::runSplit(const CliOptions& options) {
    if (!options.outputDir.isEmpty() && !NativePath::makeFolders(options.outputDir)) {
        std::fprintf(m_err, "cutlark-cli: can’t create the folder “%s”\n", qPrintable(options.outputDir));
        return 2;
    }
    QStringList failures, single;
    StandardInput stdinput;
    QList<CliInputs::Input> inputs;
    if (auto code = gatherInputs(options, stdinput, false, inputs, failures)) return *code;
    QElapsedTimer started;
    started.start();
    CliJob::Tally tally;
    for (const CliInputs::Input& input : std::as_const(inputs)) {
        const QString folder =
            options.outputDir.isEmpty() ? QString() : QDir(options.outputDir).filePath(input.place);
        QJsonObject json = splitOne(input.path, folder, options.overwrite);
        const bool whole = json.value(QStringLiteral("notice")).toString() == QLatin1String("not a collage");
        if (json.contains(QStringLiteral("error"))) failures << CliJob::failureLine(input.path, json);
        if (whole) single << input.path;
        m_terminal.print(json);
        // A picture found whole was left as it is: skipped, as a collage split before is.
        if (whole) json.insert(QStringLiteral("skipped"), QStringLiteral("whole"));
        tally.count(CliJob::Outcome{json, json.contains(QStringLiteral("error")), {}, {}});
    }
    if (!single.isEmpty())
        std::fprintf(m_err, "cutlark-cli: not collages, left as they are: %s\n",
                     qPrintable(single.join(QStringLiteral(", "))));
    const int code = m_terminal.reportFailures(failures);
    m_terminal.summary(tally.written, tally.skipped, int(failures.size()), inputs.size(), started.elapsed());
    return code;
}

QJsonObject CliRunner::splitOne(const QString& input, const QString& folder, bool overwrite) {
    QJsonObject json{{QStringLiteral("input"), input}};
    CropModel model;
    CliPanels panels(folder);
    model.setPanels(&panels);
    model.setSplitReplaces(overwrite);
    model.open({input});
    if (model.items().empty()) {
        Outcome o;
        CliJob::failOpening(o, input, model);
        return o.json;
    }
    if (model.collageRects().size() < 2) {
        // Read and found whole: nothing to split, nothing failed.
        json.insert(QStringLiteral("notice"), QStringLiteral("not a collage"));
        json.insert(QStringLiteral("pieces"), QJsonArray());
        return json;
    }
    // Split before: its pieces stay as they are unless asked, as process leaves its results.
    const CropModel::Item& item = *model.active();
    const QDir into(folder.isEmpty() ? QFileInfo(NativePath::absolute(input)).path() : folder);
    QJsonArray existing;
    for (qsizetype i = 0; i < model.collageRects().size(); ++i) {
        const QString piece = into.filePath(CropModel::splitPieceName(item, int(i + 1)));
        if (NativePath::exists(piece)) existing.append(piece);
    }
    if (!overwrite && !existing.isEmpty()) {
        json.insert(QStringLiteral("skipped"), QStringLiteral("exists"));
        json.insert(QStringLiteral("pieces"), existing);
        return json;
    }
    if (!folder.isEmpty() && !NativePath::makeFolders(folder)) {
        json.insert(QStringLiteral("error"), QStringLiteral("can’t create the folder “%1”").arg(folder));
        return json;
    }
    model.splitCollage();
    if (model.errorMessage()) {
        json.insert(QStringLiteral("error"), *model.errorMessage());
        return json;
    }
    QJsonArray pieces;
    for (const auto& piece : model.items())
        pieces.append(piece.path);
    json.insert(QStringLiteral("pieces"), pieces);
    if (model.noticeMessage()) json.insert(QStringLiteral("notice"), *model.noticeMessage());
    return json;
}

int CliRunner::runManifest(const CliOptions& options) {
    Manifest::Summary summary;
    for (const QString& file : options.inputs) {
        QString error;
        Manifest::summarize(file, summary, error);
        if (!error.isEmpty()) {
            std::fprintf(m_err, "cutlark-cli: can’t read %s: %s\n", qPrintable(file), qPrintable(error));
            return 2;
        }
    }
    if (options.json) {
        const QByteArray line = QJsonDocument(summary.toJson()).toJson(QJsonDocument::Compact);
        std::fprintf(m_out, "%s\n", line.constData());
    } else {
        std::fputs(qPrintable(summary.text()), m_out);
    }
    return summary.failed() > 0 ? 1 : 0;
}

} // namespace cutlark
