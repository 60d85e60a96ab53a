#include "app/SingleInstance.h"
#include "engines/VisionEngine.h"
#include "ui/ContentView.h"
#include "ui/MainWindow.h"
#include "ui/Widgets.h"

#include <QApplication>
#include <QFileInfo>
#include <QIcon>
#include <QThreadPool>
#include <QtConcurrent/QtConcurrentRun>

int main(int argc, char** argv) {
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Cutlark"));
    QApplication::setDesktopFileName(QStringLiteral("cutlark"));
    cutlark::setUpIcons();
    QApplication::setWindowIcon(QIcon::fromTheme(QStringLiteral("cutlark")));

    QStringList files;
    for (const QString& arg : QApplication::arguments().mid(1)) files << QFileInfo(arg).absoluteFilePath();

    // A running window takes the files; this process then has nothing more to do.
    cutlark::SingleInstance instance;
    if (instance.handOver(files)) return 0;
    instance.listen();

    cutlark::MainWindow window;
    window.show();
    cutlark::CropModel& model = window.content()->model();
    QObject::connect(&instance, &cutlark::SingleInstance::filesReceived, &window, [&](const QStringList& handed) {
        if (!handed.isEmpty()) model.open(handed);
        window.raise();
        window.activateWindow();
    });

    // The subject network loads in the background, so the first cutout doesn't wait for it.
    (void)QtConcurrent::run(QThreadPool::globalInstance(), [] { cutlark::VisionEngine::preload(); });
    if (!files.isEmpty()) model.open(files);
    return app.exec();
}
