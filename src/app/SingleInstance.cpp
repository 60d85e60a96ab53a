#include "app/SingleInstance.h"

#include <QDataStream>
#include <QLocalSocket>

#include <unistd.h>

namespace cutlark {

SingleInstance::SingleInstance(QString name, QObject* parent)
    : QObject(parent), m_name(name.isEmpty() ? QStringLiteral("cutlark-%1").arg(getuid()) : std::move(name)) {
    connect(&m_server, &QLocalServer::newConnection, this, [this] {
        while (QLocalSocket* socket = m_server.nextPendingConnection()) {
            // The whole list arrives before the other side hangs up.
            connect(socket, &QLocalSocket::disconnected, this, [this, socket] {
                QDataStream in(socket->readAll());
                QStringList files;
                in >> files;
                socket->deleteLater();
                emit filesReceived(files);
            });
        }
    });
}

bool SingleInstance::handOver(const QStringList& files) const {
    QLocalSocket socket;
    socket.connectToServer(m_name);
    if (!socket.waitForConnected(500)) return false;
    QByteArray payload;
    QDataStream out(&payload, QIODevice::WriteOnly);
    out << files;
    socket.write(payload);
    socket.waitForBytesWritten(2000);
    socket.disconnectFromServer();
    if (socket.state() != QLocalSocket::UnconnectedState) socket.waitForDisconnected(2000);
    return true;
}

bool SingleInstance::listen() {
    m_server.setSocketOptions(QLocalServer::UserAccessOption);
    if (m_server.listen(m_name)) return true;
    // A socket left behind by a crashed instance: nobody answered the hand-over, so take it over.
    QLocalServer::removeServer(m_name);
    return m_server.listen(m_name);
}

} // namespace cutlark
