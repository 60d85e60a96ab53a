#include "cli/CliRunner.h"

#include "cli/Manifest.h"

#include "engines/CollageSplitter.h"
#include "engines/VisionEngine.h"
#include "io/ImageFile.h"
#include "io/ImageMetadata.h"
#include "model/CropModel.h"
#include "model/Pipeline.h"
#include "model/SavePlan.h"
#include "support/AtomicFile.h"
#include "support/AvailableCores.h"
#include "support/MemoryBudget.h"
#include "support/NativePath.h"
#include "support/NaturalOrder.h"
#include "support/OrderedWork.h"
#include "support/PrivateDir.h"
#include "support/RegularFile.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QMimeDatabase>
#include <QSet>

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <exception>
#include <future>
#include <memory>
#include <optional>
#include <semaphore>
#include <thread>
#include <vector>

namespace cutlark {

namespace {

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

QJsonArray rectJson(const QRectF& r) {
    return QJsonArray{r.x(), r.y(), r.width(), r.height()};
}

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

/// Where one input's result goes, worked out for the whole run before any work starts.
struct Plan {
    QString input;          ///< as expanded from the arguments
    QString folder;         ///< where a new result goes (unused with --in-place)
    int number = 1;         ///< 1: <stem>-out.<ext>; n: <stem>-out-n.<ext>
    QStringList extensions; ///< every extension the result can end up with
};

QString stemOf(const QString& path) {
    return QFileInfo(path).completeBaseName();
}

QString numberedName(const QString& stem, int number, const QString& extension) {
    return stem + QStringLiteral("-out") + (number > 1 ? QStringLiteral("-%1").arg(number) : QString()) +
           QLatin1Char('.') + extension;
}

/// Numbers the results so that no two inputs of the run can write the same file, whatever type
/// each result takes: within one folder and stem, in input order, each input takes the lowest
/// number none of whose names is spoken for yet.
std::vector<Plan> planOutputs(const QStringList& inputs, const CliOptions& options, bool forcePngPossible) {
    std::vector<Plan> plans;
    QSet<QString> taken;
    for (const QString& input : inputs) {
        Plan plan;
        plan.input = input;
        plan.folder = QDir::cleanPath(NativePath::absolute(
            options.outputDir.isEmpty() ? QFileInfo(NativePath::absolute(input)).path() : options.outputDir));
        QString own = options.format.isEmpty() ? QFileInfo(input).suffix()
                                               : ImageFile::preferredExtension(options.format);
        if (own.isEmpty()) own = QStringLiteral("png");
        plan.extensions = {own};
        if (options.format.isEmpty() && forcePngPossible &&
            !ImageFile::supportsAlpha(ImageFile::typeForExtension(own)) &&
            own.compare(QStringLiteral("png"), Qt::CaseInsensitive) != 0)
            plan.extensions << QStringLiteral("png");
        const QString stem = stemOf(input);
        const auto key = [&](int n, const QString& ext) {
            return QDir(plan.folder).filePath(numberedName(stem, n, ext)).toLower();
        };
        for (int n = 1;; ++n) {
            bool free = true;
            for (const QString& ext : plan.extensions)
                free = free && !taken.contains(key(n, ext));
            if (!free) continue;
            for (const QString& ext : plan.extensions)
                taken.insert(key(n, ext));
            plan.number = n;
            break;
        }
        plans.push_back(plan);
    }
    return plans;
}

/// Every file the plans could write, absolute.
QSet<QString> plannedResults(const std::vector<Plan>& plans) {
    QSet<QString> out;
    for (const Plan& p : plans)
        for (const QString& ext : p.extensions)
            out.insert(QDir(p.folder).filePath(numberedName(stemOf(p.input), p.number, ext)));
    return out;
}

QString absolute(const QString& path) {
    return NativePath::absolute(path);
}

/// What the whole run shares: the settings, the options, the inputs (absolute) and whether subject
/// mode can run.
struct RunContext {
    Settings settings;
    QStringList sizeWrites;
    QStringList idle; ///< notices about settings given that a switch left off makes idle
    CliOptions options;
    QSet<QString> inputs;
    /// Results being written at once, at most one per job: a worker whose last result is still
    /// being synced waits here rather than piling up results behind a slow disk.
    std::shared_ptr<std::counting_semaphore<>> writeSlots;
};

/// True when some pixel of `image` isn't fully opaque.
bool hasTransparency(const QImage& image) {
    if (!image.hasAlphaChannel()) return false;
    const QImage argb =
        image.format() == QImage::Format_ARGB32 || image.format() == QImage::Format_ARGB32_Premultiplied
            ? image
            : image.convertToFormat(QImage::Format_ARGB32_Premultiplied);
    for (int y = 0; y < argb.height(); ++y) {
        const QRgb* p = reinterpret_cast<const QRgb*>(argb.constScanLine(y));
        for (int x = 0; x < argb.width(); ++x)
            if (qAlpha(p[x]) != 255) return true;
    }
    return false;
}

/// Why `path` didn't open, in a person's words, when something plainer than a damaged picture is
/// the cause; empty otherwise.
QString whyNotOpened(const QString& path) {
    if (!NativePath::exists(path)) return QStringLiteral("no such file");
    if (NativePath::isFolder(path)) return QStringLiteral("a folder with no image cutlark opens");
    const QString kind = RegularFile::otherKind(path);
    if (!kind.isEmpty()) return QStringLiteral("not a regular file (%1); only files are opened").arg(kind);
    RegularFile regular;
    if (!regular.open(path)) {
        QFile plain(path);
        return QStringLiteral("can’t be read: %1")
            .arg(plain.open(QIODevice::ReadOnly) ? QStringLiteral("unknown error") : plain.errorString());
    }
    if (regular.file().size() == 0) return QStringLiteral("an empty file");
    const QMimeType content = QMimeDatabase().mimeTypeForData(&regular.file());
    for (const QString& type : ImageFile::acceptedTypes())
        if (ImageFile::conforms(content.name(), type)) return QString();
    return QStringLiteral("not an image type cutlark opens (%1)").arg(content.name());
}

/// Marks `outcome` failed with the model's error; `reason` says more for the person, when known.
void failOpening(Outcome& outcome, const QString& input, const CropModel& model) {
    outcome.failed = true;
    outcome.json.insert(QStringLiteral("error"), model.errorMessage().value_or(QStringLiteral("can’t open")));
    const QString reason = model.openRefusal().isEmpty() ? whyNotOpened(input) : model.openRefusal();
    if (!reason.isEmpty()) outcome.json.insert(QStringLiteral("reason"), reason);
}

/// "input: why", for the failures named at the end of a run.
QString failureLine(const QString& input, const QJsonObject& json) {
    const QString reason = json.value(QStringLiteral("reason")).toString();
    return input + QStringLiteral(": ") +
           (reason.isEmpty() ? json.value(QStringLiteral("error")).toString() : reason);
}

Outcome processOne(const Plan& plan, const RunContext& run) {
    const CliOptions& options = run.options;
    const QString& input = plan.input;
    Outcome outcome;
    outcome.json.insert(QStringLiteral("input"), input);
    const auto fail = [&](const QString& error) {
        outcome.failed = true;
        outcome.json.insert(QStringLiteral("error"), error);
        return outcome;
    };

    // The picture and its work take their share of memory before anything is decoded; a job whose
    // picture doesn't fit beside the others' waits for them, one that can never fit is refused.
    std::optional<MemoryBudget::Hold> memory;
    if (const auto size = ImageFile::probeSize(input)) {
        const qint64 bytes = qint64(size->width()) * size->height() * 4;
        memory = MemoryBudget::waitHold(bytes * (1 + MemoryBudget::kWorkFactor));
        if (!memory)
            return fail(QCoreApplication::translate("cutlark::CropModel", "1 file couldn’t be opened."));
    }

    CropModel model;
    model.setSynchronousWork(true); // no event loop here: cutouts and traces run inside the call
    model.setDetectsCollages(false);
    model.setMakesThumbnails(false);
    if (memory) model.setLoadOptions(ImageFile::LoadOptions{false});

    model.open({input});
    if (model.items().empty()) {
        failOpening(outcome, input, model);
        return outcome;
    }
    // The settings, then the sizes given by name written again as a person would type them (so that
    // a locked aspect follows the image as it stands before the resize), each build stopping before
    // the resize; then the resize once, for the size that stands at the end.
    model.setDefersResize(true);
    model.applySettings(run.settings);
    for (const QString& name : run.sizeWrites)
        model.writeSetting(name, run.settings);
    model.setDefersResize(false);
    model.writeSetting(QStringLiteral("resizeEnabled"), run.settings);
    // Missing, damaged or refused: said as such, not as a picture without a subject.
    if (model.wantsVision() && (!model.subjectModeOffered() || !VisionEngine::problem().isEmpty()))
        return fail(QStringLiteral("subject mode can’t run: ") + VisionEngine::problem());

    const CropModel::Item* item = model.active();
    const QImage result = model.processedImage();
    SavePlan::Choice choice = model.saveTypeChoice(*item);
    if (!options.format.isEmpty()) {
        // Asked for by name: written so, or refused when it would lose the transparency.
        if (!ImageFile::supportsAlpha(options.format) && hasTransparency(result))
            return fail(
                QStringLiteral("%1 can’t hold the result’s transparency; choose --format png or webp, "
                               "or lay a background")
                    .arg(ImageFile::preferredExtension(options.format)));
        choice = SavePlan::asked(options.format);
    }
    const QString type = ImageFile::writableType(choice.type);
    const QString sourcePath = item->path;

    QString target;
    if (options.inPlace) {
        target = absolute(SavePlan::overOriginal(sourcePath, choice));
        if (target != absolute(sourcePath) && run.inputs.contains(target))
            return fail(
                QStringLiteral(
                    "the result would be written as “%1”, which is another input; nothing was written")
                    .arg(QFileInfo(target).fileName()));
    } else {
        target = QDir(plan.folder).filePath(SavePlan::newFileName(sourcePath, choice, plan.number));
    }
    outcome.json.insert(QStringLiteral("output"), target);
    // A result from before is not replaced unless asked; the file the input itself is, is.
    if (!options.overwrite && target != absolute(sourcePath) && NativePath::exists(target)) {
        outcome.json.insert(QStringLiteral("skipped"), QStringLiteral("exists"));
        return outcome;
    }

    // Written here rather than through the model's save actions: the same save rules (type, quality
    // as the source stored it), plus the source's metadata, and nothing is rebuilt once the file is out.
    const bool carry = !options.strip && ImageMetadata::canCarry(type);
    QStringList leftOut; // metadata too large to carry, named in the notice
    const ImageMetadata::Blocks blocks = carry && ImageMetadata::carriedByEncoder(type)
                                             ? ImageMetadata::forResult(sourcePath, result.size(), &leftOut)
                                             : ImageMetadata::Blocks{};
    QByteArray bytes = ImageFile::encode(result, choice.type, item->storage, options.quality, blocks);
    if (!bytes.isEmpty() && carry)
        bytes = ImageMetadata::carryOver(sourcePath, bytes, type, result.size(), &leftOut);
    const QString cantWrite = QStringLiteral("Couldn’t write to “%1”.").arg(QFileInfo(target).fileName());
    if (bytes.isEmpty()) return fail(cantWrite);
    // Written and synced on a thread of its own, so that the worker's core computes the next image
    // while the disk confirms this one; the line is printed once the file is there.
    outcome.whenWriteFails = outcome.json;
    outcome.whenWriteFails.insert(QStringLiteral("error"), cantWrite);
    const auto write = [target, bytes]() -> std::optional<QString> {
        if (AtomicFile::write(target, bytes)) return std::nullopt;
        return AtomicFile::lastError();
    };
    if (run.writeSlots) {
        run.writeSlots->acquire();
        try {
            outcome.writing = std::async(std::launch::async, [write, writeSlots = run.writeSlots] {
                                  const auto why = write();
                                  writeSlots->release();
                                  return why;
                              }).share();
        } catch (const std::system_error&) { // no thread to be had: written here
            run.writeSlots->release();
        }
    }
    if (!outcome.writing.valid()) {
        std::promise<std::optional<QString>> done;
        done.set_value(write());
        outcome.writing = done.get_future().share();
    }
    outcome.json.insert(QStringLiteral("width"), result.width());
    outcome.json.insert(QStringLiteral("height"), result.height());
    outcome.json.insert(QStringLiteral("type"), type);
    QStringList notices = run.idle;
    if (model.noticeMessage()) notices << *model.noticeMessage();
    if (!model.failedStages().isEmpty())
        notices << QStringLiteral("%1 couldn’t be done (not enough memory); written at %2 × %3")
                       .arg(model.failedStages().join(QStringLiteral(" and ")))
                       .arg(result.width())
                       .arg(result.height());
    if (!leftOut.isEmpty())
        notices << QStringLiteral("the input’s %1 left out: more than a result carries")
                       .arg(leftOut.join(QStringLiteral(", ")));
    // A damaged runtime only slows the cutout down (OpenCV ran it); said once per result.
    if (model.wantsVision() && !VisionEngine::runtimeProblem().isEmpty() &&
        !notices.contains(VisionEngine::runtimeProblem()))
        notices << VisionEngine::runtimeProblem();

    if (!notices.isEmpty()) outcome.json.insert(QStringLiteral("notice"), notices.join(QStringLiteral("; ")));
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
        failOpening(outcome, input, model);
        return outcome;
    }
    outcome.json.insert(QStringLiteral("width"), double(item->buffer.width()));
    outcome.json.insert(QStringLiteral("height"), double(item->buffer.height()));
    outcome.json.insert(QStringLiteral("type"), item->type);
    const Settings defaults;
    const auto content = CropEngine::contentRect(item->buffer, defaults.threshold);
    outcome.json.insert(QStringLiteral("contentRect"),
                        content ? QJsonValue(rectJson(*content)) : QJsonValue());
    outcome.json.insert(
        QStringLiteral("mostlyWhite"),
        CropEngine::backgroundIsMostlyWhite(item->buffer, CropEngine::kMostlyWhiteEdgeFraction));
    QJsonArray pieces;
    for (const QRectF& r : model.collageRects())
        pieces.append(rectJson(r));
    outcome.json.insert(QStringLiteral("collageRects"), pieces);
    return outcome;
}

/// Inputs as opening sees them: folders become their images, in name order within each folder.
QStringList expandInputs(const QStringList& inputs) {
    QStringList out;
    for (const QString& input : inputs) {
        QStringList expanded = CropModel::expandingFolders({input});
        if (NativePath::isFolder(input)) {
            std::stable_sort(expanded.begin(), expanded.end(), [](const QString& a, const QString& b) {
                return NaturalOrder::compare(QFileInfo(a).fileName(), QFileInfo(b).fileName()) < 0;
            });
        }
        out << expanded;
    }
    return out;
}

/// Each input with its key for slicing: its path relative to the folder it was found in as given
/// on the command line, or the path as given for a file named directly.
QList<QPair<QString, QString>> expandInputsKeyed(const QStringList& given) {
    QList<QPair<QString, QString>> out;
    for (const QString& argument : given) {
        const bool folder = NativePath::isFolder(argument);
        for (const QString& path : expandInputs({argument}))
            out.append({path, folder ? QDir(argument).relativeFilePath(path) : QDir::cleanPath(argument)});
    }
    return out;
}

/// What a manifest line's settings are: a hash of everything that decides the result's bytes.
QString settingsHash(const RunContext& run) {
    QByteArray text = QJsonDocument(run.settings.toJson()).toJson(QJsonDocument::Compact);
    text += run.sizeWrites.join(QLatin1Char(',')).toUtf8();
    // The type and quality asked for change the bytes as much as a setting does.
    text += QStringLiteral("|%1|%2").arg(run.options.format).arg(run.options.quality).toUtf8();
    if (run.options.strip) text += "|strip"; // appended only when asked, so earlier manifests still match
    return QString::number(Shard::hash(text), 16).rightJustified(16, QLatin1Char('0'));
}

// More than any picture cutlark opens is stored in.
constexpr qint64 kMaxStandardInput = qint64(1) << 30;

} // namespace

/// A private folder for the run's own files (standard input's picture, a result on its way to
/// standard output), removed with everything in it when the run ends.
class CliRunner::ScratchFolder {
public:
    ScratchFolder() = default;
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;
    ~ScratchFolder() {
        if (!m_path.isEmpty()) PrivateDir::remove(m_path);
    }
    /// The folder, made on first use; empty when it can't be.
    const QString& path() {
        if (m_path.isEmpty()) m_path = PrivateDir::create(QStringLiteral("cutlark-cli"));
        return m_path;
    }

private:
    QString m_path;
};

std::optional<int> CliRunner::takeStandardInput(QStringList& inputs, ScratchFolder& scratch, QString& copy) {
    const qsizetype at = inputs.indexOf(QStringLiteral("-"));
    if (at < 0) return std::nullopt;
    QFile in;
    if (!in.open(stdin, QIODevice::ReadOnly)) {
        std::fprintf(m_err, "cutlark-cli: can’t read standard input\n");
        return 1;
    }
    // The head says what the picture is; the rest goes straight to the private file, a slice at a
    // time, so that a stream of any length costs one slice of memory.
    QByteArray head;
    while (head.size() < 64 * 1024) { // a pipe may hand over a few bytes at a time
        const QByteArray more = in.read(64 * 1024 - head.size());
        if (more.isEmpty()) break;
        head += more;
    }
    if (head.isEmpty()) {
        std::fprintf(m_err, "cutlark-cli: -: standard input is empty\n");
        return 1;
    }
    // Named for what it holds, so the result keeps its type as a file's would; what isn't a
    // picture at all is refused before the rest is read.
    const QString type = QMimeDatabase().mimeTypeForData(head).name();
    if (std::none_of(ImageFile::acceptedTypes().begin(), ImageFile::acceptedTypes().end(),
                     [&](const QString& t) { return ImageFile::conforms(type, t); })) {
        std::fprintf(m_err, "cutlark-cli: -: not an image type cutlark opens (%s)\n", qPrintable(type));
        return 1;
    }
    QString extension = ImageFile::preferredExtension(type);
    if (extension.isEmpty()) extension = QStringLiteral("bin");
    const QString folder = scratch.path();
    const QString name = QStringLiteral("stdin.") + extension;
    bool tooLarge = false;
    if (folder.isEmpty() || !PrivateDir::streamNew(folder, name, head, in, kMaxStandardInput, tooLarge)) {
        std::fputs(tooLarge ? "cutlark-cli: standard input holds more than 1 GB; give the picture as a file\n"
                            : "cutlark-cli: can’t keep standard input in a private temporary folder\n",
                   m_err);
        return 1;
    }
    copy = QDir(folder).filePath(name);
    inputs[at] = copy;
    return std::nullopt;
}

void CliRunner::print(const QJsonObject& object, FILE* to) {
    if (!to) to = m_out;
    clearProgress();
    const QByteArray line = QJsonDocument(object).toJson(QJsonDocument::Compact);
    std::fwrite(line.constData(), 1, size_t(line.size()), to);
    std::fputc('\n', to);
    std::fflush(to);
}

void CliRunner::progress(qsizetype done, qsizetype total) {
    if (!isatty(fileno(m_err)) || total <= 0) return;
    const int width = 30;
    const int filled = int(width * done / total);
    std::fprintf(m_err, "\r[%s%s] %lld/%lld", QByteArray(filled, '#').constData(),
                 QByteArray(width - filled, ' ').constData(), static_cast<long long>(done),
                 static_cast<long long>(total));
    m_barShown = true;
    std::fflush(m_err);
}

void CliRunner::endProgress() {
    if (!m_barShown) return;
    std::fputc('\n', m_err); // the finished bar stays, above whatever comes next
    std::fflush(m_err);
    m_barShown = false;
}

void CliRunner::clearProgress() {
    if (!m_barShown) return;
    std::fputs("\r\033[K", m_err); // back to the line's start and erase it, for the line to come
    std::fflush(m_err);
    m_barShown = false;
}

int CliRunner::reportFailures(const QStringList& failures) {
    if (failures.isEmpty()) return 0;
    for (const QString& f : failures)
        std::fprintf(m_err, "cutlark-cli: %s\n", qPrintable(f));
    return 1;
}

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
    ScratchFolder scratch;
    QString stdinCopy;
    QStringList given = options.inputs;
    if (auto code = takeStandardInput(given, scratch, stdinCopy)) return *code;
    const QStringList inputs = expandInputs(given);
    if (inputs.isEmpty()) {
        std::fprintf(m_err, "cutlark-cli: No supported images found.\n");
        return 1;
    }
    for (const QString& input : inputs) {
        Outcome o = infoOne(input);
        const QString shown = input == stdinCopy ? QStringLiteral("-") : input;
        o.json.insert(QStringLiteral("input"), shown);
        print(o.json);
        if (o.failed) failures << failureLine(shown, o.json);
    }
    return reportFailures(failures);
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
    ScratchFolder scratch;
    QString stdinCopy;
    QStringList inputs = options.inputs;
    if (auto code = takeStandardInput(inputs, scratch, stdinCopy)) return *code;
    const QString input = inputs.first();
    const QString shownInput = input == stdinCopy ? QStringLiteral("-") : input;
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
        const QString reason = model.openRefusal().isEmpty() ? whyNotOpened(input) : model.openRefusal();
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
    print(json, options.toStdout ? m_err : m_out);
    return 0;
}

int CliRunner::runSplit(const CliOptions& options) {
    if (!options.outputDir.isEmpty() && !NativePath::isFolder(options.outputDir) &&
        !QDir().mkpath(options.outputDir)) {
        std::fprintf(m_err, "cutlark-cli: can’t create the folder “%s”\n", qPrintable(options.outputDir));
        return 2;
    }
    QStringList failures, single;
    for (const QString& input : expandInputs(options.inputs)) {
        QJsonObject json{{QStringLiteral("input"), input}};
        CropModel model;
        CliPanels panels(options.outputDir);
        model.setPanels(&panels);
        model.open({input});
        if (model.items().empty()) {
            Outcome o;
            failOpening(o, input, model);
            json = o.json;
            failures << failureLine(input, json);
        } else if (model.collageRects().size() < 2) {
            // Read and found whole: nothing to split, nothing failed.
            json.insert(QStringLiteral("notice"), QStringLiteral("not a collage"));
            json.insert(QStringLiteral("pieces"), QJsonArray());
            single << input;
        } else {
            model.splitCollage();
            if (model.errorMessage()) {
                json.insert(QStringLiteral("error"), *model.errorMessage());
                failures << failureLine(input, json);
            } else {
                QJsonArray pieces;
                for (const auto& item : model.items())
                    pieces.append(item.path);
                json.insert(QStringLiteral("pieces"), pieces);
                if (model.noticeMessage()) json.insert(QStringLiteral("notice"), *model.noticeMessage());
            }
        }
        print(json);
    }
    if (!single.isEmpty())
        std::fprintf(m_err, "cutlark-cli: not collages, left as they are: %s\n",
                     qPrintable(single.join(QStringLiteral(", "))));
    return reportFailures(failures);
}

int CliRunner::runProcess(const CliOptions& asked) {
    CliOptions options = asked;
    RunContext run;
    QStringList given;
    if (auto code = readSettings(options, run.settings, run.sizeWrites, given)) return *code;
    run.idle = warnIdle(run.settings, given);
    ScratchFolder scratch;
    QString stdinCopy;
    if (auto code = takeStandardInput(options.inputs, scratch, stdinCopy)) return *code;
    if (options.toStdout) {
        // The result is written as any other, into the private folder, then sent on.
        options.outputDir = scratch.path();
        if (options.outputDir.isEmpty()) {
            std::fprintf(m_err, "cutlark-cli: can’t make a private temporary folder\n");
            return 1;
        }
    }
    run.options = options;
    if (!options.outputDir.isEmpty() && !NativePath::isFolder(options.outputDir)) {
        if (!QDir().mkpath(options.outputDir)) {
            std::fprintf(m_err, "cutlark-cli: can’t create the folder “%s”\n", qPrintable(options.outputDir));
            return 2;
        }
    }

    // The same file named twice (a.png, ./a.png, a folder holding it) is one input.
    QStringList inputs;
    QHash<QString, QString> sliceKey;
    QSet<QString> seen;
    for (const auto& [input, key] : expandInputsKeyed(options.inputs)) {
        const QString real = NativePath::canonical(input);
        const QString same = !real.isEmpty() ? real : absolute(input);
        if (seen.contains(same)) continue;
        seen.insert(same);
        inputs << input;
        sliceKey.insert(input, key);
    }
    // Results this run would write are never its inputs (a second run beside the first one's
    // results leaves them alone).
    const bool forcePngPossible = Pipeline::mayProduceTransparency(run.settings);
    if (!options.inPlace) {
        const QSet<QString> results = plannedResults(planOutputs(inputs, options, forcePngPossible));
        QStringList kept;
        for (const QString& input : std::as_const(inputs)) {
            if (results.contains(absolute(input)))
                std::fprintf(m_err, "cutlark-cli: %s: left out, a result of this run\n", qPrintable(input));
            else
                kept << input;
        }
        inputs = kept;
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
        run.inputs.insert(absolute(input));
    // Outputs are planned over every input, so that slices run apart name them as one run would.
    const std::vector<Plan> plans = planOutputs(inputs, options, forcePngPossible);

    // This run's slice, less what an earlier run recorded as done with the same settings.
    const QString hash = settingsHash(run);
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
    std::optional<Manifest> manifest;
    if (!options.manifestPath.isEmpty()) {
        QString error;
        manifest = Manifest::open(options.manifestPath, error);
        if (!manifest) {
            std::fprintf(m_err, "cutlark-cli: can’t write %s: %s\n", qPrintable(options.manifestPath),
                         qPrintable(error));
            return 2;
        }
    }
    std::vector<size_t> chosen;
    for (size_t i = 0; i < plans.size(); ++i) {
        if (!options.shard.takes(sliceKey.value(plans[i].input))) continue;
        if (done.contains(absolute(plans[i].input))) {
            print(QJsonObject{{QStringLiteral("input"), plans[i].input},
                              {QStringLiteral("skipped"), QStringLiteral("done")}});
            continue;
        }
        chosen.push_back(i);
    }

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
        const Plan& plan = plans[chosen[size_t(i)]];
        try {
            return processOne(plan, run);
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
    progress(0, total);
    for (qsizetype i = 0; i < total; ++i) {
        std::optional<Outcome> next;
        while (!(next = work.next(std::chrono::milliseconds(250))))
            progress(work.finished(), total);
        Outcome o = std::move(*next);
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
        const QString& path = plans[chosen[size_t(i)]].input;
        const QString input = path == stdinCopy ? QStringLiteral("-") : path;
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
        print(o.json, options.toStdout ? m_err : m_out);
        if (o.failed) failures << failureLine(input, o.json);
        if (manifest) {
            // Only once the result is on disk, its folder's entry included, is the input done.
            const QString output = o.json.value(QStringLiteral("output")).toString();
            const bool durable = !o.failed && Manifest::syncFolderOf(output);
            QJsonObject line{
                {QStringLiteral("input"), absolute(path)},
                {QStringLiteral("settings"), hash},
                {QStringLiteral("status"), durable ? QStringLiteral("done") : QStringLiteral("failed")}};
            if (durable) line.insert(QStringLiteral("output"), output);
            if (o.failed) line.insert(QStringLiteral("error"), o.json.value(QStringLiteral("error")));
            if (!manifest->append(line)) {
                failures << QStringLiteral("%1: can’t record it in %2").arg(input, options.manifestPath);
                manifest.reset(); // a manifest that can't be written is written no more
            }
        }
        progress(std::max<qsizetype>(work.finished(), i + 1), total);
    }
    // Only now: all may be finished while lines are still to print, each on a cleared line.
    endProgress();
    return reportFailures(failures);
}

} // namespace cutlark
