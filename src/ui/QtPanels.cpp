#include "ui/QtPanels.h"

#include "model/ImageFile.h"

#include <QDir>
#include <QFileDialog>
#include <QMimeDatabase>

namespace cutlark {

QString QtPanels::imageFilter() {
    QStringList globs;
    const QMimeDatabase db;
    for (const QString& type : ImageFile::acceptedTypes()) {
        for (const QString& glob : db.mimeTypeForName(type).globPatterns())
            if (!globs.contains(glob)) globs << glob;
    }
    if (!globs.contains(QStringLiteral("*.heic"))) globs << QStringLiteral("*.heic");
    return QObject::tr("Images (%1)").arg(globs.join(QLatin1Char(' ')));
}

std::optional<QStringList> QtPanels::openImages(bool allowMultiple) {
    QStringList chosen;
    if (allowMultiple) {
        chosen = QFileDialog::getOpenFileNames(m_parent, QObject::tr("Open Images"), QString(), imageFilter());
    } else {
        const QString one = QFileDialog::getOpenFileName(m_parent, QObject::tr("Choose a Picture"), QString(),
                                                         imageFilter());
        if (!one.isEmpty()) chosen << one;
    }
    if (chosen.isEmpty()) return std::nullopt;
    return chosen;
}

std::optional<QString> QtPanels::saveFile(const QString& directory, const QString& proposedName, const QString& type) {
    QFileDialog dialog(m_parent, QObject::tr("Save As"), directory);
    dialog.setAcceptMode(QFileDialog::AcceptSave);
    dialog.setMimeTypeFilters({type});
    dialog.selectFile(proposedName);
    if (dialog.exec() != QDialog::Accepted || dialog.selectedFiles().isEmpty()) return std::nullopt;
    return dialog.selectedFiles().first();
}

std::optional<QString> QtPanels::chooseFolder(const QString& directory, const QString& prompt, const QString& message) {
    QFileDialog dialog(m_parent, message, directory);
    dialog.setFileMode(QFileDialog::Directory);
    dialog.setOption(QFileDialog::ShowDirsOnly, true);
    dialog.setLabelText(QFileDialog::Accept, prompt);
    if (dialog.exec() != QDialog::Accepted || dialog.selectedFiles().isEmpty()) return std::nullopt;
    return dialog.selectedFiles().first();
}

} // namespace cutlark
