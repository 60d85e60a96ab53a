#include "app/SingleInstance.h"
#include "engines/VisionEngine.h"
#include "support/HugePages.h"
#include "ui/ContentView.h"
#include "ui/FileOpenInbox.h"
#include "ui/MainWindow.h"
#include "ui/Widgets.h"

#include <QApplication>
#include <QFileInfo>
#include <QIcon>
#include <QtConcurrent/QtConcurrentRun>
#include <QThreadPool>

int main(int argc, char** argv) {
    cutlark::HugePages::restartWithHugePages(argv);
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Cutlark"));
    QApplication::setDesktopFileName(QStringLiteral("cutlark"));
    cutlark::setUpIcons();
    QApplication::setWindowIcon(QIcon::fromTheme(QStringLiteral("cutlark")));

    QStringList files;
    for (const QString& arg : QApplication::arguments().mid(1))
        files << QFileInfo(arg).absoluteFilePath();

    // A running window takes the files; this process then has nothing more to do.
    cutlark::SingleInstance instance;
    if (instance.handOver(files)) return 0;
    instance.listen();

    // The command line's files wait in the inbox; the window takes them when it appears.
    if (!files.isEmpty()) cutlark::FileOpenInbox::instance().deliver(files);
    cutlark::MainWindow window;
    window.show();
    QObject::connect(&instance, &cutlark::SingleInstance::filesReceived, &window,
                     [&](const QStringList& handed) {
                         if (!handed.isEmpty()) cutlark::FileOpenInbox::instance().deliver(handed);
                         window.raise();
                         window.activateWindow();
                     });

    // The subject network loads in the background, so the first cutout doesn't wait for it.
    (void)QtConcurrent::run(QThreadPool::globalInstance(), [] { cutlark::VisionEngine::preload(); });
    return app.exec();
}
