#include "cli/CliRunner.h"

#include "engines/CollageSplitter.h"
#include "model/CropModel.h"
#include "model/AtomicFile.h"
#include "model/ImageFile.h"
#include "model/NaturalOrder.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>

#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

namespace cutlark {

namespace {

/// Answers the model's save panel with the output folder (or the item's own) and the proposed name.
class CliPanels : public Panels {
public:
    explicit CliPanels(QString outputDir) : m_outputDir(std::move(outputDir)) {}

    std::optional<QStringList> openImages(bool) override { return std::nullopt; }
    std::optional<QString> saveFile(const QString& directory, const QString& proposedName, const QString&) override {
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

QJsonArray rectJson(const QRectF& r) { return QJsonArray{r.x(), r.y(), r.width(), r.height()}; }

/// What one input turned into, ready to print.
struct Outcome {
    QJsonObject json;
    bool failed = false;
};

Outcome processOne(const QString& input, const Settings& settings, const QStringList& sizeWrites,
                   const CliOptions& options) {
    Outcome outcome;
    outcome.json.insert(QStringLiteral("input"), input);
    CropModel model;
    CliPanels panels(options.outputDir);
    model.setPanels(&panels);
    model.setSynchronousWork(true); // no event loop here: cutouts and traces run inside the call

    model.open({input});
    if (model.items().empty()) {
        outcome.failed = true;
        outcome.json.insert(QStringLiteral("error"), model.errorMessage().value_or(QStringLiteral("can’t open")));
        return outcome;
    }
    model.applySettings(settings);
    // Sizes given by name are written again, as a person would type them, so that a locked aspect
    // follows the image as it stands before the resize.
    for (const QString& name : sizeWrites) model.writeSetting(name, settings);

    const CropModel::Item* item = model.active();
    const QImage result = model.processedImage();
    const QString type = ImageFile::writableType(model.saveTypeChoice(*item).type);
    const QString sourcePath = item->url;

    if (options.inPlace) model.saveOverOriginal();
    else model.saveAsNewFile();

    if (model.errorMessage()) {
        outcome.failed = true;
        outcome.json.insert(QStringLiteral("error"), *model.errorMessage());
        return outcome;
    }
    QString written;
    if (options.inPlace) written = model.items().empty() ? sourcePath : model.items().front().url;
    else written = panels.chosen();
    outcome.json.insert(QStringLiteral("output"), written);
    outcome.json.insert(QStringLiteral("width"), result.width());
    outcome.json.insert(QStringLiteral("height"), result.height());
    outcome.json.insert(QStringLiteral("type"), type);
    if (model.noticeMessage()) outcome.json.insert(QStringLiteral("notice"), *model.noticeMessage());
    if (model.subjectNotFound()) outcome.json.insert(QStringLiteral("subjectNotFound"), true);
    return outcome;
}

Outcome infoOne(const QString& input) {
    Outcome outcome;
    outcome.json.insert(QStringLiteral("input"), input);
    CropModel model;
    model.open({input});
    const CropModel::Item* item = model.active();
    if (!item) {
        outcome.failed = true;
        outcome.json.insert(QStringLiteral("error"), model.errorMessage().value_or(QStringLiteral("can’t open")));
        return outcome;
    }
    outcome.json.insert(QStringLiteral("width"), double(item->buffer.width()));
    outcome.json.insert(QStringLiteral("height"), double(item->buffer.height()));
    outcome.json.insert(QStringLiteral("type"), item->type);
    const Settings defaults;
    const auto content = CropEngine::contentRect(item->buffer, defaults.threshold);
    outcome.json.insert(QStringLiteral("contentRect"), content ? QJsonValue(rectJson(*content)) : QJsonValue());
    outcome.json.insert(QStringLiteral("mostlyWhite"), CropEngine::backgroundIsMostlyWhite(item->buffer, CropEngine::kMostlyWhiteEdgeFraction));
    QJsonArray pieces;
    for (const QRectF& r : model.collageRects()) pieces.append(rectJson(r));
    outcome.json.insert(QStringLiteral("collageRects"), pieces);
    return outcome;
}

/// Inputs as opening sees them: folders become their images, in name order within each folder.
QStringList expandInputs(const QStringList& inputs) {
    QStringList out;
    for (const QString& input : inputs) {
        QStringList expanded = CropModel::expandingFolders({input});
        if (QFileInfo(input).isDir()) {
            std::stable_sort(expanded.begin(), expanded.end(), [](const QString& a, const QString& b) {
                return NaturalOrder::compare(QFileInfo(a).fileName(), QFileInfo(b).fileName()) < 0;
            });
        }
        out << expanded;
    }
    return out;
}

} // namespace

void CliRunner::print(const QJsonObject& object) {
    const QByteArray line = QJsonDocument(object).toJson(QJsonDocument::Compact);
    std::fwrite(line.constData(), 1, size_t(line.size()), m_out);
    std::fputc('\n', m_out);
    std::fflush(m_out);
}

void CliRunner::progress(qsizetype done, qsizetype total) {
    if (!isatty(fileno(m_err)) || total <= 0) return;
    const int width = 30;
    const int filled = int(width * done / total);
    std::fprintf(m_err, "\r[%s%s] %lld/%lld", QByteArray(filled, '#').constData(),
                 QByteArray(width - filled, ' ').constData(), static_cast<long long>(done),
                 static_cast<long long>(total));
    if (done == total) std::fputc('\n', m_err);
    std::fflush(m_err);
}

int CliRunner::reportFailures(const QStringList& failures) {
    if (failures.isEmpty()) return 0;
    for (const QString& f : failures) std::fprintf(m_err, "cutlark-cli: failed: %s\n", qPrintable(f));
    return 1;
}

int CliRunner::run(const QStringList& arguments) {
    CliOptions options;
    if (auto error = CliOptions::parse(arguments, options)) {
        std::fprintf(m_err, "cutlark-cli: %s\n\n%s", qPrintable(*error), qPrintable(CliOptions::usage()));
        return 2;
    }
    switch (options.command) {
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
    const QStringList inputs = expandInputs(options.inputs);
    if (inputs.isEmpty()) {
        std::fprintf(m_err, "cutlark-cli: No supported images found.\n");
        return 1;
    }
    for (const QString& input : inputs) {
        const Outcome o = infoOne(input);
        print(o.json);
        if (o.failed) failures << input + QStringLiteral(": ") + o.json.value(QStringLiteral("error")).toString();
    }
    return reportFailures(failures);
}

std::optional<int> CliRunner::readSettings(const CliOptions& options, Settings& settings, QStringList& sizeWrites) {
    if (!options.presetPath.isEmpty()) {
        QFile file(options.presetPath);
        if (!file.open(QIODevice::ReadOnly)) {
            std::fprintf(m_err, "cutlark-cli: can’t read the preset “%s”\n", qPrintable(options.presetPath));
            return 2;
        }
        QJsonParseError parseError;
        const QJsonDocument doc = QJsonDocument::fromJson(file.readAll(), &parseError);
        if (!doc.isObject()) {
            std::fprintf(m_err, "cutlark-cli: the preset “%s” isn’t a JSON object: %s\n",
                         qPrintable(options.presetPath), qPrintable(parseError.errorString()));
            return 2;
        }
        if (auto error = Settings::parseJsonInto(settings, doc.object())) {
            std::fprintf(m_err, "cutlark-cli: preset: %s\n", qPrintable(*error));
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
        if (name == QLatin1String("resizeWidth") || name == QLatin1String("resizeHeight")) {
            sizeWrites.removeAll(name);
            sizeWrites << name;
        }
    }
    return std::nullopt;
}

int CliRunner::runTrace(const CliOptions& options) {
    Settings settings;
    QStringList sizeWrites;
    if (auto code = readSettings(options, settings, sizeWrites)) return *code;
    settings.vectorizeEnabled = true; // tracing is what was asked for
    const QString input = options.inputs.first();
    CropModel model;
    model.setSynchronousWork(true);
    model.open({input});
    if (model.items().empty()) {
        std::fprintf(m_err, "cutlark-cli: failed: %s: %s\n", qPrintable(input),
                     qPrintable(model.errorMessage().value_or(QStringLiteral("can’t open"))));
        return 1;
    }
    model.applySettings(settings);
    for (const QString& name : sizeWrites) model.writeSetting(name, settings);
    const auto svg = model.currentSVG();
    if (!svg) {
        const QString status = model.vectorStatusText().value_or(QStringLiteral("No output."));
        std::fprintf(m_err, "cutlark-cli: failed: %s: %s\n", qPrintable(input), qPrintable(status));
        return 1;
    }
    if (!AtomicFile::write(options.outputDir, svg->toUtf8())) {
        std::fprintf(m_err, "cutlark-cli: failed: %s: Couldn’t write to “%s”.\n", qPrintable(input),
                     qPrintable(QFileInfo(options.outputDir).fileName()));
        return 1;
    }
    QJsonObject json{{QStringLiteral("input"), input},
                     {QStringLiteral("output"), options.outputDir},
                     {QStringLiteral("width"), model.processedImage().width()},
                     {QStringLiteral("height"), model.processedImage().height()},
                     {QStringLiteral("type"), QStringLiteral("image/svg+xml")}};
    if (model.vectorFullColor() && model.vectorColorTrace())
        json.insert(QStringLiteral("layers"), int(model.vectorColorTrace()->layers.size()));
    else if (model.vectorTrace())
        json.insert(QStringLiteral("contours"), int(model.vectorTrace()->contours.size()));
    print(json);
    return 0;
}

int CliRunner::runSplit(const CliOptions& options) {
    if (!options.outputDir.isEmpty() && !QFileInfo(options.outputDir).isDir() && !QDir().mkpath(options.outputDir)) {
        std::fprintf(m_err, "cutlark-cli: can’t create the folder “%s”\n", qPrintable(options.outputDir));
        return 2;
    }
    QStringList failures;
    for (const QString& input : expandInputs(options.inputs)) {
        QJsonObject json{{QStringLiteral("input"), input}};
        CropModel model;
        CliPanels panels(options.outputDir);
        model.setPanels(&panels);
        model.open({input});
        QString error;
        if (model.items().empty()) error = model.errorMessage().value_or(QStringLiteral("can’t open"));
        else if (model.collageRects().size() < 2) error = QStringLiteral("not a collage");
        else {
            model.splitCollage();
            if (model.errorMessage()) error = *model.errorMessage();
        }
        if (!error.isEmpty()) {
            json.insert(QStringLiteral("error"), error);
            failures << input + QStringLiteral(": ") + error;
        } else {
            QJsonArray pieces;
            for (const auto& item : model.items()) pieces.append(item.url);
            json.insert(QStringLiteral("pieces"), pieces);
            if (model.noticeMessage()) json.insert(QStringLiteral("notice"), *model.noticeMessage());
        }
        print(json);
    }
    return reportFailures(failures);
}

int CliRunner::runProcess(const CliOptions& options) {
    Settings settings;
    QStringList sizeWrites;
    if (auto code = readSettings(options, settings, sizeWrites)) return *code;
    if (!options.outputDir.isEmpty() && !QFileInfo(options.outputDir).isDir()) {
        if (!QDir().mkpath(options.outputDir)) {
            std::fprintf(m_err, "cutlark-cli: can’t create the folder “%s”\n", qPrintable(options.outputDir));
            return 2;
        }
    }

    const QStringList inputs = expandInputs(options.inputs);
    if (inputs.isEmpty()) {
        std::fprintf(m_err, "cutlark-cli: No supported images found.\n");
        return 1;
    }

    // N workers take the inputs in turn, each with a model of its own, so at most N images are in
    // memory at once; the results are printed in input order as soon as each is ready.
    const qsizetype total = inputs.size();
    std::vector<std::optional<Outcome>> outcomes(static_cast<size_t>(total));
    std::mutex mutex;
    std::condition_variable ready;
    std::atomic<qsizetype> next{0};
    const auto work = [&] {
        for (qsizetype i = next++; i < total; i = next++) {
            Outcome outcome = processOne(inputs[i], settings, sizeWrites, options);
            const std::lock_guard lock(mutex);
            outcomes[size_t(i)] = std::move(outcome);
            ready.notify_all();
        }
    };
    std::vector<std::thread> workers;
    for (int t = 0; t < std::min<qsizetype>(options.jobs, total); ++t) workers.emplace_back(work);

    QStringList failures;
    for (qsizetype i = 0; i < total; ++i) {
        Outcome o;
        {
            std::unique_lock lock(mutex);
            ready.wait(lock, [&] { return outcomes[size_t(i)].has_value(); });
            o = std::move(*outcomes[size_t(i)]);
            outcomes[size_t(i)].reset();
        }
        print(o.json);
        if (o.failed) failures << inputs[i] + QStringLiteral(": ") + o.json.value(QStringLiteral("error")).toString();
        progress(i + 1, total);
    }
    for (std::thread& worker : workers) worker.join();
    return reportFailures(failures);
}

} // namespace cutlark
