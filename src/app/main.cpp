#include "engines/VisionEngine.h"
#include "ui/ContentView.h"
#include "ui/MainWindow.h"

#include <QApplication>
#include <QDataStream>
#include <QFileInfo>
#include <QIcon>
#include <QLocalServer>
#include <QLocalSocket>
#include <QThreadPool>
#include <QtConcurrent/QtConcurrentRun>

#include <unistd.h>

namespace {

QString socketName() { return QStringLiteral("cutlark-%1").arg(getuid()); }

// A running window takes the files; this process then has nothing more to do.
bool handOver(const QStringList& files) {
    QLocalSocket socket;
    socket.connectToServer(socketName());
    if (!socket.waitForConnected(500)) return false;
    QByteArray payload;
    QDataStream out(&payload, QIODevice::WriteOnly);
    out << files;
    socket.write(payload);
    socket.flush();
    socket.waitForBytesWritten(2000);
    socket.disconnectFromServer();
    return true;
}

} // namespace

int main(int argc, char** argv) {
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Cutlark"));
    QApplication::setDesktopFileName(QStringLiteral("cutlark"));
    QIcon::setFallbackThemeName(QStringLiteral("breeze"));

    QStringList files;
    for (const QString& arg : QApplication::arguments().mid(1)) files << QFileInfo(arg).absoluteFilePath();
    if (handOver(files)) return 0;

    cutlark::MainWindow window;
    window.show();
    cutlark::CropModel& model = window.content()->model();

    QLocalServer server;
    QLocalServer::removeServer(socketName());
    server.listen(socketName());
    QObject::connect(&server, &QLocalServer::newConnection, &window, [&] {
        while (QLocalSocket* socket = server.nextPendingConnection()) {
            QObject::connect(socket, &QLocalSocket::disconnected, socket, [socket, &model, &window] {
                QDataStream in(socket->readAll());
                QStringList handed;
                in >> handed;
                if (!handed.isEmpty()) model.open(handed);
                window.raise();
                window.activateWindow();
                socket->deleteLater();
            });
        }
    });

    // The subject network loads in the background, so the first cutout doesn't wait for it.
    (void)QtConcurrent::run(QThreadPool::globalInstance(), [] { cutlark::VisionEngine::preload(); });
    if (!files.isEmpty()) model.open(files);
    return app.exec();
}
