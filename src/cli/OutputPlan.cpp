#include "cli/OutputPlan.h"

#include "io/ImageFile.h"
#include "model/SavePlan.h"
#include "support/NativePath.h"

#include <QDir>
#include <QFileInfo>
#include <QHash>

namespace cutlark::OutputPlan {

namespace {

// Every name the result of `p` could take, lower-cased: file systems that fold case must not see
// two results as one either.
QStringList candidates(const Plan& p) {
    if (!p.file.isEmpty()) return {NativePath::absolute(p.file).toLower()};
    QStringList out;
    for (const QString& ext : p.extensions)
        out << QDir(p.folder).filePath(SavePlan::numberedName(p.input, 1, ext)).toLower();
    return out;
}

} // namespace

bool namesFile(const QString& output) {
    const QString type = ImageFile::typeForExtension(QFileInfo(output).suffix());
    return !type.isEmpty() && ImageFile::acceptedTypes().contains(type) && !NativePath::isFolder(output);
}

std::vector<Plan> plan(const QList<CliInputs::Input>& inputs, const CliOptions& options,
                       bool transparencyPossible) {
    std::vector<Plan> plans;
    plans.reserve(size_t(inputs.size()));
    const bool toFile = !options.outputDir.isEmpty() && namesFile(options.outputDir) && inputs.size() == 1;
    // Below -o every input of one place shares its folder's one string: 100 000 pictures of one
    // folder hold one copy.
    QHash<QString, QString> placed;
    for (const CliInputs::Input& input : inputs) {
        Plan p;
        p.input = input.path;
        if (toFile) p.file = NativePath::absolute(options.outputDir);
        if (options.outputDir.isEmpty()) {
            p.folder = NativePath::absolute(QFileInfo(NativePath::absolute(input.path)).path());
        } else {
            auto at = placed.find(input.place);
            if (at == placed.end())
                at = placed.insert(input.place,
                                   NativePath::absolute(QDir(options.outputDir).filePath(input.place)));
            p.folder = *at;
        }
        QString own = options.format.isEmpty() ? QFileInfo(input.path).suffix()
                                               : ImageFile::preferredExtension(options.format);
        if (own.isEmpty()) own = QStringLiteral("png");
        p.extensions = {own};
        if (options.format.isEmpty() && transparencyPossible &&
            !ImageFile::supportsAlpha(ImageFile::typeForExtension(own)) &&
            own.compare(QStringLiteral("png"), Qt::CaseInsensitive) != 0)
            p.extensions << QStringLiteral("png");
        plans.push_back(p);
    }
    // Two inputs that could write one file: both are refused, each naming the other. (Written over
    // themselves, results meet only where one lands on another input, which is refused when known.)
    if (options.inPlace) return plans;
    QHash<QString, size_t> first;
    for (size_t i = 0; i < plans.size(); ++i) {
        for (const QString& name : candidates(plans[i])) {
            const auto at = first.constFind(name);
            if (at == first.constEnd()) {
                first.insert(name, i);
                continue;
            }
            Plan& earlier = plans[*at];
            if (earlier.clashesWith.isEmpty()) earlier.clashesWith = plans[i].input;
            if (plans[i].clashesWith.isEmpty()) plans[i].clashesWith = earlier.input;
        }
    }
    return plans;
}

QSet<QString> results(const std::vector<Plan>& plans) {
    QSet<QString> out;
    for (const Plan& p : plans) {
        if (!p.file.isEmpty()) {
            out.insert(p.file);
            continue;
        }
        for (const QString& ext : p.extensions)
            out.insert(QDir(p.folder).filePath(SavePlan::numberedName(p.input, 1, ext)));
    }
    return out;
}

} // namespace cutlark::OutputPlan
