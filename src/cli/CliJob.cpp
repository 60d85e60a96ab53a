#include "cli/CliJob.h"

#include "engines/CropEngine.h"
#include "engines/VisionEngine.h"
#include "io/ImageFile.h"
#include "io/ImageMetadata.h"
#include "model/CropModel.h"
#include "model/SavePlan.h"
#include "support/AtomicFile.h"
#include "support/MemoryBudget.h"
#include "support/NativePath.h"
#include "support/RegularFile.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QMimeDatabase>

#include <system_error>

namespace cutlark::CliJob {

namespace {

QJsonArray rectJson(const QRectF& r) {
    return QJsonArray{r.x(), r.y(), r.width(), r.height()};
}

// The model with the input opened and the run's settings applied: the settings, then the sizes
// given by name written again as a person would type them (so that a locked aspect follows the
// image as it stands before the resize), each build stopping before the resize; then the resize
// once, for the size that stands at the end. False (with `outcome` failed) when it can't open.
bool openAndBuild(CropModel& model, const QString& input, const RunContext& run, Outcome& outcome) {
    // The picture and its work take their share of memory before anything is decoded; a job whose
    // picture doesn't fit beside the others' waits for them, one that can never fit is refused.
    std::optional<MemoryBudget::Hold> memory;
    if (const auto size = ImageFile::probeSize(input)) {
        const qint64 bytes = qint64(size->width()) * size->height() * 4;
        memory = MemoryBudget::waitHold(bytes * (1 + MemoryBudget::kWorkFactor));
        if (!memory) {
            outcome.failed = true;
            outcome.json.insert(
                QStringLiteral("error"),
                QCoreApplication::translate("cutlark::CropModel", "1 file couldn’t be opened."));
            return false;
        }
    }
    model.setSynchronousWork(true); // no event loop here: cutouts and traces run inside the call
    model.setDetectsCollages(false);
    model.setMakesThumbnails(false);
    if (memory) model.setLoadOptions(ImageFile::LoadOptions{false});
    model.open({input});
    if (model.items().empty()) {
        failOpening(outcome, input, model);
        return false;
    }
    model.setDefersResize(true);
    model.applySettings(run.settings);
    for (const QString& name : run.sizeWrites)
        model.writeSetting(name, run.settings);
    model.setDefersResize(false);
    model.writeSetting(QStringLiteral("resizeEnabled"), run.settings);
    return true;
}

// The result's file: over the input (or beside it, when its type changes) with --in-place, the one
// file -o names, or "<stem>-out.<ext>" where the plan puts it. An error text when the in-place
// result would land on another input.
std::optional<QString> targetOf(const OutputPlan::Plan& plan, const RunContext& run,
                                const QString& sourcePath, const SavePlan::Choice& choice, QString& target) {
    if (!plan.file.isEmpty()) {
        target = plan.file;
        return std::nullopt;
    }
    if (!run.options.inPlace) {
        target = QDir(plan.folder).filePath(SavePlan::newFileName(sourcePath, choice));
        return std::nullopt;
    }
    target = NativePath::absolute(SavePlan::overOriginal(sourcePath, choice));
    if (target != NativePath::absolute(sourcePath) && run.inputs.contains(target))
        return QStringLiteral(
                   "the result would be written as “%1”, which is another input; nothing was written")
            .arg(QFileInfo(target).fileName());
    return std::nullopt;
}

// The type the result is written as: the save rules, or the type asked for by --format or by the
// name -o gives; an error text when that type can't hold the result's transparency.
std::optional<QString> typeOf(const CropModel& model, const OutputPlan::Plan& plan, const CliOptions& options,
                              SavePlan::Choice& choice) {
    choice = model.saveTypeChoice(*model.active());
    QString asked = options.format;
    if (asked.isEmpty() && !plan.file.isEmpty())
        asked = ImageFile::typeForExtension(QFileInfo(plan.file).suffix());
    if (asked.isEmpty()) return std::nullopt;
    // Asked for by name: written so, or refused when it would lose the transparency.
    if (!ImageFile::supportsAlpha(asked) && ImageFile::hasTransparency(model.processedImage()))
        return QStringLiteral("%1 can’t hold the result’s transparency; choose --format png or webp, or lay "
                              "a background")
            .arg(ImageFile::preferredExtension(asked));
    choice = SavePlan::asked(asked);
    return std::nullopt;
}

// Writes `bytes` to `target`, on a thread of its own when a slot is free, so that the worker's core
// computes the next image while the disk confirms this one; the line is printed once the file is there.
void startWriting(Outcome& outcome, const RunContext& run, const QString& target, const QByteArray& bytes) {
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
}

// What the result's line says besides its file: idle settings, the model's notice, stages that
// couldn't be done, metadata left out, a runtime that was refused.
QStringList noticesOf(const CropModel& model, const RunContext& run, const QImage& result,
                      const QStringList& leftOut) {
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
    return notices;
}

} // namespace

Outcome process(const OutputPlan::Plan& plan, const RunContext& run) {
    const CliOptions& options = run.options;
    Outcome outcome;
    outcome.json.insert(QStringLiteral("input"), plan.input);
    const auto fail = [&](const QString& error) {
        outcome.failed = true;
        outcome.json.insert(QStringLiteral("error"), error);
        return outcome;
    };
    if (!plan.clashesWith.isEmpty())
        return fail(QStringLiteral("its result would take the name of “%1”’s; rename one of them (nothing "
                                   "was written for either)")
                        .arg(plan.clashesWith));
    CropModel model;
    if (!openAndBuild(model, plan.input, run, outcome)) return outcome;
    // Missing, damaged or refused: said as such, not as a picture without a subject.
    if (model.wantsVision() && (!model.subjectModeOffered() || !VisionEngine::problem().isEmpty()))
        return fail(QStringLiteral("subject mode can’t run: ") + VisionEngine::problem());

    const CropModel::Item* item = model.active();
    const QImage result = model.processedImage();
    SavePlan::Choice choice;
    if (auto error = typeOf(model, plan, options, choice)) return fail(*error);
    const QString type = ImageFile::writableType(choice.type);
    const QString sourcePath = item->path;
    QString target;
    if (auto error = targetOf(plan, run, sourcePath, choice, target)) return fail(*error);
    outcome.json.insert(QStringLiteral("output"), target);
    // A result from before is not replaced unless asked; the file the input itself is, is. A
    // resumed run replaces what its manifest doesn't record as done: the file may be another
    // run's, with other settings.
    const bool replace = options.overwrite || !options.resumePath.isEmpty();
    if (!replace && target != NativePath::absolute(sourcePath) && NativePath::exists(target)) {
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
    outcome.whenWriteFails = outcome.json;
    outcome.whenWriteFails.insert(QStringLiteral("error"), cantWrite);
    // The input's place below -o DIR is made as it is needed.
    if (!NativePath::makeFolders(QFileInfo(target).path())) return fail(cantWrite);
    startWriting(outcome, run, target, bytes);
    outcome.json.insert(QStringLiteral("width"), result.width());
    outcome.json.insert(QStringLiteral("height"), result.height());
    outcome.json.insert(QStringLiteral("type"), type);
    const QStringList notices = noticesOf(model, run, result, leftOut);
    if (!notices.isEmpty()) outcome.json.insert(QStringLiteral("notice"), notices.join(QStringLiteral("; ")));
    if (model.subjectNotFound()) outcome.json.insert(QStringLiteral("subjectNotFound"), true);
    return outcome;
}

Outcome trace(const QString& input, const QString& target, bool named, const RunContext& run,
              FILE* toStdout) {
    Outcome outcome;
    outcome.json.insert(QStringLiteral("input"), input);
    outcome.json.insert(QStringLiteral("output"), toStdout ? QStringLiteral("-") : target);
    const auto fail = [&](const QString& error) {
        outcome.failed = true;
        outcome.json.insert(QStringLiteral("error"), error);
        return outcome;
    };
    // Never over an input, and over an existing file only when asked; checked before any work.
    if (!toStdout) {
        const QString existing = NativePath::canonical(target);
        if (!existing.isEmpty() && existing == NativePath::canonical(input))
            return fail(QStringLiteral("“%1” is the input itself; nothing was written").arg(target));
        if (!existing.isEmpty() && !run.options.overwrite) {
            // A file named by -o is refused; an SVG from an earlier run is left, as process leaves its
            // results.
            if (named)
                return fail(QStringLiteral(
                                "“%1” exists already (give --overwrite to replace it); nothing was written")
                                .arg(target));
            outcome.json.insert(QStringLiteral("skipped"), QStringLiteral("exists"));
            return outcome;
        }
    }
    CropModel model;
    if (!openAndBuild(model, input, run, outcome)) return outcome;
    const auto svg = model.currentSVG();
    if (!svg) return fail(model.vectorStatusText().value_or(QStringLiteral("No output.")));
    const QByteArray bytes = svg->toUtf8();
    if (toStdout) {
        if (std::fwrite(bytes.constData(), 1, size_t(bytes.size()), toStdout) != size_t(bytes.size()) ||
            std::fflush(toStdout) != 0)
            return fail(QStringLiteral("couldn’t write the SVG to standard output"));
    } else if (!NativePath::makeFolders(QFileInfo(target).path()) || !AtomicFile::write(target, bytes)) {
        return fail(QStringLiteral("can’t write %1: %2").arg(target, AtomicFile::lastError()));
    }
    outcome.json.insert(QStringLiteral("width"), model.processedImage().width());
    outcome.json.insert(QStringLiteral("height"), model.processedImage().height());
    outcome.json.insert(QStringLiteral("type"), QStringLiteral("image/svg+xml"));
    if (model.vectorFullColor() && model.vectorColorTrace())
        outcome.json.insert(QStringLiteral("layers"), int(model.vectorColorTrace()->layers.size()));
    else if (model.vectorTrace())
        outcome.json.insert(QStringLiteral("contours"), int(model.vectorTrace()->contours.size()));
    if (!run.idle.isEmpty())
        outcome.json.insert(QStringLiteral("notice"), run.idle.join(QStringLiteral("; ")));
    return outcome;
}

Outcome info(const QString& input) {
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

void failOpening(Outcome& outcome, const QString& input, const CropModel& model) {
    outcome.failed = true;
    outcome.json.insert(QStringLiteral("error"), model.errorMessage().value_or(QStringLiteral("can’t open")));
    const QString reason = model.openRefusal().isEmpty() ? whyNotOpened(input) : model.openRefusal();
    if (!reason.isEmpty()) outcome.json.insert(QStringLiteral("reason"), reason);
}

QString failureReason(const QJsonObject& json) {
    const QString reason = json.value(QStringLiteral("reason")).toString();
    return reason.isEmpty() ? json.value(QStringLiteral("error")).toString() : reason;
}

QString failureLine(const QString& input, const QJsonObject& json) {
    return input + QStringLiteral(": ") + failureReason(json);
}

QString settingsHash(const RunContext& run) {
    QByteArray text = QJsonDocument(run.settings.toJson()).toJson(QJsonDocument::Compact);
    text += run.sizeWrites.join(QLatin1Char(',')).toUtf8();
    // The type and quality asked for change the bytes as much as a setting does.
    text += QStringLiteral("|%1|%2").arg(run.options.format).arg(run.options.quality).toUtf8();
    if (run.options.strip) text += "|strip"; // appended only when asked, so earlier manifests still match
    return QString::number(Shard::hash(text), 16).rightJustified(16, QLatin1Char('0'));
}

} // namespace cutlark::CliJob
