#include "ui/MainWindow.h"

#include "ui/ContentView.h"
#include "ui/FileOpenInbox.h"

#include <QAction>
#include <QApplication>
#include <QDesktopServices>
#include <QDir>
#include <QFileInfo>
#include <QMenuBar>
#include <QUrl>

namespace cutlark {

MainWindow::MainWindow(QWidget* parent)
    : QMainWindow(parent), m_content(new ContentView(this)), m_panels(this) {
    setWindowTitle(tr("Cutlark"));
    setCentralWidget(m_content);
    resize(720, 540);

    QMenu* file = menuBar()->addMenu(tr("&File"));
    // The menu bar belongs to the window, not to the view that owns the model; the files go by way
    // of the inbox, as files handed over by a second start do.
    file->addAction(tr("Open…"), QKeySequence::Open, this, [this] {
        if (auto chosen = m_panels.openImages(true)) FileOpenInbox::instance().deliver(*chosen);
    });
    file->addSeparator();
    file->addAction(tr("Quit"), QKeySequence::Quit, qApp, &QApplication::quit);
    QMenu* help = menuBar()->addMenu(tr("&Help"));
    help->addAction(tr("Cutlark Help"), this, [] {
        // The guide installed with the application, or the one of the source tree beside a build.
        const QString bin = QCoreApplication::applicationDirPath();
        for (const QString& candidate : {bin + QStringLiteral("/../share/doc/cutlark/guide.html"),
                                         bin + QStringLiteral("/../docs/guide.html")}) {
            if (QFileInfo::exists(candidate)) {
                QDesktopServices::openUrl(QUrl::fromLocalFile(QFileInfo(candidate).absoluteFilePath()));
                return;
            }
        }
    });
}

} // namespace cutlark
