#include "ui/QtPanels.h"

#include "io/ImageFile.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileDialog>
#include <QMimeDatabase>
#include <QProgressDialog>

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
        chosen =
            QFileDialog::getOpenFileNames(m_parent, QObject::tr("Open Images"), QString(), imageFilter());
    } else {
        const QString one =
            QFileDialog::getOpenFileName(m_parent, QObject::tr("Choose a Picture"), QString(), imageFilter());
        if (!one.isEmpty()) chosen << one;
    }
    if (chosen.isEmpty()) return std::nullopt;
    return chosen;
}

std::optional<QString> QtPanels::saveFile(const QString& directory, const QString& proposedName,
                                          const QString& type) {
    QFileDialog dialog(m_parent, QObject::tr("Save As"), directory);
    dialog.setAcceptMode(QFileDialog::AcceptSave);
    dialog.setMimeTypeFilters({type});
    dialog.selectFile(proposedName);
    if (dialog.exec() != QDialog::Accepted || dialog.selectedFiles().isEmpty()) return std::nullopt;
    return dialog.selectedFiles().first();
}

std::optional<QString> QtPanels::openFile(const QString& type) {
    QFileDialog dialog(m_parent, QObject::tr("Open"));
    dialog.setFileMode(QFileDialog::ExistingFile);
    dialog.setMimeTypeFilters({type});
    if (dialog.exec() != QDialog::Accepted || dialog.selectedFiles().isEmpty()) return std::nullopt;
    return dialog.selectedFiles().first();
}

std::optional<QString> QtPanels::chooseFolder(const QString& directory, const QString& prompt,
                                              const QString& message) {
    QFileDialog dialog(m_parent, message, directory);
    dialog.setFileMode(QFileDialog::Directory);
    dialog.setOption(QFileDialog::ShowDirsOnly, true);
    dialog.setLabelText(QFileDialog::Accept, prompt);
    if (dialog.exec() != QDialog::Accepted || dialog.selectedFiles().isEmpty()) return std::nullopt;
    return dialog.selectedFiles().first();
}

bool QtPanels::openProgress(int done, int total) {
    if (done == 0 && !m_progress) m_openClock.start();
    if (!m_progress) {
        // Short opens show nothing. Until the dialog is up the window keeps drawing, but takes no
        // input, so the user can't change anything in the middle of an open.
        if (done >= total || !m_openClock.isValid() || m_openClock.elapsed() < m_progressDelayMs) {
            QCoreApplication::processEvents(QEventLoop::ExcludeUserInputEvents);
            return true;
        }
        m_progress = new QProgressDialog(total == 1 ? QObject::tr("Opening 1 image…")
                                                    : QObject::tr("Opening %1 images…").arg(total),
                                         QObject::tr("Cancel"), 0, total, m_parent);
        m_progress->setWindowTitle(QObject::tr("Opening"));
        m_progress->setWindowModality(Qt::WindowModal);
        m_progress->setMinimumDuration(0);
        m_progress->setAutoReset(false);
        m_progress->setAutoClose(false);
        m_progress->show();
    }
    m_progress->setValue(done);
    QCoreApplication::processEvents(); // repaints, and lets Cancel be clicked
    return !m_progress || !m_progress->wasCanceled();
}

void QtPanels::openFinished() {
    delete m_progress.data();
    m_openClock.invalidate();
}

} // namespace cutlark
