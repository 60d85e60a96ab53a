#include "cli/OutputPlan.h"

#include "io/ImageFile.h"
#include "model/SavePlan.h"
#include "support/NativePath.h"

#include <QDir>
#include <QFileInfo>

namespace cutlark::OutputPlan {

std::vector<Plan> plan(const QStringList& inputs, const CliOptions& options, bool transparencyPossible) {
    std::vector<Plan> plans;
    QSet<QString> taken;
    for (const QString& input : inputs) {
        Plan p;
        p.input = input;
        p.folder = NativePath::absolute(
            options.outputDir.isEmpty() ? QFileInfo(NativePath::absolute(input)).path() : options.outputDir);
        QString own = options.format.isEmpty() ? QFileInfo(input).suffix()
                                               : ImageFile::preferredExtension(options.format);
        if (own.isEmpty()) own = QStringLiteral("png");
        p.extensions = {own};
        if (options.format.isEmpty() && transparencyPossible &&
            !ImageFile::supportsAlpha(ImageFile::typeForExtension(own)) &&
            own.compare(QStringLiteral("png"), Qt::CaseInsensitive) != 0)
            p.extensions << QStringLiteral("png");
        const auto key = [&](int n, const QString& ext) {
            return QDir(p.folder).filePath(SavePlan::numberedName(input, n, ext)).toLower();
        };
        for (int n = 1;; ++n) {
            bool free = true;
            for (const QString& ext : p.extensions)
                free = free && !taken.contains(key(n, ext));
            if (!free) continue;
            for (const QString& ext : p.extensions)
                taken.insert(key(n, ext));
            p.number = n;
            break;
        }
        plans.push_back(p);
    }
    return plans;
}

QSet<QString> results(const std::vector<Plan>& plans) {
    QSet<QString> out;
    for (const Plan& p : plans)
        for (const QString& ext : p.extensions)
            out.insert(QDir(p.folder).filePath(SavePlan::numberedName(p.input, p.number, ext)));
    return out;
}

} // namespace cutlark::OutputPlan
